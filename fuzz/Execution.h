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
