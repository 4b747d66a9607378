#include "scriptobjects/convey/SoCVDueInstances.h"

#include <new>
#include <utility>

namespace ScObjects::ConveyData {

void DueInstances::add(uint64_t number) noexcept {
    // Who takes it up makes it none first and looks at the instance then, and who adds it has
    // changed the instance before: what is found here is still to be looked at.
    if (number == 0 || newest_.load() == number) {
        return;
    }
    try {
        const std::lock_guard<std::mutex> guard(mutex_);
        numbers_.insert(number);
        newest_.store(number);
    } catch (const std::bad_alloc&) {
        addAll();
    }
}

TakenInstances DueInstances::take() {
    TakenInstances taken;
    taken.all = all_.exchange(false);
    const std::lock_guard<std::mutex> guard(mutex_);
    newest_.store(0);
    taken.numbers.swap(numbers_);
    return taken;
}

uint64_t DueInstances::next(uint64_t number) const {
    const std::lock_guard<std::mutex> guard(mutex_);
    const auto next = numbers_.upper_bound(number);
    return next == numbers_.end() ? 0 : *next;
}

} // namespace ScObjects::ConveyData
