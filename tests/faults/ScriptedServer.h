#pragma once

#include <QByteArray>
#include <QSslConfiguration>
#include <QTcpServer>
#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace velmorand::testing {

// How a scripted server answers each request, once it has read it whole.
struct Answer {
    // Written at once.
    QByteArray head;
    // Then written one byte every `dribbleEvery`.
    QByteArray dribble;
    std::chrono::milliseconds dribbleEvery{1000};
    // Then the connection is closed; otherwise it stays open, silent.
    bool close = true;
    // Nothing at all is written and the connection stays open.
    bool silent = false;

    static Answer bytes(QByteArray raw) {
        Answer answer;
        answer.head = std::move(raw);
        return answer;
    }
    static Answer http(int status, const std::string& body,
                       const std::vector<std::string>& extraHeaders = {});
    static Answer none() {
        Answer answer;
        answer.silent = true;
        answer.close = false;
        return answer;
    }
};

// A loopback HTTP or HTTPS server answering every request with the same script, and recording
// each request it read. Lives on the thread that makes it; answers while that thread's events run.
class ScriptedServer {
  public:
    struct Tls {
        std::filesystem::path certificate;
        std::filesystem::path key;
    };

    explicit ScriptedServer(Answer answer, std::optional<Tls> tls = std::nullopt);
    ~ScriptedServer();

    // "http(s)://127.0.0.1:<port>" with no trailing slash; `host` replaces the address.
    std::string baseUrl(const std::string& host = "127.0.0.1") const;
    const std::vector<QByteArray>& requests() const { return requests_; }

  private:
    void accept(QTcpSocket* socket);
    void answer(QTcpSocket* socket);

    std::unique_ptr<QTcpServer> server_;
    bool tls_ = false;
    Answer answer_;
    std::vector<QByteArray> requests_;
};

// A certificate for localhost and 127.0.0.1, signed by the test CA, whose validity ended in 2020.
ScriptedServer::Tls expiredCertificate();

}  // namespace velmorand::testing
