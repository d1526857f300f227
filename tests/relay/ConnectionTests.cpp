#include <cmath>
#include <limits>

#include <gtest/gtest.h>

#include "RelayHarness.h"

namespace velmorand::testing {
namespace {

constexpr auto kSeconds = [](double s) { return MainQueue::Duration(s); };

std::vector<std::string> withPrefix(std::vector<std::string> lines) {
    for (auto& line : lines) {
        line = "[relay-client] " + line;
    }
    return lines;
}

class Connection : public ::testing::Test {
  protected:
    void SetUp() override {
        h.recordAll();
        h.random = 0.4;
        h.client->setReconnectPolicy({1, 8, 0.5});
    }

    // Fails the current attempt and waits until the reconnect has made the next one.
    void failAndReconnect(double expectedDelay) {
        const auto before = h.taskCount();
        h.task().fail("boom");
        h.queue.advance(kSeconds(expectedDelay - 0.01));
        EXPECT_EQ(h.taskCount(), before) << "reconnected early";
        h.queue.advance(kSeconds(0.02));
        EXPECT_EQ(h.taskCount(), before + 1) << "no reconnect after " << expectedDelay;
    }

    std::size_t reconnectLines() const {
        std::size_t count = 0;
        for (const auto& line : h.log.lines()) {
            count += line.starts_with("[relay-client] reconnecting in ");
        }
        return count;
    }

    RelayHarness h;
};

TEST(ConnectionRequest, DevicePathAndTokenHeader) {
    const std::pair<const char*, const char*> cases[] = {
        {"wss://relay.example", "wss://relay.example/device"},
        {"wss://relay.example/", "wss://relay.example//device"},
        {"ws://10.0.0.2:8080/r", "ws://10.0.0.2:8080/r/device"},
    };
    for (const auto& [base, url] : cases) {
        RelayHarness h(base);
        h.client->connect();
        ASSERT_EQ(h.taskCount(), 1u);
        const auto& task = h.task();
        EXPECT_EQ(task.request.url, url);
        EXPECT_EQ(
            task.request.headers,
            (std::vector<std::pair<std::string, std::string>>{{"x-device-token", "token-1"}}));
        EXPECT_EQ(task.request.timeout, std::chrono::seconds(60));
        EXPECT_EQ(task.resumeCount, 1);
        EXPECT_EQ(task.receives.size(), 1u);
        EXPECT_EQ(h.sockets.sessionsMade, 1);
    }
}

TEST(ConnectionRequest, BadUrlSchedulesAReconnect) {
    for (const char* base : {"relay.example", "wss://relay example", ""}) {
        RelayHarness h(base);
        h.client->connect();
        EXPECT_EQ(h.taskCount(), 0u) << base;
        EXPECT_EQ(h.log.lines(), withPrefix({"bad relay url", "reconnecting in 1.0s"})) << base;
    }
}

TEST_F(Connection, OneSessionForTheClientsLife) {
    h.client->connect();
    h.client->connect();
    failAndReconnect(1.2);
    EXPECT_EQ(h.sockets.sessionsMade, 1);
}

TEST_F(Connection, BackOffDoublesUpToTheCeiling) {
    h.client->connect();
    for (double delay : {1.2, 2.2, 4.2, 8.2, 8.2}) {
        failAndReconnect(delay);
    }
    EXPECT_EQ(h.log.lines(), withPrefix({
                                 "recv error: boom — reconnecting",
                                 "reconnecting in 1.2s",
                                 "recv error: boom — reconnecting",
                                 "reconnecting in 2.2s",
                                 "recv error: boom — reconnecting",
                                 "reconnecting in 4.2s",
                                 "recv error: boom — reconnecting",
                                 "reconnecting in 8.2s",
                                 "recv error: boom — reconnecting",
                                 "reconnecting in 8.2s",
                             }));
}

TEST_F(Connection, ProofResetsTheBackOff) {
    const std::function<void(RelayHarness&)> proofs[] = {
        [](RelayHarness& h) { h.receive(R"({"type":"device_online"})"); },
        [](RelayHarness& h) {
            h.sockets.open(h.sockets.tasks.back());
            h.queue.runReady();
        },
    };
    for (const auto& prove : proofs) {
        h.client->connect();
        failAndReconnect(1.2);
        failAndReconnect(2.2);
        prove(h);
        failAndReconnect(1.2);
        proofs[0](h);
    }
}

TEST_F(Connection, OptimisticOpenDoesNotProve) {
    h.client->connect();
    h.queue.advance(kSeconds(0.34));
    EXPECT_TRUE(h.events.empty());
    h.queue.advance(kSeconds(0.01));
    EXPECT_EQ(h.events, std::vector<std::string>{"open"});
    failAndReconnect(1.2);
    h.queue.advance(kSeconds(0.35));
    failAndReconnect(2.2);
    EXPECT_EQ(h.events, (std::vector<std::string>{"open", "open"}));
}

TEST_F(Connection, OpenIsReportedOncePerAttempt) {
    h.client->connect();
    h.sockets.open(h.sockets.tasks.back());
    h.queue.runReady();
    h.receive(R"({"type":"request_idr"})");
    h.queue.advance(kSeconds(1));
    EXPECT_EQ(h.events, (std::vector<std::string>{"open", "requestIdr"}));
    EXPECT_EQ(h.task().receives.size(), 1u) << "the loop re-arms after each message";
}

TEST_F(Connection, ErrorThenCloseOfOneTaskReconnectsOnce) {
    h.client->connect();
    auto first = h.sockets.tasks.back();
    first->fail("reset");
    h.sockets.close(first, 1006);
    h.queue.runReady();
    EXPECT_TRUE(first->cancelled);
    EXPECT_EQ(reconnectLines(), 1u);
    h.queue.advance(kSeconds(10));
    EXPECT_EQ(h.taskCount(), 2u);
}

TEST_F(Connection, EventsOfAbandonedTasksAreIgnored) {
    h.client->connect();
    auto stale = h.sockets.tasks.back();
    h.client->connect();
    auto failing = h.sockets.tasks.back();
    h.client->connect();
    EXPECT_FALSE(stale->cancelled);
    EXPECT_FALSE(failing->cancelled);

    ASSERT_TRUE(stale->deliverText(R"({"type":"request_idr"})"));
    ASSERT_TRUE(failing->fail("late"));
    h.sockets.open(stale);
    h.sockets.close(stale, 1000, "bye");
    h.queue.advance(kSeconds(0.35));

    EXPECT_TRUE(h.log.lines().empty());
    EXPECT_EQ(h.events, std::vector<std::string>{"open"}) << "only the live attempt's timer";
    EXPECT_TRUE(stale->receives.empty()) << "a stale task's loop is not re-armed";
    EXPECT_EQ(h.taskCount(), 3u);
}

TEST_F(Connection, ConnectCancelsAPendingReconnect) {
    h.client->connect();
    h.task().fail("boom");
    h.queue.runReady();
    h.client->connect();
    EXPECT_EQ(h.taskCount(), 2u);
    h.queue.advance(kSeconds(30));
    EXPECT_EQ(h.taskCount(), 2u);
}

TEST_F(Connection, CloseLogsAndRejectedTokenStillReconnects) {
    const struct {
        int code;
        std::optional<std::string> reason;
        std::string line;
        std::vector<std::string> events;
    } cases[] = {
        {4401, "token rejected", "closed code=4401 token rejected", {"authRejected"}},
        {1000, std::nullopt, "closed code=1000 ", {}},
        {1011, std::string("\xff\xfe"), "closed code=1011 ", {}},
    };
    for (const auto& c : cases) {
        RelayHarness h;
        h.recordAll();
        h.client->connect();
        h.sockets.close(h.sockets.tasks.back(), c.code, c.reason);
        h.queue.runReady();
        EXPECT_EQ(h.events, c.events);
        EXPECT_EQ(h.log.lines(), withPrefix({c.line, "reconnecting in 1.0s"}));
        h.queue.advance(kSeconds(1));
        EXPECT_EQ(h.taskCount(), 2u);
    }
}

TEST_F(Connection, BinaryFramesAreReadAsText) {
    h.client->connect();
    auto& task = h.task();
    task.deliver(WebSocketMessage{WebSocketMessage::Kind::binary, R"({"type":"ping"})"});
    task.deliver(WebSocketMessage{WebSocketMessage::Kind::binary, "\xff{}"});
    h.queue.runReady();
    h.receive(R"({"type":"ping"})");
    EXPECT_EQ(task.sent, (std::vector<std::string>{R"({"type":"pong"})", R"({"type":"pong"})"}));
    EXPECT_EQ(task.receives.size(), 1u);
}

TEST_F(Connection, RepliesNeedALiveSocket) {
    h.client->handleText(R"({"type":"ping"})");
    h.client->connect();
    auto& first = h.task();
    first.fail("gone");
    h.queue.runReady();
    h.client->handleText(R"({"type":"ping"})");
    h.client->handleText(R"({"type":"latency_ping","t":1})");
    EXPECT_TRUE(first.sent.empty());
    EXPECT_EQ(h.log.lines(),
              withPrefix({"recv error: gone — reconnecting", "reconnecting in 1.2s"}));
}

TEST_F(Connection, SendErrorIsLoggedOnly) {
    h.client->connect();
    h.receive(R"({"type":"ping"})");
    ASSERT_EQ(h.task().sendCompletions.size(), 1u);
    h.task().sendCompletions[0](WebSocketError{"broken pipe"});
    h.task().sendCompletions[0](std::nullopt);
    h.queue.advance(kSeconds(60));
    EXPECT_EQ(h.log.lines(), withPrefix({"send error: broken pipe"}));
    EXPECT_EQ(h.taskCount(), 1u);
}

TEST_F(Connection, NothingOutlivesTheClient) {
    h.client->connect();
    auto task = h.sockets.tasks.back();
    task->fail("boom");
    h.queue.runReady();
    std::weak_ptr<RelayClient> weak = h.client;
    h.client.reset();
    EXPECT_TRUE(weak.expired());
    h.queue.advance(kSeconds(60));
    EXPECT_EQ(h.taskCount(), 1u);
}

TEST(ConnectionDeath, JitterMustBePositiveAndFinite) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    for (double jitter : {0.0, -1.0, std::numeric_limits<double>::infinity(),
                          std::numeric_limits<double>::quiet_NaN()}) {
        RelayHarness h;
        h.client->setReconnectPolicy({1, 30, jitter});
        h.client->connect();
        EXPECT_DEATH(
            {
                h.task().fail("boom");
                h.queue.runReady();
            },
            "")
            << jitter;
    }
}

}  // namespace
}  // namespace velmorand::testing
