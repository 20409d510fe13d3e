#pragma once

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

}  // namespace zevrant
