#pragma once

#include <cstdint>

namespace platform {

// Owns a file descriptor that a child after fork must not keep: it would hold names and take texts
// that are the parent's. All of them are closed in the child as it is born, and `get` then gives -1
// there. It is none of the standard streams. Takes no memory: what was opened is never lost for
// want of it. Used by one thread at a time.
class PortDescriptor {
public:
    PortDescriptor() = default;
    explicit PortDescriptor(int fd) noexcept;
    ~PortDescriptor() { reset(); }
    PortDescriptor(PortDescriptor&& other) noexcept;
    PortDescriptor& operator=(PortDescriptor&& other) noexcept;

    // The descriptor; -1 for none, and in a child of the process that opened it.
    int get() const;
    explicit operator bool() const { return get() >= 0; }
    void reset();

    // Which process of a line of forks this is; raised in each child.
    static uint32_t generation();

private:
    friend struct OpenDescriptors;

    int fd_ = -1;
    uint32_t generation_ = 0;
    // Of the list of all that are open.
    PortDescriptor* previous_ = nullptr;
    PortDescriptor* next_ = nullptr;
};

} // namespace platform
