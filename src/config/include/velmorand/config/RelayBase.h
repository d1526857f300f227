#pragma once

#include <optional>
#include <string>

#include "velmorand/config/SharedConfig.h"

namespace velmorand {

// The relay the broadcast connects to: a custom URL, when one is set, wins over the one
// received at pairing.
struct RelayBase {
    enum class Source { customUrl, pairing };

    std::string url;
    Source source = Source::pairing;

    // Absent when the configuration is not paired.
    static std::optional<RelayBase> choose(const SharedConfig::Values& values);

    bool operator==(const RelayBase&) const = default;
};

}  // namespace velmorand
