#include "velmorand/desktop/ServiceEndpoints.h"

#include <algorithm>
#include <cctype>

#include "velmorand/platform/UrlComponents.h"

namespace velmorand {
namespace {

std::optional<std::string> nonEmpty(std::optional<std::string> value) {
    return value && !value->empty() ? value : std::nullopt;
}

std::string lowercase(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

}  // namespace

std::optional<std::string> ServiceEndpoints::baseUrl(std::string_view url) {
    const auto components = UrlComponents::parse(url);
    if (!components || components->host.empty() || components->query ||
        url.find('#') != std::string_view::npos) {
        return std::nullopt;
    }
    const auto scheme = lowercase(components->scheme);
    if (scheme != "http" && scheme != "https") {
        return std::nullopt;
    }
    // Every path is appended with its own leading slash.
    std::string_view rest = url.substr(components->scheme.size());
    while (rest.ends_with('/')) {
        rest.remove_suffix(1);
    }
    return scheme + std::string(rest);
}

ServiceEndpoints ServiceEndpoints::resolve(const std::optional<std::string>& serviceUrl,
                                           const EnvironmentLookup& environment) {
    const auto fromEnvironment = nonEmpty(environment("VELMORAND_SERVICE_URL"));
    const std::string chosen =
        serviceUrl ? *serviceUrl : fromEnvironment.value_or(VELMORAND_DEFAULT_SERVICE_URL);
    const auto base = baseUrl(chosen);
    if (!base) {
        const char* source = serviceUrl        ? "--service-url"
                             : fromEnvironment ? "VELMORAND_SERVICE_URL"
                                               : "the built-in service URL";
        throw InvalidServiceUrl(std::string(source) + " is not an http or https URL: " + chosen);
    }
    ServiceEndpoints endpoints;
    endpoints.appURL = *base;
    if (auto wda = nonEmpty(environment("VELMORAND_WDA_URL"))) {
        endpoints.wdaStatusURL = std::move(*wda);
    }
    return endpoints;
}

}  // namespace velmorand
