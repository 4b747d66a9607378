#include "scriptobjects/core/SoHeap.h"

#include <cstdlib>
#include <new>

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
    return std::malloc(bytes);
}

void* SoHeap::reallocHeap(void* p, size_t bytes) {
    return std::realloc(p, bytes);
}

void SoHeap::freeHeap(void* p) {
    std::free(p);
}

} // namespace ScObjects
