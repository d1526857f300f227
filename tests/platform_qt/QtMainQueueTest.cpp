#include "velmorand/qt/QtMainQueue.h"

#include <gtest/gtest.h>

#include <QThread>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "QtTestSupport.h"

namespace velmorand {
namespace {

using testing::pumpFor;
using testing::pumpUntil;
using namespace std::chrono_literals;

TEST(QtMainQueue, RunsPostedWorkOnTheMainThreadInOrderFromEveryThread) {
    QtMainQueue queue;
    QThread* mainThread = QThread::currentThread();
    // Written only on the main thread, by the tasks themselves.
    std::vector<std::string> ran;
    bool allOnMain = true;
    auto task = [&](std::string name) {
        return [&, name] {
            allOnMain = allOnMain && QThread::currentThread() == mainThread;
            ran.push_back(name);
        };
    };

    queue.post(task("main-1"));
    std::vector<std::thread> workers;
    for (int worker = 0; worker < 3; ++worker) {
        workers.emplace_back([&, worker] {
            for (int i = 0; i < 50; ++i) {
                queue.post(task("w" + std::to_string(worker) + "-" + std::to_string(i)));
            }
        });
    }
    queue.post(task("main-2"));
    for (auto& worker : workers) {
        worker.join();
    }
    // Nothing runs until the main thread turns its loop.
    EXPECT_TRUE(ran.empty());

    ASSERT_TRUE(pumpUntil([&] { return ran.size() == 152; }));
    EXPECT_TRUE(allOnMain);
    EXPECT_EQ(ran.front(), "main-1");
    // Each thread's own posts keep their order.
    for (int worker = 0; worker < 3; ++worker) {
        const std::string prefix = "w" + std::to_string(worker) + "-";
        int expected = 0;
        for (const auto& name : ran) {
            if (name.rfind(prefix, 0) == 0) {
                EXPECT_EQ(name, prefix + std::to_string(expected++));
            }
        }
        EXPECT_EQ(expected, 50);
    }
}

TEST(QtMainQueue, WorkPostedByRunningWorkRunsAfterWhatWasAlreadyQueued) {
    QtMainQueue queue;
    std::vector<int> ran;
    queue.post([&] {
        ran.push_back(1);
        queue.post([&] { ran.push_back(3); });
    });
    queue.post([&] { ran.push_back(2); });
    ASSERT_TRUE(pumpUntil([&] { return ran.size() == 3; }));
    EXPECT_EQ(ran, (std::vector<int>{1, 2, 3}));
}

TEST(QtMainQueue, DelayedWorkRunsInDueOrderAndCancelledWorkNever) {
    QtMainQueue queue;
    std::vector<std::string> ran;
    queue.postAfter(0.12s, [&] { ran.push_back("late"); });
    auto cancelled = queue.postAfter(0.06s, [&] { ran.push_back("cancelled"); });
    queue.postAfter(0.03s, [&] { ran.push_back("early"); });
    queue.post([&] { ran.push_back("now"); });
    cancelled->cancel();

    ASSERT_TRUE(pumpUntil([&] { return ran.size() == 3; }));
    EXPECT_EQ(ran, (std::vector<std::string>{"now", "early", "late"}));
}

TEST(QtMainQueue, DelayedWorkFromAnotherThreadRunsOnTheMainThreadAndCanBeCancelledThere) {
    QtMainQueue queue;
    QThread* mainThread = QThread::currentThread();
    std::atomic<bool> ranOnMain{false};
    std::atomic<bool> cancelledRan{false};
    std::shared_ptr<WorkItem> kept;
    std::shared_ptr<WorkItem> toCancel;
    std::thread worker([&] {
        kept = queue.postAfter(0.02s, [&] { ranOnMain = QThread::currentThread() == mainThread; });
        toCancel = queue.postAfter(0.05s, [&] { cancelledRan = true; });
    });
    worker.join();
    toCancel->cancel();

    ASSERT_TRUE(pumpUntil([&] { return ranOnMain.load(); }));
    // Past the cancelled item's due time as well.
    pumpFor(100ms);
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

TEST(QtMainQueue, KnowsWhichThreadIsTheMainOne) {
    EXPECT_TRUE(QtMainQueue::isMainThread());
    bool onWorker = true;
    std::thread([&] { onWorker = QtMainQueue::isMainThread(); }).join();
    EXPECT_FALSE(onWorker);
}

}  // namespace
}  // namespace velmorand
