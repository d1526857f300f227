#include "velmorand/desktop/ServiceEndpoints.h"

namespace velmorand {
namespace {

std::optional<std::string> nonEmpty(std::optional<std::string> value) {
    return value && !value->empty() ? value : std::nullopt;
}

}  // namespace

ServiceEndpoints ServiceEndpoints::resolve(const std::optional<std::string>& serviceUrl,
                                           const EnvironmentLookup& environment) {
    ServiceEndpoints endpoints;
    endpoints.appURL = serviceUrl ? *serviceUrl
                                  : nonEmpty(environment("VELMORAND_SERVICE_URL"))
                                        .value_or(VELMORAND_DEFAULT_SERVICE_URL);
    if (auto wda = nonEmpty(environment("VELMORAND_WDA_URL"))) {
        endpoints.wdaStatusURL = std::move(*wda);
    }
    return endpoints;
}

}  // namespace velmorand
