// What comes from the network: frames, the texts in them, and the channel that puts them together;
// and what the servers answer.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "link/Bounds.h"
#include "link/Channel.h"
#include "link/Frame.h"
#include "link/Kept.h"
#include "link/Text.h"

namespace {

using namespace convey_link;

constexpr size_t kMarkBytes = 4;

void require(bool condition) {
    if (!condition) {
        std::abort();
    }
}

void readText(std::string text) {
    normalise(text);
    std::string_view rest = text;
    Text message;
    if (!Text::read(rest, message)) {
        return;
    }
    message.remove({kVouch});
    message.set(kSender, "alias-1.0");
    message.set(kVouch, "desk@studio");
    // What goes on says who vouches, whatever stood there.
    const std::string plain = message.writePlain().head;
    std::string_view again = plain;
    Text read;
    require(Text::read(again, read) && again.empty());
    require(read.get(kSender) == "alias-1.0" && read.get(kVouch) == "desk@studio");
    require(read.body() == message.body());
    failure(askedBy(read), Outcome::lost, [](Text& reply) { require(!reply.write().empty()); });
}

} // namespace

// The input is frames with their lengths in two bytes in front.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view input(reinterpret_cast<const char*>(data), size);
    Channel channel(2);
    channel.meet(1);
    (void)channel.queue({MessageKind::request, "a-1.0", "b-1.0", 0, 0, Outcome::delivered},
                        std::string("hello"), INT64_MAX);
    for (int64_t now = 0; input.size() >= 2; now += 100) {
        const size_t length = static_cast<unsigned char>(input[0]) |
                              static_cast<size_t>(static_cast<unsigned char>(input[1])) << 8;
        input.remove_prefix(2);
        const std::string_view bytes = input.substr(0, length);
        input.remove_prefix(bytes.size());
        Frame frame;
        if (!decode(bytes, frame)) {
            continue;
        }
        // A former link's mark is this one's when it is written.
        const std::string same = encode(frame);
        require(same.substr(kMarkBytes) == bytes.substr(kMarkBytes) ||
                frame.kind == FrameKind::acknowledgement);
        Channel::Arrivals arrivals;
        channel.take(frame, now, arrivals);
        require(channel.halfBytes() <= bounds::kKeptBytes);
        for (Channel::Arrival& arrival : arrivals.messages) {
            require(!arrival.text.empty());
            readText(std::move(arrival.text));
        }
        readText(std::string(frame.text));
        (void)keptAnswer(frame.text, "convey=studio=desk");
        (void)servedAt(frame.text, "convey=studio=desk", "workshop");
        (void)storedAt(frame.text);
        std::vector<uint64_t> expired;
        for (int i = 0; i < 10 && !channel.next(now, 1000, expired).empty(); ++i) {
        }
    }
    return 0;
}
