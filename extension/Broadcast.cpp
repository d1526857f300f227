#include "velmorand/extension/Broadcast.h"

#include <nlohmann/json.hpp>

#include "velmorand/extension/EventLines.h"
#include "velmorand/platform/Log.h"
#include "velmorand/platform/MainQueue.h"
#include "velmorand/relay/RelayClient.h"

namespace velmorand::extension {

Broadcast::Broadcast(RelayClient& client, Log& log, MainQueue& mainQueue,
                     std::function<void(int exitStatus)> stop)
    : client_(client), log_(log), mainQueue_(mainQueue), stop_(std::move(stop)) {
    attach();
}

void Broadcast::begin(const RelayBase& base, const SharedConfig::EncodeValues& encode) {
    log_.write(EventLines::relay(base.url, base.source == RelayBase::Source::customUrl));
    log_.write(EventLines::encode(encode));
    client_.connect();
}

void Broadcast::attach() {
    client_.onOpen = [this] { log_.write("relay: link open"); };
    client_.onControl = [this](const Control& control) {
        log_.write(EventLines::control(control));
    };
    client_.onNeedStream = [this](std::optional<std::string> prefer) {
        log_.write(EventLines::needStream(prefer));
    };
    client_.onEncodeSettings = [this](std::optional<std::int64_t> fps,
                                      std::optional<double> quality, std::optional<double> scale,
                                      std::optional<std::string> codec) {
        log_.write(EventLines::encodeSettings(fps, quality, scale, codec));
    };
    client_.onStreamControl = [this](bool streaming) {
        log_.write(EventLines::streamControl(streaming));
    };
    client_.onRequestIdr = [this] { log_.write(EventLines::requestIdr()); };
    client_.onStreamQuality = [this](std::string tier) {
        log_.write(EventLines::streamQuality(tier));
    };
    client_.onQos = [this](std::int64_t rttMs, double lossPct, std::optional<std::string> tier,
                           std::int64_t decodeQueue, std::int64_t jitterMs) {
        ++qosReports_;
        if (qosReports_ % kQosEvery == 1 || kQosEvery == 1) {
            log_.write(EventLines::qos(rttMs, lossPct, tier, decodeQueue, jitterMs, qosReports_));
        }
    };
    client_.onRelayQos = [this](double congestion) {
        log_.write(EventLines::relayQos(congestion));
    };
    client_.onWebRtcSignal = [this](const nlohmann::json& message) {
        log_.write(EventLines::webRtcSignal(message));
    };
    // The client would retry the same token forever; only a new pairing can help. Stopping
    // waits for the client to finish handling the close.
    client_.onAuthRejected = [this] {
        if (stopping_) {
            return;
        }
        stopping_ = true;
        mainQueue_.post([this] {
            log_.write(EventLines::kAuthRejected);
            stop_(1);
        });
    };
}

}  // namespace velmorand::extension
