#include "processors/ThreadPool.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <barrier>
#include <memory>
#include <stdexcept>
#include <string>

namespace zevrant {
namespace {

// Keeps one worker busy from construction until release.
struct Blocker {
    explicit Blocker(ThreadPool& pool) {
        auto isRunning = running.get_future();
        done = pool.add([this, gate = released.get_future().share()] {
            running.set_value();
            gate.wait();
        });
        isRunning.wait();
    }
    void release() {
        released.set_value();
        done.wait();
    }
    std::promise<void> running, released;
    std::future<void> done;
};

bool reportsBrokenPromise(std::future<int>& future) {
    try {
        future.get();
    } catch (const std::future_error& error) {
        return error.code() == std::future_errc::broken_promise;
    }
    return false;
}

TEST(ThreadPool, oneThreadRunsTasksInTheOrderOfTheList) {
    ThreadPool pool(1);
    std::vector<int> order, expected;
    for (int i = 0; i < 1000; ++i) {
        expected.push_back(i);
        pool.add([&order, i] { order.push_back(i); });
    }
    pool.add([] {}).get();
    EXPECT_EQ(order, expected);
}

TEST(ThreadPool, allThreadsRunAtOnce) {
    for (int numOfThreads : {1, 2, 3, 8}) {
        ThreadPool pool(numOfThreads);
        EXPECT_EQ(pool.getNumOfThreads(), numOfThreads);
        std::barrier meeting(numOfThreads);  // passes only when as many tasks stand here together
        std::vector<std::future<void>> futures;
        for (int i = 0; i < 20 * numOfThreads; ++i)
            futures.push_back(pool.add([&meeting] { meeting.arrive_and_wait(); }));
        for (auto& future : futures) future.get();
    }
}

TEST(ThreadPool, everyTaskOfManyCallersRunsExactlyOnce) {
    constexpr int numOfCallers = 4, tasksPerCaller = 2000;
    std::vector<std::atomic<int>> runs(numOfCallers * tasksPerCaller);
    ThreadPool pool(3);
    std::vector<std::thread> callers;
    for (int caller = 0; caller < numOfCallers; ++caller)
        callers.emplace_back([&, caller] {
            std::vector<std::future<int>> futures;
            for (int i = caller * tasksPerCaller; i < (caller + 1) * tasksPerCaller; ++i)
                futures.push_back(pool.add([&runs](int at) { return ++runs[at], at; }, i));
            for (int i = 0; i < tasksPerCaller; ++i) EXPECT_EQ(futures[i].get(), caller * tasksPerCaller + i);
        });
    for (auto& caller : callers) caller.join();
    EXPECT_TRUE(std::all_of(runs.begin(), runs.end(), [](const auto& count) { return count == 1; }));
}

TEST(ThreadPool, passesArgumentsResultsAndExceptions) {
    ThreadPool pool(1);
    auto failing = pool.add([]() -> int { throw std::runtime_error("no"); });
    EXPECT_EQ(pool.add(&std::string::size, std::string("worker")).get(), 6u) << "the worker has survived";
    EXPECT_THROW(failing.get(), std::runtime_error);
    int target = 1;
    std::string text = "abc";
    EXPECT_EQ(&pool.add([](int& out) -> int& { return out; }, std::ref(target)).get(), &target);
    pool.add([](std::string& copy) { copy.clear(); }, text).get();
    EXPECT_EQ(text, "abc");
    EXPECT_EQ(*pool.add([](std::unique_ptr<int> owner) { return owner; }, std::make_unique<int>(7)).get(), 7);
}

TEST(ThreadPool, aStoppedPoolRunsNoWaitingTask) {
    std::atomic<int> runs{0};
    std::vector<std::future<int>> futures;
    {
        ThreadPool pool(1);
        Blocker blocker(pool);
        for (int i = 0; i < 10; ++i) futures.push_back(pool.add([&runs] { return ++runs; }));
        std::thread stopper([&pool] { pool.stop(); });
        while (!pool.stopped) std::this_thread::yield();
        blocker.release();
        stopper.join();
        EXPECT_EQ(pool.getNumOfThreads(), 0);
        pool.stop();
        futures.push_back(pool.add([&runs] { return ++runs; }));
        EXPECT_EQ(futures.back().wait_for(std::chrono::milliseconds(5)), std::future_status::timeout);
    }
    for (auto& future : futures) EXPECT_TRUE(reportsBrokenPromise(future));
    EXPECT_EQ(runs, 0);
}

TEST(ThreadPool, clearedTasksNeverRunAndLaterOnesDo) {
    ThreadPool pool(1);
    Blocker blocker(pool);
    auto cleared = pool.add([] { return 1; });
    pool.clearTaskList();
    auto later = pool.add([] { return 2; });
    EXPECT_TRUE(reportsBrokenPromise(cleared));
    blocker.release();
    EXPECT_EQ(later.get(), 2);
}

TEST(ThreadPool, withoutThreadsNothingRuns) {
    std::future<int> future;
    {
        ThreadPool pool(-1);
        EXPECT_EQ(pool.getNumOfThreads(), 0);
        future = pool.add([] { return 1; });
    }
    EXPECT_TRUE(reportsBrokenPromise(future));
}

TEST(ThreadPool, endsCleanlyWhileItsTasksAddTasks) {
    for (int round = 0; round < 20; ++round) {
        ThreadPool pool(2);
        std::function<void()> chain = [&] { pool.add(chain); };
        chain();
        chain();
        pool.stop();  // the tasks refer to chain, which goes before the pool
    }
}

}  // namespace
}  // namespace zevrant
