#pragma once

// Makes one allocation of this thread fail: those of operator new, and those of malloc and realloc
// that the code under test makes (the program is linked with --wrap for both).
class FailingAllocation {
public:
    // The allocation number `number`, counted from 0, while the object lives.
    explicit FailingAllocation(int number);
    ~FailingAllocation();
    FailingAllocation(const FailingAllocation&) = delete;
    FailingAllocation& operator=(const FailingAllocation&) = delete;

    // False when there were not that many.
    static bool hasFailed();
};

// Whether so many allocations were made within the operation that this one has failed.
template <class Operation>
bool fails(int number, Operation&& operation) {
    const FailingAllocation failing(number);
    operation();
    return FailingAllocation::hasFailed();
}
