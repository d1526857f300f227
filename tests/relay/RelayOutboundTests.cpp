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

// One outbound; what its frames went on ("a#0": the socket and the sequence number), and their
// releases.
class RelayOutboundTest : public ::testing::Test {
  protected:
    using Outcome = Outbound::Outcome;
    Outcome frame(std::int64_t budget, std::int64_t size) {
        return outbound->sendWithin(
            budget, size, [this](const std::string& socket, std::uint32_t sequence, auto release) {
                sent.push_back(socket + "#" + std::to_string(sequence));
                releases.push_back(std::move(release));
            });
    }

    std::shared_ptr<Outbound> outbound = Outbound::make();
    std::vector<std::string> sent;
    std::vector<Outbound::Release> releases;
};

// Frames: reserved until released, numbered per socket, refused past the budget.
TEST_F(RelayOutboundTest, ReservationsCountAgainstTheBudgetUntilReleased) {
    EXPECT_EQ(frame(100, 10), Outcome::noSocket);
    outbound->replace("a");
    EXPECT_EQ(frame(100, 60), Outcome::sent);
    EXPECT_EQ(frame(100, 40), Outcome::sent);
    EXPECT_EQ(frame(100, 1), Outcome::overBudget);
    EXPECT_EQ(outbound->bytes(), 100);
    releases[0]();
    releases[0]();
    EXPECT_EQ(outbound->bytes(), 40);
    EXPECT_EQ(outbound->reservationCount(), 1u);
    EXPECT_EQ(frame(100, 60), Outcome::sent);
    // Replies are never held back, nor counted.
    outbound->send("reply", std::nullopt, [&](const std::string& socket, auto&, auto&, auto) {
        sent.push_back(socket + ":reply");
    });
    EXPECT_EQ(outbound->bytes(), 100);

    // After a replace, numbering starts again and earlier releases change nothing.
    outbound->replace("b");
    EXPECT_EQ(outbound->bytes(), 0);
    EXPECT_EQ(frame(100, 30), Outcome::sent);
    releases[1]();
    EXPECT_EQ(outbound->bytes(), 30);
    EXPECT_EQ(sent, (std::vector<std::string>{"a#0", "a#1", "a#2", "a:reply", "b#0"}));

    // Nor do they keep the outbound alive, or touch it once it is gone.
    std::weak_ptr<Outbound> weak = outbound;
    outbound.reset();
    EXPECT_TRUE(weak.expired());
    releases[3]();
}

// However large, a frame goes on an idle socket, and holds back the next until released.
TEST_F(RelayOutboundTest, AnIdleSocketTakesAFrameLargerThanTheBudget) {
    outbound->replace("a");
    EXPECT_EQ(frame(100, 500), Outcome::sent);
    EXPECT_EQ(frame(100, 1), Outcome::overBudget);
    releases[0]();
    EXPECT_EQ(frame(100, 1), Outcome::sent);
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
            outbound->sendWithin(
                std::numeric_limits<std::int64_t>::max(), reserve,
                [&, i, reserve](const std::string& socket, std::uint32_t, auto release) {
                    EXPECT_EQ(socket, "a");
                    if (i % 2 == 0) {
                        return release();
                    }
                    heldBytes += reserve;
                    std::lock_guard guard(heldLock);
                    held.push_back(std::move(release));
                });
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
