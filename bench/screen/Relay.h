#pragma once

// The relay, played by the bench over loopback: the device connects to <base>/device with its
// token in x-device-token, as to the real relay.

#include <QObject>
#include <QTcpServer>
#include <QTimer>
#include <QWebSocketServer>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>

class QTcpSocket;
class QWebSocket;

namespace velmorand::bench {

// Reads everything the device sends as fast as it comes.
class BenchRelay : public QObject {
  public:
    explicit BenchRelay(std::string token);
    ~BenchRelay() override;

    // The pairing's relayWsUrl.
    std::string baseUrl() const;
    bool connected() const { return device_ != nullptr; }
    int connections() const { return connections_; }
    // Anything about the last upgrade that a real relay would have refused.
    const std::string& complaint() const { return complaint_; }
    bool sendText(const std::string& text);

    // `receivedUs` is CLOCK_REALTIME when the message was handed to the bench.
    std::function<void(std::span<const std::uint8_t> message, std::uint64_t receivedUs)> onBinary;
    std::function<void(const QString& text)> onText;

  private:
    void accept();

    std::string token_;
    QWebSocketServer server_;
    QWebSocket* device_ = nullptr;
    int connections_ = 0;
    std::string complaint_;
};

// Reads the device's socket slowly: at most `readKiBps`, and nothing at all for the last
// `stallSeconds` of every `cycleSeconds`, so that the device's writes back up. A plain TCP server
// doing the WebSocket upgrade by hand: QWebSocket would read the socket dry whatever the pace.
class ThrottledRelay : public QObject {
  public:
    struct Pace {
        double readKiBps = 300;
        int cycleSeconds = 60;
        int stallSeconds = 20;
    };
    struct Counts {
        int connections = 0;
        std::uint64_t bytesRead = 0;
        std::uint64_t binaryMessages = 0;
        std::uint64_t textMessages = 0;
    };

    ThrottledRelay(std::string token, Pace pace, std::string greeting);
    ~ThrottledRelay() override;

    std::string baseUrl() const;
    const Counts& counts() const { return counts_; }
    const std::string& complaint() const { return complaint_; }

  private:
    void accept();
    void upgrade();
    void tick();
    // Counts messages in what was read; payloads are skipped, never stored.
    void consume(const std::uint8_t* data, std::size_t size);

    std::string token_;
    Pace pace_;
    // Sent once the upgrade is done: the request for a stream.
    std::string greeting_;
    QTcpServer server_;
    QTcpSocket* device_ = nullptr;
    bool upgraded_ = false;
    QTimer ticker_;
    std::int64_t startedMs_ = 0;
    std::int64_t lastTickMs_ = 0;
    double budget_ = 0;
    Counts counts_;
    std::string complaint_;

    // Frame parser state.
    std::uint8_t header_[14] = {};
    std::size_t headerHave_ = 0;
    std::uint64_t payloadLeft_ = 0;
    std::uint8_t messageOpcode_ = 0;
    bool finalFrame_ = false;
};

}  // namespace velmorand::bench
