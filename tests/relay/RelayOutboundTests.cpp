#include "velmorand/relay/RelayOutbound.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <latch>
#include <limits>
#include <mutex>
#include <thread>

namespace velmorand {
namespace {

using Outbound = RelayOutbound<std::string>;

// Records each transmit as "socket:text" and keeps its release for the test to call.
struct Recorder {
    std::vector<std::string> sent;
    std::vector<Outbound::Release> releases;
    auto transmit() {
        return [this](const std::string& socket, const auto& text, const auto&, auto release) {
            sent.push_back(socket + ":" + text.value_or("<binary>"));
            releases.push_back(std::move(release));
        };
    }
};

TEST(RelayOutbound, SendsOnlyWhileASocketIsSet) {
    auto outbound = Outbound::make();
    Recorder r;
    outbound->send("dropped", std::nullopt, r.transmit());
    outbound->replace("a");
    outbound->send("one", std::nullopt, r.transmit());
    outbound->send(std::nullopt, Bytes{1, 2}, r.transmit());
    outbound->replace(std::nullopt);
    outbound->send("dropped too", std::nullopt, r.transmit());
    EXPECT_EQ(r.sent, (std::vector<std::string>{"a:one", "a:<binary>"}));
}

TEST(RelayOutbound, ReleaseFreesOnlyItsOwnLiveReservation) {
    auto outbound = Outbound::make();
    Recorder r;
    outbound->replace("a");
    outbound->send("x", std::nullopt, r.transmit(), 100);
    outbound->send("y", std::nullopt, r.transmit(), 20);
    EXPECT_EQ(outbound->bytes(), 120);
    r.releases[0]();
    r.releases[0]();
    EXPECT_EQ(outbound->bytes(), 20);
    EXPECT_EQ(outbound->reservationCount(), 1u);

    // After a replace, earlier releases change nothing.
    outbound->replace("b");
    EXPECT_EQ(outbound->bytes(), 0);
    EXPECT_EQ(outbound->reservationCount(), 0u);
    outbound->send("z", std::nullopt, r.transmit(), 30);
    r.releases[1]();
    EXPECT_EQ(outbound->bytes(), 30);
    r.releases[2]();
    EXPECT_EQ(outbound->bytes(), 0);

    // Nor do they keep the outbound alive, or touch it once it is gone.
    outbound->send("w", std::nullopt, r.transmit(), 10);
    std::weak_ptr<Outbound> weak = outbound;
    outbound.reset();
    EXPECT_TRUE(weak.expired());
    r.releases[3]();
}

TEST(RelayOutboundDeath, ByteCountOverflowStopsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto outbound = Outbound::make();
    Recorder r;
    outbound->replace("a");
    outbound->send("x", std::nullopt, r.transmit(), std::numeric_limits<std::int64_t>::max());
    EXPECT_DEATH(outbound->send("y", std::nullopt, r.transmit(), 1), "");
}

// Senders on four threads while a fifth swaps the socket; half the sends release at once (under
// the lock, as the client does), the rest release later from other threads, twice each.
TEST(RelayOutboundThreads, CountsStayBalancedWhileOthersSendReleaseAndReplace) {
    auto outbound = Outbound::make();
    outbound->replace("a");
    std::mutex heldLock;
    std::vector<Outbound::Release> held;
    std::atomic<std::int64_t> heldBytes{0};
    std::atomic<bool> replacing{false};
    const auto run = [&](const std::function<void(int)>& body) {
        std::latch start(4);
        std::vector<std::jthread> threads;
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([&, t] { (start.arrive_and_wait(), body(t)); });
        }
        std::jthread replacer([&] {
            for (int i = 0; replacing; ++i) {
                outbound->replace(i % 2 ? std::optional<std::string>("a") : std::nullopt);
            }
        });
        threads.clear();
        replacing = false;
    };
    const auto send = [&](int t) {
        for (int i = 0; i < 2000; ++i) {
            const std::int64_t reserve = 1 + (i + t) % 7;
            outbound->send(
                "x", std::nullopt,
                [&, i, reserve](const std::string& socket, auto&, auto&, auto release) {
                    EXPECT_EQ(socket, "a");
                    if (i % 2 == 0) {
                        return release();
                    }
                    heldBytes += reserve;
                    std::lock_guard guard(heldLock);
                    held.push_back(std::move(release));
                },
                reserve);
        }
    };
    run(send);
    EXPECT_EQ(outbound->reservationCount(), held.size());
    EXPECT_EQ(outbound->bytes(), heldBytes.load());
    const auto early = std::move(held);
    held.clear();
    replacing = true;
    run([&](int t) {
        if (t % 2 == 0) {
            return send(t);
        }
        for (std::size_t i = t / 2; i < early.size(); i += 2) {
            (early[i](), early[i]());
        }
    });
    outbound->replace("b");
    for (auto& release : held) {
        release();
    }
    EXPECT_EQ(outbound->bytes(), 0);
    EXPECT_EQ(outbound->reservationCount(), 0u);
}

}  // namespace
}  // namespace velmorand
