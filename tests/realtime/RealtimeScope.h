#pragma once

#include <atomic>
#include <thread>

extern "C" void __rtsan_realtime_enter();
extern "C" void __rtsan_realtime_exit();

namespace zevrant {

// While it lives, the sanitizer's runtime ends the process at the first call that could wait.
class RealtimeScope {
  public:
    RealtimeScope() { __rtsan_realtime_enter(); }
    ~RealtimeScope() { __rtsan_realtime_exit(); }
    RealtimeScope(const RealtimeScope&) = delete;
    RealtimeScope& operator=(const RealtimeScope&) = delete;
};

// Calls turn(0), turn(1) and so on, on a thread of its own, for as long as it lives.
class ControlThread {
  public:
    template <class Turn>
    explicit ControlThread(Turn turn)
        : thread([this, turn] {
              for (int step = 0; !isOver; ++step) turn(step);
          }) {}
    ~ControlThread() {
        isOver = true;
        thread.join();
    }
    ControlThread(const ControlThread&) = delete;
    ControlThread& operator=(const ControlThread&) = delete;

  private:
    std::atomic<bool> isOver{false};
    std::thread thread;
};

}  // namespace zevrant
