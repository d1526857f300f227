#pragma once

#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "FakeWebSocket.h"
#include "ManualMainQueue.h"
#include "RecordingLog.h"
#include "velmorand/relay/RelayClient.h"

namespace velmorand::testing {

// A client on a manual main queue and fake sockets, with every callback recorded as one line.
struct RelayHarness {
    explicit RelayHarness(std::string relayBase = "wss://relay.example") {
        client = RelayClient::make(std::move(relayBase), "token-1",
                                   {queue, log, sockets.factory(), [this] { return random; }});
    }

    template <typename T>
    static std::string show(const std::optional<T>& value) {
        if (!value) {
            return "-";
        }
        std::ostringstream out;
        out << *value;
        return out.str();
    }

    void recordAll() {
        auto& c = *client;
        c.onControl = [this](const Control& control) {
            controls.push_back(control);
            events.push_back("control " + std::string(control.name()));
        };
        c.onOpen = [this] { events.push_back("open"); };
        c.onNeedStream = [this](auto prefer) { events.push_back("needStream " + show(prefer)); };
        c.onRequestIdr = [this] { events.push_back("requestIdr"); };
        c.onStreamQuality = [this](auto tier) { events.push_back("streamQuality '" + tier + "'"); };
        c.onQos = [this](auto rtt, auto loss, auto tier, auto queue, auto jitter) {
            std::ostringstream out;
            out << "qos " << rtt << " " << loss << " " << show(tier) << " " << queue << " "
                << jitter;
            events.push_back(out.str());
        };
        c.onRelayQos = [this](double congestion) {
            events.push_back("relayQos " + show(std::optional(congestion)));
        };
        c.onAuthRejected = [this] { events.push_back("authRejected"); };
        c.onWebRtcSignal = [this](const nlohmann::json& message) {
            std::string keys;
            for (const auto& [key, value] : message.items()) {
                keys += " " + key;
            }
            events.push_back("webrtc" + keys);
        };
        c.onEncodeSettings = [this](auto fps, auto quality, auto scale, auto codec) {
            events.push_back("encodeSettings " + show(fps) + " " + show(quality) + " " +
                             show(scale) + " " + show(codec));
        };
        c.onStreamControl = [this](bool on) {
            events.push_back(std::string("streamControl ") + (on ? "on" : "off"));
        };
    }

    // Connects, so that replies have a socket to go to.
    FakeWebSocketTask& connected() {
        client->connect();
        return *sockets.tasks.back();
    }

    FakeWebSocketTask& task() { return *sockets.tasks.back(); }
    std::size_t taskCount() const { return sockets.tasks.size(); }

    void receive(const std::string& text) {
        task().deliverText(text);
        queue.runReady();
    }

    ManualMainQueue queue;
    RecordingLog log;
    FakeWebSockets sockets;
    double random = 0;
    std::shared_ptr<RelayClient> client;
    std::vector<std::string> events;
    std::vector<Control> controls;
};

}  // namespace velmorand::testing
