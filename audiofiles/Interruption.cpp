#include "audiofiles/Interruption.h"

namespace zevrant::audiofiles {

namespace {

void (*interruptionCheck)() = nullptr;

}  // namespace

void setInterruptionCheck(void (*check)()) {
    interruptionCheck = check;
}

void checkInterruption() {
    if (interruptionCheck) interruptionCheck();
}

}  // namespace zevrant::audiofiles
