#pragma once

#include <exception>

namespace zevrant::fuzz {

// The processor time of the calling thread since it was made. A busy machine does not count.
class Stopwatch {
  public:
    Stopwatch();
    double getSeconds() const;

  private:
    double start;
};

// Watches one execution: one that takes more than a second ends the process, as a finding.
class Execution {
  public:
    Execution() = default;
    ~Execution();
    Execution(const Execution&) = delete;
    Execution& operator=(const Execution&) = delete;

  private:
    Stopwatch stopwatch;
};

// What one execution may have a model do, by the prices of its layers, which docs/model-format.md limits. A
// step may cost a core a second, and under sanitizers everything takes ten to thirty times as long; so what
// is dearer than the budget is loaded and described and not run, and what takes much more than its price
// stands out.
class Budget {
  public:
    // False, with nothing taken, where less is left.
    bool take(double seconds);

  private:
    double secondsLeft = 0.02;
};

// Runs a call that may end in a standard exception and in no other. False if it did.
template <class Call>
bool attempt(Call call) {
    try {
        call();
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

// Ends the process, as a finding, unless the condition holds.
void require(bool holds, const char* text);

}  // namespace zevrant::fuzz
