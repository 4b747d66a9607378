#pragma once

#include <cstdint>

#include "scriptobjects/core/SoExport.h"
#include "scriptobjects/core/SoHeap.h"

namespace ScObjects {

// A growable array of pointers that it does not own: whoever puts a pointer in deletes the object,
// as a rule after taking it out with `removeAt`. Grows by a fixed step and never shrinks. Not
// copied: two vectors would claim the same objects. Used by one thread at a time.
class SO_EXPORT SoVectorBase : public SoHeap {
public:
    static constexpr int32_t kStep = 32; // slots; the vectors of the layer are small

    // Empty, with room for one step. Throws std::bad_alloc.
    SoVectorBase();
    ~SoVectorBase() override;
    SoVectorBase(const SoVectorBase&) = delete;
    SoVectorBase& operator=(const SoVectorBase&) = delete;

    // Adds `p` at the end. Throws std::bad_alloc, nothing added, when memory runs out.
    void append(void* p);
    // Takes the first slot that holds `p` out; nothing when there is none. The object lives on.
    void remove(const void* p);
    // Takes slot `i` out and returns what it held; null, and nothing changed, out of range.
    void* removeAt(int32_t i);

    // Slots that are taken.
    int32_t count() const { return count_; }
    int32_t capacity() const { return capacity_; } // slots allocated

protected:
    // Slot `i`, which must be below the count, and all of them, until the next change.
    void* at(int32_t i) const { return items_[i]; }
    void** items() const { return items_; }

private:
    void** items_;
    int32_t count_ = 0;
    int32_t capacity_ = kStep;
};

// The same with typed access.
template <class T>
class SoVector : public SoVectorBase {
public:
    // As of the base.
    void append(T* p) { SoVectorBase::append(p); }
    void remove(const T* p) { SoVectorBase::remove(p); }
    [[nodiscard]] T* removeAt(int32_t i) { return static_cast<T*>(SoVectorBase::removeAt(i)); }
    // Element `i`, which must be below the count.
    T* operator[](int32_t i) const { return static_cast<T*>(at(i)); }
};

} // namespace ScObjects
