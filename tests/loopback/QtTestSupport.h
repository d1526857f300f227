#pragma once

#include <QByteArray>
#include <QTcpServer>
#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace velmorand::testing {

// Runs the main thread's events until `done` holds or `limit` has passed; says whether it held.
bool pumpUntil(const std::function<bool()>& done,
               std::chrono::milliseconds limit = std::chrono::seconds(10));
// Runs the main thread's events for `duration`.
void pumpFor(std::chrono::milliseconds duration);

// The private CA in pki/ and two server certificates it signed: `server` names localhost and
// 127.0.0.1, `localhostOnly` names localhost alone.
struct TestPki {
    std::filesystem::path caCertificate;
    std::filesystem::path serverCertificate;
    std::filesystem::path serverKey;
    std::filesystem::path localhostOnlyCertificate;
    std::filesystem::path localhostOnlyKey;
};
const TestPki& testPki();

// A loopback HTTP or HTTPS server. Each request, once read whole, is recorded and answered with
// `head` at once, then `dribble` one byte a second, then a hang-up. Without a head it holds
// every connection open without a word.
class ScriptedServer {
  public:
    struct Tls {
        std::filesystem::path certificate;
        std::filesystem::path key;
    };

    explicit ScriptedServer(std::optional<QByteArray> head, std::optional<Tls> tls = std::nullopt,
                            QByteArray dribble = {});
    // Answers each request (read whole) with what `route` makes of it, on a connection that stays
    // open for the next request when `keepAlive`, and is closed after each answer otherwise.
    using Route = std::function<QByteArray(const QByteArray& request)>;
    ScriptedServer(Route route, bool keepAlive);

    // "http(s)://127.0.0.1:<port>", no trailing slash.
    std::string baseUrl() const;
    const std::vector<QByteArray>& requests() const { return requests_; }

  private:
    void listen();
    void answer(QTcpSocket* socket);

    std::unique_ptr<QTcpServer> server_;
    bool tls_;
    std::optional<QByteArray> head_;
    Route route_;
    bool keepAlive_ = false;
    QByteArray dribble_;
    std::vector<QByteArray> requests_;
};

// A loopback server not yet listening: over TLS with `tls`'s certificate and key, plain without.
std::unique_ptr<QTcpServer> tcpServer(const std::optional<ScriptedServer::Tls>& tls);

// A whole HTTP/1.1 answer.
QByteArray httpAnswer(int status, const std::string& body, const std::string& extraHeaders = "");

// A certificate for localhost and 127.0.0.1, signed by the test CA, whose validity ended in 2020.
ScriptedServer::Tls expiredCertificate();

}  // namespace velmorand::testing
