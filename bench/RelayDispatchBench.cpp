#include <memory>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <nlohmann/json.hpp>

#include "velmorand/relay/RelayClient.h"

namespace velmorand {
namespace {

// Runs nothing: the benchmark drives handleText directly and needs no timers.
class IdleQueue : public MainQueue {
  public:
    void post(Task) override {}
    std::shared_ptr<WorkItem> postAfter(Duration, Task) override {
        return std::make_shared<WorkItem>();
    }
};

class NullLog : public Log {
  public:
    void write(std::string_view) override {}
};

// Counts replies so the compiler cannot drop them.
class CountingTask : public WebSocketTask {
  public:
    void resume() override {}
    void cancel() override {}
    void send(WebSocketMessage message, SendCompletion) override {
        bytes += message.payload.size();
    }
    void receive(ReceiveCompletion) override {}
    std::size_t bytes = 0;
};

class OneTaskSession : public WebSocketSession {
  public:
    explicit OneTaskSession(std::shared_ptr<CountingTask> task) : task_(std::move(task)) {}
    std::shared_ptr<WebSocketTask> makeTask(const WebSocketRequest&) override { return task_; }

  private:
    std::shared_ptr<CountingTask> task_;
};

std::string offerFrame() {
    std::string sdp = "v=0\r\no=- 4611731400430051336 2 IN IP4 127.0.0.1\r\ns=-\r\nt=0 0\r\n";
    for (int line = 0; line < 40; ++line) {
        sdp += "a=rtpmap:" + std::to_string(96 + line) + " H264/90000\r\n";
    }
    return nlohmann::json{{"type", "webrtc_offer"}, {"viewerId", "viewer-1"}, {"sdp", sdp}}.dump();
}

// Argument -1 cycles through every frame; n >= 0 repeats frame n alone.
void decodeAndDispatch(benchmark::State& state) {
    IdleQueue queue;
    NullLog log;
    auto task = std::make_shared<CountingTask>();
    auto client = RelayClient::make("wss://relay.example", "token",
                                    {queue,
                                     log,
                                     [task](std::shared_ptr<WebSocketSessionDelegate>) {
                                         return std::make_unique<OneTaskSession>(task);
                                     },
                                     {}});
    std::size_t calls = 0;
    client->onControl = [&](const Control&) { ++calls; };
    client->onOpen = [&] { ++calls; };
    client->onNeedStream = [&](auto) { ++calls; };
    client->onRequestIdr = [&] { ++calls; };
    client->onStreamQuality = [&](auto) { ++calls; };
    client->onQos = [&](auto, auto, auto, auto, auto) { ++calls; };
    client->onRelayQos = [&](auto) { ++calls; };
    client->onAuthRejected = [&] { ++calls; };
    client->onWebRtcSignal = [&](const nlohmann::json&) { ++calls; };
    client->onEncodeSettings = [&](auto, auto, auto, auto) { ++calls; };
    client->onStreamControl = [&](auto) { ++calls; };
    client->connect();

    const std::vector<std::string> frames = {
        R"({"type":"ping"})",
        R"({"type":"latency_ping","t":1718000000123,"viewerId":"viewer-1"})",
        R"({"type":"tap","x":187.5,"y":402})",
        R"({"type":"swipe","from":{"x":200,"y":700},"to":{"x":200,"y":150},"ms":300})",
        R"({"type":"qos","rttMs":48,"lossPct":0.4,"tier":"high","decodeQueue":1,"jitterMs":6})",
        R"({"type":"encode_settings","fps":29.97,"quality":0.6,"scale":0.5,"codec":"h264"})",
        R"({"type":"text","value":"hello, world"})",
        offerFrame(),
    };
    const auto only = state.range(0);
    std::size_t index = only < 0 ? 0 : static_cast<std::size_t>(only);
    for (auto _ : state) {
        client->handleText(frames[index]);
        if (only < 0) {
            index = index + 1 == frames.size() ? 0 : index + 1;
        }
    }
    benchmark::DoNotOptimize(calls);
    benchmark::DoNotOptimize(task->bytes);
    state.SetItemsProcessed(state.iterations());
    state.counters["ns/frame"] =
        benchmark::Counter(static_cast<double>(state.iterations()),
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(decodeAndDispatch)->DenseRange(-1, 7);

}  // namespace
}  // namespace velmorand

BENCHMARK_MAIN();
