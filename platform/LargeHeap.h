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

} // namespace platform
