#include "DspCore/MemoryBudget.h"

#include <stdexcept>
#include <utility>

#include "DspCore/ThreadLocal.h"

namespace zevrant {

namespace {

constinit thread_local const std::shared_ptr<MemoryBudget>* current ZEVRANT_PLACED_AT_THREAD_START = nullptr;

}  // namespace

void MemoryBudget::take(std::int64_t numOfBytes) {
    if (used.fetch_add(numOfBytes, std::memory_order_relaxed) + numOfBytes <= most) return;
    giveBack(numOfBytes);
    throw std::length_error("the model takes more memory than its file justifies");
}

MemoryBudget::Scope::Scope(const std::shared_ptr<MemoryBudget>& budget)
    : outer(std::exchange(current, &budget)) {}

MemoryBudget::Scope::~Scope() {
    current = outer;
}

MemoryBudget::Share::Share(std::int64_t numOfBytes) : size(numOfBytes) {
    if (!current || !*current) return;
    (*current)->take(size);
    budget = *current;
}

MemoryBudget::Share::Share(Share&& other) noexcept : budget(std::move(other.budget)), size(other.size) {}

MemoryBudget::Share& MemoryBudget::Share::operator=(Share&& other) noexcept {
    std::swap(budget, other.budget);
    std::swap(size, other.size);
    return *this;
}

MemoryBudget::Share::~Share() {
    if (budget) budget->giveBack(size);
}

}  // namespace zevrant
