// Relay frames: decoding on its own, then the client's whole dispatch with every callback set.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <memory>

#include <nlohmann/json.hpp>

#include "FuzzSupport.h"
#include "ManualMainQueue.h"
#include "velmorand/platform/Log.h"
#include "velmorand/relay/Control.h"
#include "velmorand/relay/Protocol.h"
#include "velmorand/relay/RelayClient.h"

namespace {

using namespace velmorand;

class NullLog : public Log {
  public:
    void write(std::string_view) override {}
};

struct Client {
    testing::ManualMainQueue queue;
    NullLog log;
    std::shared_ptr<RelayClient> client;
    std::size_t events = 0;

    Client() {
        client = RelayClient::make(
            "wss://relay.fuzz", "fuzz-token",
            {queue, log, fuzzing::SinkWebSocketSession::factory(), [] { return 0.5; }});
        auto& c = *client;
        c.onControl = [this](const Control& control) { events += control.name().size(); };
        c.onOpen = [this] { ++events; };
        c.onNeedStream = [this](auto prefer) { events += prefer ? prefer->size() : 1; };
        c.onRequestIdr = [this] { ++events; };
        c.onStreamQuality = [this](std::string tier) { events += tier.size(); };
        c.onQos = [this](auto, auto, auto tier, auto, auto) { events += tier ? 2 : 1; };
        c.onRelayQos = [this](double) { ++events; };
        c.onAuthRejected = [this] { ++events; };
        c.onWebRtcSignal = [this](const nlohmann::json& message) {
            // Signalling always reaches the owner as one object.
            if (!message.is_object()) {
                __builtin_trap();
            }
            events += message.size();
        };
        c.onEncodeSettings = [this](auto, auto, auto, auto) { ++events; };
        c.onStreamControl = [this](bool) { ++events; };
        c.connect();
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Client relay;
    const auto text = fuzzing::asText(data, size);

    const auto message = IncomingMessage::decode(text);
    if (message && message->type == "encode_settings" && message->fps) {
        // A frame rate no integer can hold stops the process on purpose; see fuzz/crashes/.
        const double fps = std::round(*message->fps);
        if (!std::isfinite(fps) || std::fabs(fps) >= 9223372036854775808.0) {
            return 0;
        }
    }
    if (message) {
        (void)Control::from(*message);
        if (message->type.empty() && text.find("\"type\"") == std::string_view::npos) {
            // A decoded frame always had a "type" member.
            __builtin_trap();
        }
    }
    (void)LatencyPongMessage::decode(text);

    relay.client->handleText(text);
    relay.queue.runReady();
    return 0;
}
