#pragma once

#include <cstddef>

#include "scriptobjects/core/SoExport.h"

namespace ScObjects {

// Base of the layer's classes: objects and buffers come from the process heap through one place,
// and every object is destroyed through its most derived class. No state. Any thread.
class SO_EXPORT SoHeap {
public:
    SoHeap() = default;
    SoHeap(const SoHeap&) = default;
    SoHeap& operator=(const SoHeap&) = default;
    virtual ~SoHeap();

    // Throws std::bad_alloc when memory runs out: a thread's body reports that as an error of its
    // own.
    static void* operator new(size_t bytes);
    static void* operator new(size_t, void* place) noexcept { return place; }
    // Null is ignored.
    static void operator delete(void* p) noexcept;
    static void operator delete(void*, void*) noexcept {}

    // A buffer of at least `bytes` bytes, to be given back with `freeHeap`; null when there is no
    // memory.
    static void* mallocHeap(size_t bytes);
    // The buffer `p` (or null for none) grown or shrunk to `bytes` bytes, content kept, possibly at
    // another place; null when there is no memory, and `p` stays as it is.
    static void* reallocHeap(void* p, size_t bytes);
    static void freeHeap(void* p);
};

} // namespace ScObjects
