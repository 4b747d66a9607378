#include "scriptobjects/core/SoHeap.h"

#include <new>

#include "platform/TextMemory.h"

namespace ScObjects {

SoHeap::~SoHeap() = default;

void* SoHeap::operator new(size_t bytes) {
    void* p = mallocHeap(bytes);
    if (p == nullptr) {
        throw std::bad_alloc();
    }
    return p;
}

void SoHeap::operator delete(void* p) noexcept {
    freeHeap(p);
}

void* SoHeap::mallocHeap(size_t bytes) {
    // Large blocks are kept there for the next text: the heap would give them to the system and
    // take them back page by page, which is most of what a large text costs.
    return platform::TextMemory::allocate(bytes);
}

void* SoHeap::reallocHeap(void* p, size_t bytes) {
    // The block may be one that a port has filled: all of them are of one heap, so that a string
    // can take it over and grow it.
    return platform::TextMemory::reallocate(p, bytes);
}

void SoHeap::freeHeap(void* p) {
    platform::TextMemory::free(p);
}

} // namespace ScObjects
