#include "processors/ThreadPool.h"

#include <system_error>

namespace zevrant {

ThreadPool::ThreadPool(int numOfThreads) {
    try {
        std::lock_guard lock(mutex);
        for (int i = 0; i < numOfThreads; ++i) threads.emplace_back(&ThreadPool::workerThreadFunction, this);
    } catch (const std::system_error& error) {
        stop();
        throw std::system_error(error.code(), "thread constructor failed");
    } catch (...) {
        stop();
        throw;
    }
}

ThreadPool::~ThreadPool() {
    try {
        stop();
    } catch (...) {  // a join that the system refuses: nothing is left to do about it here
    }
}

void ThreadPool::stop() {
    stopped = true;
    std::unique_lock lock(mutex);
    taskAvailable.notify_all();
    while (!threads.empty()) {
        std::thread& thread = threads.back();
        if (thread.joinable()) {
            lock.unlock();
            thread.join();
            lock.lock();
        }
        threads.pop_back();
    }
}

int ThreadPool::getNumOfThreads() {
    std::lock_guard lock(mutex);
    return static_cast<int>(threads.size());
}

void ThreadPool::clearTaskList() {
    std::lock_guard lock(mutex);
    tasks.clear();
}

void ThreadPool::workerThreadFunction() {
    for (;;) {
        std::function<void()> task;
        {
            std::unique_lock lock(mutex);
            taskAvailable.wait(lock, [this] { return stopped || !tasks.empty(); });
            if (stopped) return;
            task = std::move(tasks.front());
            tasks.pop_front();
        }
        task();
    }
}

}  // namespace zevrant
