#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <future>
#include <list>
#include <memory>
#include <mutex>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

namespace zevrant {

// A fixed set of worker threads on one first-in, first-out list of tasks.
//
// Order    Tasks start in the order in which they were added and run concurrently in any order;
//          who needs an order joins the futures in that order.
// Errors   What a task throws is kept for its future and never reaches a worker. The futures of
//          tasks that are dropped before they ran report std::future_error (broken promise).
//          A thread that cannot be started makes the constructor throw std::system_error,
//          "thread constructor failed", after the threads that did start have ended.
// Threads  add, clearTaskList and getNumOfThreads may be called from any thread, tasks included;
//          stop and the destructor from one thread that is none of the pool's own.
class ThreadPool {
    // How a task passes on what it keeps: a copy of an lvalue as an lvalue, all else as an rvalue.
    template <class T>
    using Kept = std::conditional_t<std::is_lvalue_reference_v<T>, std::decay_t<T>&, std::decay_t<T>&&>;

  public:
    // With numOfThreads below 1 there are no threads, and no task is ever run.
    explicit ThreadPool(int numOfThreads);

    // Stops the pool. Tasks that still wait are not run.
    virtual ~ThreadPool();

    ThreadPool(const ThreadPool&) = delete;
    ThreadPool& operator=(const ThreadPool&) = delete;

    // Queues function(args...) and returns the future of its result. The function and its arguments
    // are copied or moved into the task; what was given as an lvalue is passed as an lvalue of the
    // copy, and std::ref passes the caller's own object.
    template <class F, class... Args>
    auto add(F&& function, Args&&... args) {
        using R = std::invoke_result_t<Kept<F>, Kept<Args>...>;
        auto task = std::make_shared<std::packaged_task<R()>>(
            [kept = std::decay_t<F>(std::forward<F>(function)),
             ... keptArgs = std::decay_t<Args>(std::forward<Args>(args))]() mutable -> R {
                return std::invoke(static_cast<Kept<F>>(kept), static_cast<Kept<Args>>(keptArgs)...);
            });
        std::lock_guard lock(mutex);
        tasks.emplace_back([task] { (*task)(); });
        taskAvailable.notify_one();
        return task->get_future();
    }

    // Lets running tasks finish, ends all threads and joins them. There is no restart: tasks that
    // are added later wait until the pool is destroyed.
    void stop();

    // The number given to the constructor until stop, 0 after it.
    int getNumOfThreads();

    // Drops every task that has not started.
    void clearTaskList();

    // What each thread runs: one task after the other, asleep while there is none, until stopped.
    void workerThreadFunction();

    // In this order, because they are destroyed from the last to the first.
    std::vector<std::thread> threads;
    std::list<std::function<void()>> tasks;  // waiting, oldest first
    std::mutex mutex;                        // guards threads and tasks
    std::condition_variable taskAvailable;
    std::atomic<bool> stopped{false};
};

}  // namespace zevrant
