#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "velmorand/desktop/DataRoot.h"

namespace velmorand {

// A service URL that is not an http or https URL; what() names where it came from.
class InvalidServiceUrl : public std::invalid_argument {
  public:
    using std::invalid_argument::invalid_argument;
};

// Where the desktop programs reach the Velmorand service and the on-device automation server.
struct ServiceEndpoints {
    // The service's base URL: what pairing talks to and the pair link starts with. Always an
    // http or https URL without a trailing slash.
    std::string appURL;
    // The automation server's status URL.
    std::string wdaStatusURL = "http://127.0.0.1:8100/status";

    // `serviceUrl` (from --service-url) when given, else $VELMORAND_SERVICE_URL, else the
    // build's default, as a base URL: the scheme in lower case, trailing slashes dropped.
    // Throws InvalidServiceUrl for one that is not an http or https URL with a host, or that
    // carries a query or a fragment. $VELMORAND_WDA_URL replaces the automation server's URL,
    // for tests only.
    static ServiceEndpoints resolve(const std::optional<std::string>& serviceUrl,
                                    const EnvironmentLookup& environment = processEnvironment());

    // `url` as a base URL, or absent when it cannot be one (the rules of resolve()).
    static std::optional<std::string> baseUrl(std::string_view url);
};

}  // namespace velmorand
