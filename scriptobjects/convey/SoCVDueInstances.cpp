#include "scriptobjects/convey/SoCVDueInstances.h"

#include <new>
#include <utility>

namespace ScObjects::ConveyData {

void DueInstances::add(uint64_t number) noexcept {
    if (number == 0) {
        return;
    }
    try {
        const std::lock_guard<std::mutex> guard(mutex_);
        numbers_.insert(number);
    } catch (const std::bad_alloc&) {
        addAll();
    }
}

TakenInstances DueInstances::take() {
    TakenInstances taken;
    taken.all = all_.exchange(false);
    const std::lock_guard<std::mutex> guard(mutex_);
    taken.numbers.swap(numbers_);
    return taken;
}

uint64_t DueInstances::next(uint64_t number) const {
    const std::lock_guard<std::mutex> guard(mutex_);
    const auto next = numbers_.upper_bound(number);
    return next == numbers_.end() ? 0 : *next;
}

} // namespace ScObjects::ConveyData
