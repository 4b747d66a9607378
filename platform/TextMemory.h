#pragma once

#include <cstddef>

namespace platform {

class PortWait;

// Memory for texts and what is made of them: the process heap, but for large blocks, some of which
// are kept when they are given back. Asking the system for a megabyte and giving it back costs more
// than copying it, and every large message asks for several.
//
// Porting contract: blocks are those of the process heap, so that one which was got here may be
// grown by `reallocate`. A child after fork may use all of it. Threads: any.
class TextMemory {
public:
    // At least `size` bytes, not initialised; null when there is no memory.
    static void* allocate(size_t size);
    // The block (null for none) grown or shrunk, content kept, possibly at another place; null when
    // there is no memory, and the block stays as it is.
    static void* reallocate(void* block, size_t size);
    // How many bytes the block (null: 0) has room for: at least as many as were asked for.
    static size_t roomOf(void* block);
    // Null is ignored.
    static void free(void* block);

    // To be called again and again, far apart: gives all that is kept to the system when no large
    // block was asked for or given back since the last call.
    static void giveBackWhenIdle();

    // Gives all that is kept to the system now; what is given back later is kept again.
    static void giveBack();

    // Who is to be woken by the next block that is kept, since it no longer calls
    // `giveBackWhenIdle`; null for nobody, which is at once.
    static void wakeWhenKept(PortWait* keeper);

    // Bytes that are kept now.
    static size_t keptBytes();
};

} // namespace platform
