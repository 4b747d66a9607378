#pragma once

#include <cstddef>
#include <cstdint>

// Every bound of the system in one place: what it bounds, how much, and why that much. The sources
// take their values from here by name, so that what `convey limits` prints is what holds.
namespace limits {

struct Limit {
    const char* name;
    int64_t value;
    const char* unit;
    const char* reason;
};

inline constexpr int64_t kKiB = 1024;
inline constexpr int64_t kMiB = 1024 * kKiB;

inline constexpr Limit kAll[] = {
    // Texts and names
    {"string.length", INT32_MAX - 128, "bytes", "lengths are 32-bit, and leave room for one step"},
    {"string.unmeasured", 65'536, "units", "UTF-16 without a length: a missing end is not sought"},
    {"specifier.length", 255, "bytes", "what every peer of the layer accepts"},
    {"options.locale", 16, "bytes", "with its end; real ones have five letters"},
    {"folders.depth", 64, "levels", "of a tree that is walked; deeper ones are links gone wrong"},

    // Messages
    {"message.body", 0x7FFF'0000, "bytes", "a header that announces more is not believed"},
    {"message.headers", 4096, "headers", "read of one message; each costs a hundred times its bytes"},
    {"message.timeout", 600, "s", "for who gives none: nothing waits for ever by accident"},
    {"message.watch", 60, "s", "until a time-out is told for a message without one of its own"},
    {"queue.age", 600, "s", "that a message for an absent target is kept alive"},
    {"queue.incoming.messages", 10'000, "messages",
     "received ahead for an owner who does not pump; the rest stays with its senders"},
    {"queue.incoming.bytes", 64 * kMiB, "bytes", "the same, with all that a message costs"},
    {"queue.incoming.share.messages", 5000, "messages", "the same, of one process"},
    {"queue.incoming.share.bytes", 32 * kMiB, "bytes", "the same, of one process"},
    {"queue.outgoing.messages", 10'000, "messages",
     "of an instance, that wait for their targets; more are refused with an error"},
    {"queue.outgoing.bytes", 64 * kMiB, "bytes", "the same, in bodies"},
    {"queue.answers.share.messages", 4000, "messages",
     "answers kept for an asker that takes none; its further requests wait"},
    {"queue.answers.share.bytes", 16 * kMiB, "bytes", "the same, in bodies"},
    {"queue.answers.messages", 40'000, "messages",
     "answers of an instance, kept for all such askers; at half of it each of them waits"},
    {"queue.answers.bytes", 128 * kMiB, "bytes", "the same, in bodies"},
    {"reply.owed.bytes", 128 * kMiB, "bytes",
     "of requests whose handlers answer later; for more the answer is an error"},
    {"reply.owed.share.bytes", 32 * kMiB, "bytes", "the same, of one asker: some 20,000 requests"},
    {"send.wait", 10'000, "ms", "for room at a target; longer than a busy one needs"},
    {"send.large", 500, "ms", "for a large text that was kept; the end of the layer waits for it"},
    {"send.pass", 10, "ms", "over what was kept, then pings and what arrives have their turn"},
    {"send.target", 300'000, "ms", "for a target that is being launched, while somebody waits"},
    {"receive.texts", 256, "texts", "drawn at once, then others have their turn"},
    {"receive.bytes", 4 * kMiB, "bytes", "the same; one text may be larger"},
    {"receive.messages", 16, "messages", "read ahead of each that a pump handles"},
    {"receive.time", 5, "ms", "of reading, then pings and others have their turn"},
    {"receive.step", 65'536, "bytes", "of a text that are read without a look at the clock"},
    {"receive.large", kMiB, "bytes", "of a text after which its sender waits until it is read"},
    {"receive.unread", 4 * 65 * kMiB, "bytes", "of texts that wait for room: one of each hog's"},
    {"pump.messages", 1000, "messages",
     "of an instance, handled by one pump; then the host's loop has its turn, after some 10 ms"},
    {"stream.instances", 8, "names", "tried behind one that is taken"},
    {"forward.body", kMiB, "bytes", "of a body that an observer asked for; what is longer is cut"},
    {"forward.age", 60, "s", "what an observer has not taken by then is old news"},

    // The background thread
    {"thread.round", 100, "ms", "between looks at what nothing announces"},
    {"thread.parked", 3'600'000, "ms", "with nothing to look at; what happens ends the wait"},
    {"thread.keys", 1000, "keys", "of the ping table: any process may add some"},
    {"thread.key", 65'536, "bytes", "of a key, and of its value"},
    {"thread.table", 4 * kMiB, "bytes", "of all keys and values"},
    {"thread.pings", 256, "pings", "read at once, then the instances have their turn"},
    {"thread.answer.age", 30, "s", "of an answer that its asker has not taken"},
    {"thread.unsent.answers", 2048, "answers", "kept for askers and observers that take nothing"},
    {"thread.unsent.bytes", 16 * kMiB, "bytes", "the same, in texts"},
    {"ping.status", 2, "s", "for the question whether a target is busy"},
    {"ping.names", 10, "names", "tried for an asker, when others have them"},
    {"check.wait", 2, "s", "of check_running for an answer: programs wait for the tool"},

    {"exit.wait", 400, "ms", "of the layer's end for calls of other threads; most end at once"},
    {"handler.depth", 32, "handlers", "inside each other; deeper ones hear only what they wait for"},

    // Launching
    {"launch.target", 256, "bytes", "a specifier and its end"},
    {"launch.parameters", 65'536, "bytes", "in one packet, and far above any command line"},
    {"launch.age", 300, "s", "that parameters wait for the launched process"},
    {"launch.process-queue", 10, "s", "that a launched process looks for parameters of its own"},
    {"launch.queue", 200, "s", "that it looks for them by its name"},
    {"desktop.wait", 3000, "ms", "for a display that does not answer"},
    {"desktop.window", 20'000, "ms", "until a launched window is there to be put behind"},
    {"desktop.behind", 5000, "ms", "that it is put behind again; then it is the user's wish"},
    {"desktop.windows", 4096, "windows", "that are looked at"},
    {"desktop.machine-name", 256, "words", "of 4 bytes, of the machine that a window is of"},
    {"process.descriptors", 1 << 20, "descriptors", "closed in a child, where no call closes all"},
    {"process.text", kMiB, "bytes", "of a command line or an environment that is read"},
    {"process.interpreter-line", 256, "bytes", "of a script's first line; the kernel reads no more"},
    {"process.interpreter-words", 16, "words", "of a command line, up to a script; options come first"},
    {"process.known", 4096, "processes", "whose start is remembered"},
    {"bundle.property-list", kMiB, "bytes", "real ones have a few thousand"},

    // Ports
    {"port.text", 65 * kMiB, "bytes", "64 MiB of body, and headers"},
    {"port.packet", 65'536, "bytes", "of a text that is sent whole: the system copies it at once"},
    {"port.part", kMiB, "bytes", "of a larger text: fastest where it was measured"},
    {"port.sealed-part", 131'072, "bytes", "of a sealed text: both ends digest while the next comes"},
    {"port.seal", 64, "bytes", "in front of a sealed text; a digest's line has 41 at most"},
    {"port.connections", 512, "connections", "to one port; the quietest is closed for a new one"},
    {"port.connections.process", 32, "connections", "of one process to one port"},
    {"port.half-sent", 8 * 65 * kMiB, "bytes", "announced to one port and not yet there"},
    {"port.half-sent.process", 2 * 65 * kMiB, "bytes", "the same, of one process"},
    {"port.half-sent.stalled", 250, "ms", "without progress; then it may be closed for others"},
    {"port.half-sent.age", 30'000, "ms", "without progress; then it is closed"},
    {"port.half-sent.progress", 65'536, "bytes", "that count as progress: nobody trickles for ever"},
    {"port.watch-after", 1000, "ms", "of life until the port's files are watched: ending it costs"},
    {"port.opening", 50, "ms", "for an owner of a name that does not listen yet"},
    {"port.kept", 64, "connections", "kept by a sender; a process talks to a handful of others"},
    {"port.look-pause", 50, "us",
     "between looks for a new owner of a target's name; less than it takes to become one"},
    {"port.look-folder", 10, "ms", "between looks whether the ports' folder was replaced"},
    {"port.look-again", 32, "ms", "after a target's end was told; ten times what the system needs"},
    {"port.file-name", 80, "bytes", "with its folder in a socket's address; longer ones are digested"},
    {"port.wait", 3'600'000, "ms", "of one system call; longer waits are several"},
    {"port.accept-pause", 100, "ms", "while the process has no descriptors left"},
    {"port.claims", 1000, "attempts", "at a name; each is lost to a process that came and went"},
    {"log.lines", 20, "lines", "at once: a host's error output is not ours to fill"},
    {"log.pause", 1000, "ms", "for each further line: as fast as a person reads"},
    {"log.length", 1000, "bytes", "of a line, that a pipe takes as a whole"},
    {"log.repeat", 600, "s", "until the same line is written again, if it is still so"},
    {"log.remembered", 100, "lines", "that are known to have been written"},

    // Memory
    {"memory.kept.bytes", 32 * kMiB, "bytes", "of large blocks for the next text; given back when idle"},
    {"memory.kept.blocks", 16, "blocks", "the same: a text passes through a handful"},

    // Home folder
    {"identifier.file", 4096, "bytes", "what is larger was not written by us"},
    {"identifier.length", 40, "bytes", "that is remembered; ours have at most 32"},

    // Registry and database
    {"registry.refresh", 60, "s", "between looks for changes while a process pumps"},
    {"registry.codes", 10'000, "codes", "of one registration: a count that the database gives"},
    {"registry.config-depth", 5, "folders", "from a program up to its configuration"},
    {"registry.launch-path", 1024, "bytes", "the area that callers of the library give"},
    {"database.code", 255, "bytes", "of a product, a payload or a key"},
    {"database.subdomain", 512, "bytes", "a prefix and a specifier"},
    {"database.launch-path", 1023, "bytes", "callers hand over areas of 1,024"},
    {"database.value", 65'536, "bytes", "real ones are paths and names"},
    {"database.read-wait", 100, "ms", "for a lock: a tool must not hang on somebody's"},
    {"database.write-wait", 5000, "ms", "writers take turns"},
    {"database.move-wait", 200, "ms", "for readers, before what was written is moved; a walk is shorter"},
    {"import.file", 64 * kMiB, "bytes", "far above any real registry"},
    {"config.depth", 8, "elements", "inside each other; a configuration has four"},
    {"import.key-parts", 1000, "parts", "of a dotted key: the parser calls itself for each"},
    {"import.desktop-file", kMiB, "bytes", "real ones have a few thousand"},
    {"import.desktop-files", 100'000, "files", "of one folder"},

    // The tool for people
    {"rows.value", 4096, "bytes", "of a value in diagnostics that were not asked for whole"},
    {"rows.messages", 64, "messages", "that a queue gives to the diagnostics before its owner has a turn"},
    {"tree.depth", 64, "levels", "of diagnostics: any process may answer with rows"},
};

// The value of one of `limits`. To be used for constants only: a name that is not there does not
// compile.
template <size_t kCount> constexpr int64_t valueIn(const Limit (&limits)[kCount], const char* name) {
    for (const Limit& limit : limits) {
        const char* a = limit.name;
        const char* b = name;
        while (*a != '\0' && *a == *b) {
            ++a;
            ++b;
        }
        if (*a == *b) {
            return limit.value;
        }
    }
    throw "no such limit";
}

constexpr int64_t of(const char* name) {
    return valueIn(kAll, name);
}

} // namespace limits
