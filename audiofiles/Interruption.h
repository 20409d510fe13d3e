#pragma once

namespace zevrant::audiofiles {

// The way in which a program stops this library in the middle of a file: a function that returns, or that
// throws an exception of the program's own once it is to stop. It is asked between blocks and after every
// system call that a signal may have interrupted, on the thread that reads or writes. None at the start.
// Threads  Set before files are opened.
void setInterruptionCheck(void (*check)());

void checkInterruption();

}  // namespace zevrant::audiofiles
