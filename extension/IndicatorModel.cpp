#include "velmorand/extension/IndicatorModel.h"

namespace velmorand::extension {

IndicatorModel::View IndicatorModel::next(const BroadcastSighting& seen, std::int64_t nowMs) {
    View view;
    view.tooltip = "Velmorand — " + seen.summary;
    if (!seen.running) {
        view.ended = sawItRun_ || nowMs - startedAtMs_ >= kStartGraceMs;
        return view;
    }
    sawItRun_ = true;
    if (!seen.state) {
        return view;
    }
    const BroadcastState& state = *seen.state;
    view.operating = state.operatingAt(nowMs);
    // Each once a broadcast: the person is told it began, and when a viewer first takes over.
    if (state.phase == BroadcastState::Phase::live && !announcedLive_) {
        announcedLive_ = true;
        view.notices.push_back(
            {"Your screen is being broadcast",
             state.viewOnly
                 ? "Viewers on the Velmorand dashboard can see this screen, and nothing more."
                 : "Viewers on the Velmorand dashboard can see this screen and operate it."});
    }
    if (view.operating && !announcedOperating_) {
        announcedOperating_ = true;
        view.notices.push_back({"A viewer is operating this screen",
                                "Their taps and typing reach this desktop until you stop the "
                                "broadcast."});
    }
    return view;
}

}  // namespace velmorand::extension
