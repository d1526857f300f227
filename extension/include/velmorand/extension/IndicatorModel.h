#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "velmorand/config/BroadcastState.h"

namespace velmorand::extension {

// What the broadcast's indicator in the desktop's status area shows and announces, from what the
// broadcast says of itself each time it is read.
class IndicatorModel {
  public:
    // A broadcast that has not said it runs by then is not coming: the indicator goes.
    static constexpr std::int64_t kStartGraceMs = 15'000;

    struct Notice {
        std::string summary;
        std::string body;
        bool operator==(const Notice&) const = default;
    };
    struct View {
        // The line beside the icon and atop its menu, e.g. "Velmorand — Live — 1 viewer watching".
        std::string tooltip;
        // A viewer is operating the screen: the icon says so too.
        bool operating = false;
        // To announce now, as desktop notifications.
        std::vector<Notice> notices;
        // The broadcast has ended (or never started): the indicator goes.
        bool ended = false;
        bool operator==(const View&) const = default;
    };

    explicit IndicatorModel(std::int64_t startedAtMs) : startedAtMs_(startedAtMs) {}

    View next(const BroadcastSighting& seen, std::int64_t nowMs);

  private:
    std::int64_t startedAtMs_;
    bool sawItRun_ = false;
    bool announcedLive_ = false;
    bool announcedOperating_ = false;
};

}  // namespace velmorand::extension
