#include "velmorand/config/RelayBase.h"

#include "velmorand/platform/Text.h"

namespace velmorand {

std::optional<RelayBase> RelayBase::choose(const SharedConfig::Values& values) {
    if (!values.isPaired()) {
        return std::nullopt;
    }
    if (values.relayOverride) {
        auto custom = trimmed(*values.relayOverride);
        if (!custom.empty()) {
            return RelayBase{std::move(custom), Source::customUrl};
        }
    }
    return RelayBase{*values.relayWsUrl, Source::pairing};
}

}  // namespace velmorand
