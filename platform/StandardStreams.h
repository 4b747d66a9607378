#pragma once

#include <functional>

namespace platform {

// The three standard streams of a program, so that what it says on standard output arrives whole or
// the program knows that it did not. For programs only, never for the layer: the streams are the
// host's. A program with this library also ends with status 1 and one line, and not by a signal,
// when memory runs out where nothing can catch it, from before `main` on.
//
// Porting contract: `open` makes sure that no file that is opened later becomes one of the three;
// what was closed stays as good as closed, reading and writing it fails. From then on std::cout
// writes to the descriptor, waits for room also where the descriptor does not, and goes bad for
// good at the first failure; a reader or a log that has gone is a failure, not a signal. Threads:
// `open` before there is a second one; the rest by the same thread.
class StandardStreams {
public:
    // Once, first thing, on the thread that prints: what it has not flushed when another thread
    // ends the process is not written. False when the system has nothing to put in the place of a
    // closed one.
    [[nodiscard]] static bool open();

    // Writes what std::cout holds: true when all that was ever said has been written.
    [[nodiscard]] static bool finish();

    // All that a program does: `work` between the two, and its status. What it throws, and that its
    // output is not written, is said on standard error behind the program's name, and the status is
    // `failed` or `unwritten` then.
    static int run(const char* program, int failed, int unwritten,
                   const std::function<int()>& work);

    // Why not: the system's error number of the first failure, 0 for none.
    static int failure();
};

} // namespace platform
