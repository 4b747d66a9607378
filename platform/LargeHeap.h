#pragma once

namespace platform {

// For a program of a moment that may read very much, before it does: has the system give memory in
// large pieces once more than about a megabyte is in use, where it can. A process pays for each
// piece when it first touches it; with small ones that is a third of the time of a listing of ten
// thousand.
//
// Porting contract: a hint; a program that has memory without it has it with it. What is freed may
// stay with the process. Not for what runs for long. Threads: before there is a second one.
void expectLargeHeap() noexcept;

// For a program that runs for long and has large texts pass through it: what it frees stays with it
// for the next one, up to 128 MiB, since the system takes longer to give and take back a page than
// a text takes to be copied through it. Such a program gives it back when it has nothing to do.
//
// Porting contract: hints, as above. Threads: the first before there is a second one; the second
// any, and it may take a millisecond for what there is to give back.
void keepFreedHeap() noexcept;
void giveBackFreedHeap() noexcept;

} // namespace platform
