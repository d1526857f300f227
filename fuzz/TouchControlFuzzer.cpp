// Touch control: the start answer, the service's status answer and the local server's answer,
// each scripted by the input (parts cut at NUL bytes), through the model on a manual main queue.
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>

#include "FakeBundle.h"
#include "FakeClassLookup.h"
#include "FuzzSupport.h"
#include "InMemoryKeychain.h"
#include "InMemorySettings.h"
#include "ManualMainQueue.h"
#include "RecordingPasteboard.h"
#include "velmorand/config/AppGroup.h"
#include "velmorand/config/SharedConfig.h"
#include "velmorand/pairing/PairingModel.h"
#include "velmorand/pairing/WebRtcCapability.h"
#include "velmorand/platform/Log.h"

namespace {

using namespace velmorand;

class NullLog : public Log {
  public:
    void write(std::string_view) override {}
};

// Answers requests in order from the script; once it runs out, every request fails in transport.
class ScriptedHttpClient : public HttpClient {
  public:
    explicit ScriptedHttpClient(MainQueue& queue) : queue_(queue) {}

    HttpOutcome exchange(const HttpRequest&) override { return next(); }
    void send(HttpRequest, Completion completion) override {
        queue_.post(
            [completion = std::move(completion), outcome = next()] { completion(outcome); });
    }

    std::deque<HttpOutcome> answers;

  private:
    HttpOutcome next() {
        if (answers.empty()) {
            return HttpTransportError{"fuzz: no more answers"};
        }
        auto outcome = std::move(answers.front());
        answers.pop_front();
        return outcome;
    }

    MainQueue& queue_;
};

struct Model {
    testing::FakeBundle bundle{fuzzing::scratchDirectory() / "no-bundle"};
    testing::InMemorySettingsStores stores;
    testing::InMemoryKeychain keychain;
    AppGroup appGroup{bundle};
    SharedConfig config{stores, keychain, appGroup};
    testing::ManualMainQueue queue;
    ScriptedHttpClient http{queue};
    testing::FakeClassLookup classes;
    NullLog log;
    WebRtcCapability webRtc{classes, config, log};
    testing::RecordingPasteboard pasteboard;
    std::shared_ptr<PairingModel> model;

    Model() {
        HandshakeResult result;
        result.deviceToken = "token";
        result.relayWsUrl = "wss://relay.fuzz";
        result.deviceId = "id";
        config.save("KEY-1", "https://app.velmorand.fuzz", result);
        model = PairingModel::create(PairingServices{
            .config = config,
            .http = http,
            .mainQueue = queue,
            .webRtc = webRtc,
            .pasteboard = pasteboard,
            .bundle = bundle,
            .broadcastExtensionLookup = [] { return std::nullopt; },
            .appURL = "https://app.velmorand.fuzz",
        });
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Model state;
    const auto parts = fuzzing::splitAtNul(fuzzing::asText(data, size));
    state.http.answers.clear();
    for (const auto part : parts) {
        state.http.answers.push_back(fuzzing::scriptedAnswer(part));
    }
    // The first part answers the start, the rest the follow-up status check and local check.
    state.model->startWda();
    state.queue.advance(std::chrono::seconds(9));
    if (state.model->bridgeBusy()) {
        __builtin_trap();
    }
    // And the same answers once more for a status check on its own.
    state.http.answers.clear();
    for (std::size_t i = 1; i < parts.size(); ++i) {
        state.http.answers.push_back(fuzzing::scriptedAnswer(parts[i]));
    }
    state.model->refreshWdaStatus();
    state.queue.runReady();
    return 0;
}
