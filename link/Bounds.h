#pragma once

#include <cstddef>
#include <cstdint>

// Every bound of the link, in one place. What a foreign machine makes this one hold is counted
// against them.
namespace convey_link::bounds {

inline constexpr size_t kKiB = 1024;
inline constexpr size_t kMiB = 1024 * kKiB;

// Of the name of a realm or a link: a token of a subject.
inline constexpr size_t kNameBytes = 64;
// Of a specifier with its suffix, which every peer of the layer accepts.
inline constexpr size_t kSpecifierBytes = 255;
// Entries of one kind in a configuration, and applications in a presence.
inline constexpr size_t kEntries = 1000;
// Of a message's text, as ports have it.
inline constexpr size_t kTextBytes = 65 * kMiB;
// Lines of a message's head; readers take fewer.
inline constexpr size_t kLines = 5000;
// Of a text in one frame. Larger ones delay others' small ones longer than they gain.
inline constexpr size_t kPartBytes = 128 * kKiB;
// Beside the part: the frame's own fields and the longest names.
inline constexpr size_t kFrameBytes = kKiB;
// Sent to one link and not acknowledged: far below what a server cuts a slow subscriber off for.
inline constexpr size_t kWindowBytes = 4 * kMiB;
// Taken for one target and not delivered yet. Beyond it texts stay in the port's queue, whose bound
// holds their senders back.
inline constexpr size_t kWaitingBytes = 16 * kMiB;
inline constexpr size_t kWaitingMessages = 4000;
// Of texts from one link that are half there, or wait for their targets.
inline constexpr size_t kKeptBytes = 4 * kTextBytes;
inline constexpr size_t kKeptMessages = 20'000;
// Requests whose answers are under way, and questions to background threads.
inline constexpr size_t kPending = 100'000;
inline constexpr size_t kPings = 2000;
// Senders from elsewhere that have a port here; each costs two descriptors.
inline constexpr size_t kAliases = 200;
// Links that are known: those of the configuration, and those that may use what is offered.
inline constexpr size_t kLinks = 2000;

inline constexpr int64_t kHelloMilliseconds = 5000;
// To one that is away: it cannot know who waits for it.
inline constexpr int64_t kAwayMilliseconds = 1000;
// Two hellos, and the way: a lost one is no absence.
inline constexpr int64_t kSilentMilliseconds = 12'000;
// Many small acknowledgements go as one; a window is never used up in this time on a fast network.
inline constexpr int64_t kAcknowledgeMilliseconds = 20;
// Until what was not acknowledged is sent again: above two ways through the slowest network that
// somebody would use; doubled each time.
inline constexpr int64_t kRepeatMilliseconds = 500;
inline constexpr int64_t kSlowRepeatMilliseconds = 5000;
// That is left of a message's time: what its text can say, and sums of it do not overflow.
inline constexpr int64_t kTimeMilliseconds = int64_t{INT32_MAX} * 1000;
// For messages without a time-out of their own; what the layer gives those of its own.
inline constexpr int64_t kMessageMilliseconds = 600'000;
inline constexpr int64_t kLaunchMilliseconds = 60'000;
inline constexpr int64_t kPingMilliseconds = 60'000;
// Until a sender that was quiet is forgotten.
inline constexpr int64_t kAliasMilliseconds = 3'600'000;

} // namespace convey_link::bounds
