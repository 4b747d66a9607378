#pragma once

#include <cstddef>
#include <cstdint>

#include "limits/LinkLimits.h"

// Every bound of the link, by the name that `convey limits` prints. What a foreign machine makes
// this one hold is counted against them.
namespace convey_link::bounds {

inline constexpr size_t kKiB = 1024;
inline constexpr size_t kMiB = 1024 * kKiB;

constexpr size_t size(const char* name) {
    return static_cast<size_t>(limits::ofLink(name));
}

// Of the name of a realm or a link: a token of a subject.
inline constexpr size_t kNameBytes = size("link.name");
// Of a specifier with its suffix, which every peer of the layer accepts.
inline constexpr size_t kSpecifierBytes = size("link.specifier");
// Entries of one kind in a configuration, and applications in a presence.
inline constexpr size_t kEntries = size("link.entries");
// Of a message's text, as ports have it.
inline constexpr size_t kTextBytes = size("link.text");
// Lines of a message's head; readers take fewer.
inline constexpr size_t kLines = size("link.lines");
// Of a text in one frame. The servers take a fifth longer for parts of a quarter of that; larger
// ones gain them little more, and delay others' small ones.
inline constexpr size_t kPartBytes = size("link.part");
// Of what has no parts, in one frame.
inline constexpr size_t kWholeBytes = size("link.whole");
// Of small texts in one frame, as far as they wait already: a frame costs the servers and both
// links several times what is in it.
inline constexpr size_t kTogetherBytes = size("link.together");
// Of one that goes so.
inline constexpr size_t kSmallBytes = kTogetherBytes / 4;
// Beside the part: the frame's own fields and the longest names.
inline constexpr size_t kFrameBytes = size("link.frame");
// Sent to one link and not acknowledged: far below what a server cuts a slow subscriber off for.
inline constexpr size_t kWindowBytes = size("link.window");
// Taken for one target and not delivered yet. Beyond it texts stay in the port's queue, whose bound
// holds their senders back. Three large ones: one is drawn while the next is on its way and the
// first is handed over at the other end, else one of these stands still while the others work.
inline constexpr size_t kWaitingBytes = size("link.waiting");
inline constexpr size_t kWaitingMessages = size("link.waiting-messages");
// Of texts from one link that are half there, or wait for their targets.
inline constexpr size_t kKeptBytes = size("link.kept");
inline constexpr size_t kKeptMessages = size("link.kept-messages");
// Requests whose answers are under way, and questions to background threads.
inline constexpr size_t kPending = size("link.pending");
inline constexpr size_t kPings = size("link.pings");
// Of a question that is kept until its link is heard again; longer ones are asked once.
inline constexpr size_t kPingBytes = size("link.ping");
// Senders from elsewhere that have a port here; each costs two descriptors.
inline constexpr size_t kAliases = size("link.senders");
// Links that are known: those of the configuration, and those that may use what is offered.
inline constexpr size_t kLinks = size("link.links");

// Of the requests of one link that wait on the servers' disks, and how long the longest may.
inline constexpr int64_t kStreamBytes = limits::ofLink("link.stream");
inline constexpr int64_t kStreamMilliseconds = limits::ofLink("link.stream-time");
// Until what was taken from the disk and not acknowledged comes again; above a hand-over.
inline constexpr int64_t kKeptAgainMilliseconds = limits::ofLink("link.stream-again");
// Until the disk must have answered: then it is asked again, which it knows.
inline constexpr int64_t kKeepMilliseconds = limits::ofLink("link.stream-answer");
// Nothing keeps: a cluster that chooses a leader needs so long at most.
inline constexpr int64_t kNoStreamMilliseconds = limits::ofLink("link.stream-missing");
// How long the servers remember what they have stored; later repeats are found by their numbers.
inline constexpr int64_t kStreamRepeatMilliseconds = limits::ofLink("link.stream-repeats");
// Outcomes that wait for a link to be heard.
inline constexpr size_t kUntold = size("link.untold");

inline constexpr int64_t kHelloMilliseconds = limits::ofLink("link.hello");
// To one that is away: it cannot know who waits for it.
inline constexpr int64_t kAwayMilliseconds = limits::ofLink("link.hello-away");
// Two hellos, and the way: a lost one is no absence.
inline constexpr int64_t kSilentMilliseconds = limits::ofLink("link.silence");
// Nobody listens for one that was there a moment ago: it may be on its way to another server. Above
// what a reconnection and the news of it take in a cluster, below the two seconds that
// `check_running` has.
inline constexpr int64_t kDoubtMilliseconds = limits::ofLink("link.doubt");
inline constexpr int64_t kDoubtHelloMilliseconds = 250;
// Many small acknowledgements go as one; a window is never used up in this time on a fast network.
inline constexpr int64_t kAcknowledgeMilliseconds = 20;
// Until what was not acknowledged is sent again: above two ways through the slowest network that
// somebody would use; doubled each time.
inline constexpr int64_t kRepeatMilliseconds = 500;
inline constexpr int64_t kSlowRepeatMilliseconds = 5000;
// That is left of a message's time: what its text can say, and sums of it do not overflow.
inline constexpr int64_t kTimeMilliseconds = int64_t{INT32_MAX} * 1000;
// For messages without a time-out of their own; what the layer gives those of its own.
inline constexpr int64_t kMessageMilliseconds = limits::ofLink("link.message");
inline constexpr int64_t kLaunchMilliseconds = limits::ofLink("link.launch");
inline constexpr int64_t kPingMilliseconds = limits::ofLink("link.ping-time");
// Until a sender that was quiet is forgotten.
inline constexpr int64_t kAliasMilliseconds = limits::ofLink("link.sender");

} // namespace convey_link::bounds
