#include "velmorand/qt/QtMainQueue.h"

#include <gtest/gtest.h>

#include <QThread>
#include <atomic>
#include <thread>

#include "QtTestSupport.h"

namespace velmorand {
namespace {

using testing::pumpFor;
using testing::pumpUntil;
using namespace std::chrono_literals;

TEST(QtMainQueue, RunsPostedWorkOnTheMainThreadInOrderFromEveryThread) {
    QtMainQueue queue;
    EXPECT_TRUE(QtMainQueue::isMainThread());
    QThread* mainThread = QThread::currentThread();
    std::vector<std::pair<int, int>> ran;  // (poster, sequence), written on the main thread only
    bool allOnMain = true;
    const auto post = [&](int poster, int sequence) {
        queue.post([&, poster, sequence] {
            allOnMain = allOnMain && QThread::currentThread() == mainThread;
            ran.emplace_back(poster, sequence);
        });
    };
    post(-1, 0);
    std::vector<std::thread> workers;
    for (int worker = 0; worker < 3; ++worker) {
        workers.emplace_back([&, worker] {
            EXPECT_FALSE(QtMainQueue::isMainThread());
            for (int i = 0; i < 50; ++i) {
                post(worker, i);
            }
        });
    }
    for (auto& worker : workers) {
        worker.join();
    }
    EXPECT_TRUE(ran.empty());  // nothing runs until the main thread turns its loop
    ASSERT_TRUE(pumpUntil([&] { return ran.size() == 151; }));
    EXPECT_TRUE(allOnMain);
    EXPECT_EQ(ran.front(), std::pair(-1, 0));
    std::vector<int> next(3, 0);  // each thread's own posts keep their order
    for (const auto& [poster, sequence] : ran) {
        if (poster >= 0) {
            EXPECT_EQ(sequence, next[poster]++);
        }
    }
}

TEST(QtMainQueue, DelayedWorkFromAnotherThreadRunsOnTheMainThreadAndCanBeCancelledThere) {
    QtMainQueue queue;
    QThread* mainThread = QThread::currentThread();
    std::atomic<bool> ranOnMain{false};
    std::atomic<bool> cancelledRan{false};
    std::shared_ptr<WorkItem> kept;
    std::shared_ptr<WorkItem> toCancel;
    std::thread([&] {
        kept = queue.postAfter(0.02s, [&] { ranOnMain = QThread::currentThread() == mainThread; });
        toCancel = queue.postAfter(0.05s, [&] { cancelledRan = true; });
    }).join();
    toCancel->cancel();
    ASSERT_TRUE(pumpUntil([&] { return ranOnMain.load(); }));
    pumpFor(100ms);  // past the cancelled item's due time as well
    EXPECT_FALSE(cancelledRan);
}

TEST(QtMainQueue, DestroyingTheQueueDropsWorkNotYetRun) {
    bool ran = false;
    {
        QtMainQueue queue;
        queue.post([&] { ran = true; });
        queue.postAfter(0.01s, [&] { ran = true; });
    }
    pumpFor(50ms);
    EXPECT_FALSE(ran);
}

}  // namespace
}  // namespace velmorand
