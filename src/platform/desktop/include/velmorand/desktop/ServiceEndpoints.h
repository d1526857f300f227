#pragma once

#include <optional>
#include <string>

#include "velmorand/desktop/DataRoot.h"

namespace velmorand {

// Where the desktop programs reach the Velmorand service and the on-device automation server.
struct ServiceEndpoints {
    // The service's base URL: what pairing talks to and the pair link starts with.
    std::string appURL;
    // The automation server's status URL.
    std::string wdaStatusURL = "http://127.0.0.1:8100/status";

    // `serviceUrl` (from --service-url) when given, else $VELMORAND_SERVICE_URL, else the
    // build's default. $VELMORAND_WDA_URL replaces the automation server's URL, for tests only.
    static ServiceEndpoints resolve(const std::optional<std::string>& serviceUrl,
                                    const EnvironmentLookup& environment = processEnvironment());
};

}  // namespace velmorand
