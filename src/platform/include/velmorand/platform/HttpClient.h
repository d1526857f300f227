#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace velmorand {

struct HttpRequest {
    // The platform HTTP client's own default, used where a caller sets none.
    static constexpr std::chrono::milliseconds kDefaultTimeout{60'000};

    std::string method = "GET";
    std::string url;
    std::vector<std::pair<std::string, std::string>> headers;
    std::optional<std::string> body;
    std::chrono::milliseconds timeout = kDefaultTimeout;
};

struct HttpResponse {
    // 0 when the answer was not HTTP.
    int statusCode = 0;
    // Absent for a response that by HTTP carries none (204, 304); empty for a zero-length body.
    std::optional<std::string> body;
};

// The request never got an answer: refused, timed out, TLS failure, bad URL, …
struct HttpTransportError {
    std::string description;
};

using HttpOutcome = std::variant<HttpResponse, HttpTransportError>;

// TLS is always verified. Implementations do their I/O off the main thread.
class HttpClient {
  public:
    using Completion = std::function<void(HttpOutcome)>;

    virtual ~HttpClient() = default;

    // Blocks the calling thread until the exchange has ended; never call it on the main thread.
    virtual HttpOutcome exchange(const HttpRequest& request) = 0;
    // Returns at once; `completion` runs later on the main queue.
    virtual void send(HttpRequest request, Completion completion) = 0;
};

}  // namespace velmorand
