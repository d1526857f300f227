#pragma once

#include <QByteArray>
#include <QTcpServer>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "velmorand/platform/HttpClient.h"

namespace velmorand::testing {

// Runs the main thread's events until `done` holds or `limit` has passed; says whether it held.
bool pumpUntil(const std::function<bool()>& done,
               std::chrono::milliseconds limit = std::chrono::seconds(10));
// Runs the main thread's events for `duration`.
void pumpFor(std::chrono::milliseconds duration);

// Sends on `client` and runs the main thread until the completion has come.
HttpOutcome sendAndWait(HttpClient& client, HttpRequest request);

// A private CA and two server certificates it signed, made once per process with the openssl
// command: `server` names localhost and 127.0.0.1, `localhostOnly` names localhost alone.
struct TestPki {
    std::filesystem::path caCertificate;
    std::filesystem::path serverCertificate;
    std::filesystem::path serverKey;
    std::filesystem::path localhostOnlyCertificate;
    std::filesystem::path localhostOnlyKey;
};
const TestPki& testPki();

// Sets an environment variable for the life of the object, then puts the old value back.
class ScopedEnv {
  public:
    ScopedEnv(const char* name, std::optional<std::string> value);
    ~ScopedEnv();
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

  private:
    const char* name_;
    std::optional<QByteArray> previous_;
};

// A loopback HTTP server with one fixed answer: raw response bytes, or none at all (it then
// holds every connection open without a word). Records each request it read.
class CannedServer {
  public:
    explicit CannedServer(std::optional<QByteArray> response);

    std::string url(const std::string& path = "/") const;
    const std::vector<QByteArray>& requests() const { return requests_; }

  private:
    QTcpServer server_;
    std::optional<QByteArray> response_;
    std::vector<QByteArray> requests_;
};

// A loopback port with nothing listening on it.
std::uint16_t refusedPort();

}  // namespace velmorand::testing
