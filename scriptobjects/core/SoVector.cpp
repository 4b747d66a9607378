#include "scriptobjects/core/SoVector.h"

#include <cstring>
#include <limits>
#include <new>

namespace ScObjects {
namespace {

void** grown(void** items, int32_t slots) {
    auto** larger =
        static_cast<void**>(SoHeap::reallocHeap(items, static_cast<size_t>(slots) * sizeof(void*)));
    // The old slots are still there: the vector goes on with what it has.
    if (larger == nullptr) {
        throw std::bad_alloc();
    }
    return larger;
}

} // namespace

SoVectorBase::SoVectorBase() : items_(grown(nullptr, kStep)) {}

SoVectorBase::~SoVectorBase() {
    freeHeap(items_);
}

void SoVectorBase::append(void* p) {
    if (count_ == capacity_) {
        if (capacity_ > std::numeric_limits<int32_t>::max() - kStep) {
            throw std::bad_alloc();
        }
        // Before the capacity is changed: when memory runs out, nothing has been.
        items_ = grown(items_, capacity_ + kStep);
        capacity_ += kStep;
    }
    items_[count_++] = p;
}

void SoVectorBase::remove(const void* p) {
    for (int32_t i = 0; i < count_; ++i) {
        if (items_[i] == p) {
            (void)removeAt(i);
            return;
        }
    }
}

void* SoVectorBase::removeAt(int32_t i) {
    if (i < 0 || i >= count_) {
        return nullptr;
    }
    void* removed = items_[i];
    --count_;
    // The order stays: records are in that of registration, and a stream hands on its texts in that
    // of arrival. Who empties a vector takes from the end, where nothing has to be moved.
    std::memmove(items_ + i, items_ + i + 1, static_cast<size_t>(count_ - i) * sizeof(void*));
    return removed;
}

} // namespace ScObjects
