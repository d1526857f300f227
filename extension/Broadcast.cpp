#include "velmorand/extension/Broadcast.h"

#include <nlohmann/json.hpp>

#include "velmorand/extension/EventLines.h"
#include "velmorand/platform/Log.h"
#include "velmorand/platform/MainQueue.h"
#include "velmorand/relay/RelayClient.h"

namespace velmorand::extension {

Broadcast::Broadcast(Services services, std::function<void(int exitStatus)> stop)
    : client_(services.client),
      log_(services.log),
      mainQueue_(services.mainQueue),
      notices_(log_, mainQueue_),
      openStream_(std::move(services.openStream)),
      openRemoteControl_(std::move(services.openRemoteControl)),
      clock_(services.clock ? std::move(services.clock) : [] { return Clock::now(); }),
      stop_(std::move(stop)),
      status_(services.status),
      peers_(PeerSessions::Services{
          .mainQueue = mainQueue_,
          .log = log_,
          .makePeer = std::move(services.makePeer),
          .signal = [&client = client_](
                        const std::string& message) { client.transmit(message, std::nullopt); },
          .requestKeyFrame =
              [this] {
                  if (stream_) {
                      stream_->requestKeyFrame();
                  }
              },
          .streamIsH264 =
              [this] { return settings_ && settings_->config().encode.codec == "h264"; },
          .fanOut = services.peers,
      }) {
    attach();
}

// The stream's and the remote control's threads are joined before the rest goes, and the peers
// close before the stream that feeds them.
Broadcast::~Broadcast() {
    peers_.closeAll(std::nullopt);
    stream_.reset();
    remoteControl_.reset();
}

void Broadcast::begin(const RelayBase& base, const StreamConfig& start) {
    settings_.emplace(start);
    log_.write(EventLines::relay(base.url, base.source == RelayBase::Source::customUrl));
    log_.write(EventLines::encode(start.encode));
    if (!openRemoteControl_) {
        log_.write(EventLines::kViewOnly);
    } else {
        auto opened = openRemoteControl_(
            [&log = log_](const Control& control, const RemoteControl::Outcome& outcome) {
                log.write(EventLines::control(control, outcome));
            });
        if (auto* reason = std::get_if<std::string>(&opened)) {
            log_.write(EventLines::remoteControlUnavailable(*reason));
        } else {
            remoteControl_ = std::move(std::get<std::shared_ptr<RemoteControl>>(opened));
        }
    }
    status_.connecting();
    refreshStatus();
    client_.connect();
}

void Broadcast::refreshStatus() {
    statusRefresh_ =
        mainQueue_.postAfter(kStatusRefresh, [self = std::weak_ptr<Broadcast*>(self_)] {
            if (const auto alive = self.lock()) {
                (*alive)->status_.refresh();
                (*alive)->refreshStatus();
            }
        });
}

void Broadcast::needStream(const std::optional<std::string>& prefer) {
    notices_.write("need_stream", EventLines::needStream(prefer));
    streamWanted_ = true;
    status_.streamWanted(true);
    if (cannotStream_) {
        return;
    }
    const bool codecChanged = settings_->prefer(prefer);
    if (stream_) {
        if (codecChanged) {
            applySettings();
        }
        // A viewer that joins needs a key frame, whatever the stream was doing.
        stream_->setStreaming(true);
        stream_->requestKeyFrame();
        return;
    }
    if (reopen_) {
        return;  // a stream that was lost is being opened again
    }
    if (auto reason = openStream()) {
        cannotStream_ = true;
        log_.write(EventLines::streamUnavailable(*reason));
    }
}

std::optional<std::string> Broadcast::openStream() {
    auto opened = openStream_(settings_->config(), streamEvents());
    if (auto* reason = std::get_if<std::string>(&opened)) {
        return *reason;
    }
    stream_ = std::move(std::get<std::unique_ptr<ScreenStream>>(opened));
    streamOpenedAt_ = clock_();
    log_.write(EventLines::streamSettings(settings_->config().encode));
    return std::nullopt;
}

void Broadcast::streamStopped() {
    // A stopped stream resumes only when asked; one whose capture ended (the compositor
    // restarted, the display went) needs a capture of its own again. One that keeps stopping
    // soon after it opened is opened less and less often.
    stream_.reset();
    if (clock_() - streamOpenedAt_ >= kGoodStreamRun) {
        reopenDelay_ = kFirstReopenDelay;
    }
    scheduleReopen();
}

void Broadcast::scheduleReopen() {
    if (!streamWanted_ || reopen_) {
        return;
    }
    reopen_ = mainQueue_.postAfter(reopenDelay_, [self = std::weak_ptr<Broadcast*>(self_)] {
        const auto alive = self.lock();
        if (!alive) {
            return;
        }
        Broadcast& broadcast = **alive;
        broadcast.reopen_.reset();
        if (broadcast.stream_ || !broadcast.streamWanted_) {
            return;
        }
        const auto failed = broadcast.openStream();
        broadcast.reopenDelay_ = std::min(kLongestReopenDelay, broadcast.reopenDelay_ * 2);
        if (failed) {
            broadcast.log_.write(EventLines::streamReopenFailed(*failed, broadcast.reopenDelay_));
            broadcast.scheduleReopen();
        }
    });
}

void Broadcast::endPeersUnlessH264() {
    if (settings_->config().encode.codec != "h264") {
        peers_.closeAll("the stream switched to JPEG");
    }
}

void Broadcast::applySettings() {
    endPeersUnlessH264();
    const auto config = settings_->config();
    if (stream_) {
        stream_->configure(config);
    }
    notices_.write("stream settings", EventLines::streamSettings(config.encode));
}

void Broadcast::endCommands(std::string_view why) {
    if (!remoteControl_) {
        return;
    }
    const std::size_t dropped = remoteControl_->cancel();
    if (dropped > 0) {
        log_.write(EventLines::commandsDropped(dropped, why));
    }
}

// These run on the stream's thread: the log is thread-safe, and anything touching the settings
// hops to the main queue.
ScreenStream::Events Broadcast::streamEvents() {
    return {
        .onStats =
            [&log = log_](const StreamStats& stats) { log.write(EventLines::streamStats(stats)); },
        .onNewStream =
            [&log = log_](const std::string& codec, ScreenSize screen, ScreenSize picture) {
                log.write(EventLines::newStream(codec, screen, picture));
            },
        .onH264Failed =
            [&log = log_, &mainQueue = mainQueue_,
             self = std::weak_ptr<Broadcast*>(self_)](const std::string& description) {
                log.write(EventLines::h264Failed(description));
                mainQueue.post([self] {
                    if (const auto alive = self.lock()) {
                        (*alive)->settings_->fallBackToJpeg();
                        (*alive)->endPeersUnlessH264();
                    }
                });
            },
        .onStopped =
            [&log = log_, &mainQueue = mainQueue_,
             self = std::weak_ptr<Broadcast*>(self_)](const std::string& description) {
                log.write(EventLines::streamStopped(description));
                mainQueue.post([self] {
                    if (const auto alive = self.lock()) {
                        (*alive)->streamStopped();
                    }
                });
            },
    };
}

void Broadcast::attach() {
    client_.onOpen = [this] {
        log_.write("relay: link open");
        status_.linkOpen();
    };
    client_.onLinkLost = [this] {
        endCommands("the relay link was lost");
        peers_.relayLost();
        status_.connecting();
    };
    client_.onLatencyProbe = [this](const std::optional<std::string>& viewerId) {
        if (viewerId) {
            status_.viewerHeard(*viewerId);
        }
    };
    client_.onControl = [this](const Control& control) {
        if (remoteControl_) {
            status_.commandArrived();
        }
        if (remoteControl_) {
            remoteControl_->execute(control);
        } else {
            log_.write(EventLines::notCarriedOut(control));
        }
    };
    client_.onNeedStream = [this](std::optional<std::string> prefer) { needStream(prefer); };
    client_.onEncodeSettings = [this](std::optional<std::int64_t> fps,
                                      std::optional<double> quality, std::optional<double> scale,
                                      std::optional<std::string> codec) {
        notices_.write("encode_settings", EventLines::encodeSettings(fps, quality, scale, codec));
        settings_->request(fps, quality, scale, codec);
        applySettings();
    };
    client_.onStreamControl = [this](bool streaming) {
        notices_.write("stream_control", EventLines::streamControl(streaming));
        streamWanted_ = streaming;
        status_.streamWanted(streaming);
        if (stream_) {
            stream_->setStreaming(streaming);
        } else if (streaming) {
            scheduleReopen();
        }
        if (!streaming) {
            endCommands("the last viewer left");
            peers_.closeAll(std::nullopt);
        }
    };
    client_.onRequestIdr = [this] {
        notices_.write("request_idr", EventLines::requestIdr());
        if (stream_) {
            stream_->requestKeyFrame();
        }
    };
    client_.onStreamQuality = [this](std::string tier) {
        notices_.write("stream_quality", EventLines::streamQuality(tier));
        if (settings_->selectTier(tier)) {
            applySettings();
        } else {
            notices_.write("stream_quality", EventLines::unknownTier(tier));
        }
    };
    client_.onQos = [this](std::int64_t rttMs, double lossPct, std::optional<std::string> tier,
                           std::int64_t decodeQueue, std::int64_t jitterMs) {
        ++qosReports_;
        notices_.write("qos",
                       EventLines::qos(rttMs, lossPct, tier, decodeQueue, jitterMs, qosReports_));
        const auto before = settings_->config().encode.fps;
        switch (settings_->report(decodeQueue, lossPct, clock_())) {
            case LiveSettings::Qos::slowedDown:
                log_.write(EventLines::slowedDown(decodeQueue, lossPct, before,
                                                  settings_->config().encode.fps));
                break;
            case LiveSettings::Qos::restored:
                log_.write(EventLines::restored(settings_->config().encode.fps));
                break;
            case LiveSettings::Qos::unchanged:
                return;
        }
        if (stream_) {
            stream_->configure(settings_->config());
        }
    };
    client_.onRelayQos = [this](double congestion) {
        notices_.write("relay_qos", EventLines::relayQos(congestion));
    };
    client_.onWebRtcSignal = [this](const nlohmann::json& message) { peers_.handle(message); };
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
