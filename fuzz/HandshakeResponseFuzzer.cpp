// The handshake's handling of the service's answer: any status with any body (or none).
#include <cstddef>
#include <cstdint>

#include "FuzzSupport.h"
#include "velmorand/pairing/Handshake.h"
#include "velmorand/pairing/JsonError.h"

namespace {

using namespace velmorand;

class ScriptedHttpClient : public HttpClient {
  public:
    HttpOutcome exchange(const HttpRequest&) override { return answer; }
    void send(HttpRequest, Completion completion) override { completion(answer); }

    HttpOutcome answer;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    ScriptedHttpClient http;
    http.answer = fuzzing::scriptedAnswer(fuzzing::asText(data, size));
    try {
        const auto result = Handshake::exchange(http, "https://app.velmorand.fuzz", "KEY-1",
                                                std::string("eu"), true);
        // Every field came out of the body, which JSON escapes can only shorten.
        if (result.deviceToken.size() + result.relayWsUrl.size() + result.deviceId.size() > size) {
            __builtin_trap();
        }
    } catch (const Handshake::HandshakeError& error) {
        (void)error.description();
    } catch (const JsonParseError& error) {
        (void)error.description();
    }
    return 0;
}
