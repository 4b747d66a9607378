#pragma once

#include "limits/Limits.h"

namespace limits {

// The bounds of `convey-link`, which is a program of its own, as those of the layer (Limits.h).
inline constexpr Limit kLink[] = {
    {"link.name", 64, "bytes", "of a realm or a link: a token of a subject"},
    {"link.specifier", 255, "bytes", "with its suffix; what every peer of the layer accepts"},
    {"link.entries", 1000, "entries", "of one kind in its file, and applications that another link asks about"},
    {"link.text", 65 * kMiB, "bytes", "as ports have it"},
    {"link.lines", 5000, "lines", "of a message's head; readers take fewer"},
    {"link.part", 512 * kKiB, "bytes", "of a text in one frame: an eighth of the window, which is what holds others up"},
    {"link.whole", 128 * kKiB, "bytes", "of what goes in one frame only: parameters of a launch, outcomes, pings"},
    {"link.together", 32 * kKiB, "bytes", "of small texts (up to a quarter of it) that go in one frame"},
    {"link.frame", kKiB, "bytes", "of a frame beside its part: fields and the longest names"},
    {"link.window", 4 * kMiB, "bytes", "sent to a link and not acknowledged: far below what servers cut off slow ones for"},
    {"link.waiting", 48 * kMiB, "bytes", "taken for a target and not delivered, then its senders wait: three large texts"},
    {"link.waiting-messages", 4000, "messages", "likewise"},
    {"link.kept", 260 * kMiB, "bytes", "four of the largest texts, half there or waiting for their targets"},
    {"link.kept-messages", 20'000, "messages", "that wait for targets of this machine"},
    {"link.pending", 100'000, "requests", "whose answers are under way; and in a stream"},
    {"link.pings", 2000, "pings", "that are asked at a time"},
    {"link.ping", 8 * kKiB, "bytes", "of one that is asked again when its link is heard"},
    {"link.senders", 200, "senders", "from elsewhere with a port here; each costs two descriptors"},
    {"link.links", 2000, "links", "that are known: used ones, and those that may use something"},
    {"link.stream", 256 * kMiB, "bytes", "of one link's requests that wait on the servers' disks"},
    {"link.stream-time", int64_t{7} * 24 * 3'600'000, "ms", "that one without a time-out waits there"},
    {"link.stream-again", 5000, "ms", "until one that was not acknowledged comes from there again; above a hand-over"},
    {"link.stream-answer", 2000, "ms", "until the disk must have answered: then it is asked again, which it knows"},
    {"link.stream-missing", 10'000, "ms", "of tries; a cluster chooses its leader in less"},
    {"link.stream-repeats", 120'000, "ms", "that servers know what they have stored; later repeats show by their numbers"},
    {"link.untold", 1000, "outcomes", "that wait for a link to be heard"},
    {"link.hello", 5000, "ms", "between greetings of a link that is used"},
    {"link.hello-away", 1000, "ms", "the same of one that is away: it cannot know who waits for it"},
    {"link.silence", 12'000, "ms", "two greetings and the way: a lost one is no absence"},
    {"link.doubt", 1200, "ms", "for one that may be changing servers; below the 2 s of check_running"},
    {"link.message", 600'000, "ms", "for messages without a time-out, as the layer's own"},
    {"link.launch", 60'000, "ms", "for an application that is launched to come"},
    {"link.ping-time", 60'000, "ms", "of a ping at most"},
    {"link.sender", 3'600'000, "ms", "until a sender that was quiet is forgotten, or room is needed"},
};

constexpr int64_t ofLink(const char* name) {
    return valueIn(kLink, name);
}

} // namespace limits
