#include <atomic>
#include <latch>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "velmorand/relay/RelayOutbound.h"

namespace velmorand {
namespace {

using Outbound = RelayOutbound<std::string>;

constexpr int kThreads = 4;
constexpr int kSendsPerThread = 2000;

// Runs `body(thread index)` on kThreads threads released together.
template <typename Body>
void onThreads(Body body) {
    std::latch start(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            start.arrive_and_wait();
            body(t);
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
}

TEST(RelayOutboundThreads, ReservationsBalanceAcrossThreads) {
    auto outbound = Outbound::make();
    outbound->replace("socket");
    std::atomic<int> transmitted{0};
    std::mutex heldLock;
    std::vector<Outbound::Release> held;
    std::atomic<std::int64_t> heldBytes{0};

    onThreads([&](int t) {
        for (int i = 0; i < kSendsPerThread; ++i) {
            const std::int64_t reserve = 1 + (i + t) % 7;
            outbound->send(
                "frame", std::nullopt,
                [&, i, reserve](const std::string& socket, auto&, auto&,
                                Outbound::Release release) {
                    ASSERT_EQ(socket, "socket");
                    ++transmitted;
                    if (i % 2 == 0) {
                        release();  // under the lock, as a synchronous send would
                    } else {
                        heldBytes += reserve;
                        std::lock_guard guard(heldLock);
                        held.push_back(std::move(release));
                    }
                },
                reserve);
        }
    });
    EXPECT_EQ(transmitted.load(), kThreads * kSendsPerThread);
    EXPECT_EQ(outbound->bytes(), heldBytes.load());
    EXPECT_EQ(outbound->reservationCount(), held.size());

    // The held releases run from other threads than the ones that sent, each twice.
    onThreads([&](int t) {
        for (std::size_t i = t; i < held.size(); i += kThreads) {
            held[i]();
            held[i]();
        }
    });
    EXPECT_EQ(outbound->bytes(), 0);
    EXPECT_EQ(outbound->reservationCount(), 0u);
}

TEST(RelayOutboundThreads, ReplacingWhileOthersSendLosesNoCount) {
    auto outbound = Outbound::make();
    std::atomic<bool> sending{true};
    std::atomic<int> seenA{0};
    std::atomic<int> seenB{0};
    std::atomic<int> other{0};
    std::mutex heldLock;
    std::vector<Outbound::Release> held;

    std::thread replacer([&] {
        const std::optional<std::string> sockets[] = {"a", std::nullopt, "b"};
        for (int i = 0; sending; ++i) {
            outbound->replace(sockets[i % 3]);
        }
    });
    onThreads([&](int) {
        for (int i = 0; i < kSendsPerThread; ++i) {
            outbound->send(
                std::nullopt, Bytes{1},
                [&](const std::string& socket, auto&, auto&, Outbound::Release release) {
                    (socket == "a" ? seenA : socket == "b" ? seenB : other)++;
                    std::lock_guard guard(heldLock);
                    held.push_back(std::move(release));
                },
                3);
            // Sizes stay consistent whatever the replacer does.
            EXPECT_GE(outbound->bytes(), 0);
        }
    });
    sending = false;
    replacer.join();

    EXPECT_EQ(other.load(), 0);
    // Releases of sends made before the last replace are stale and change nothing.
    outbound->replace("c");
    EXPECT_EQ(outbound->bytes(), 0);
    onThreads([&](int t) {
        for (std::size_t i = t; i < held.size(); i += kThreads) {
            held[i]();
        }
    });
    EXPECT_EQ(outbound->bytes(), 0);
    EXPECT_EQ(outbound->reservationCount(), 0u);
}

}  // namespace
}  // namespace velmorand
