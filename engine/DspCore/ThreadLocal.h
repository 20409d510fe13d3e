#pragma once

// A library that is loaded at run time would find its thread-local variables through a call that asks for
// memory when a thread comes there first. This way they lie where the thread has them from its start. There
// is room for a few, so a pointer is what belongs there.
#if defined(__linux__) && defined(__GNUC__)
#define ZEVRANT_PLACED_AT_THREAD_START __attribute__((tls_model("initial-exec")))
#else
#define ZEVRANT_PLACED_AT_THREAD_START
#endif
