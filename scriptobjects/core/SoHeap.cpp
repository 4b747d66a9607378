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
    return platform::TextMemory::allocate(bytes);
}

void* SoHeap::reallocHeap(void* p, size_t bytes) {
    return platform::TextMemory::reallocate(p, bytes);
}

void SoHeap::freeHeap(void* p) {
    platform::TextMemory::free(p);
}

} // namespace ScObjects
