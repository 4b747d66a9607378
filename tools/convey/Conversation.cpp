#include "tools/convey/Conversation.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <iomanip>
#include <map>
#include <set>
#include <sstream>
#include <tuple>

#include "scriptobjects/convey/SoCVWords.h"

namespace convey_tool {
namespace {

using namespace ScObjects::ConveyData;

using Key = std::tuple<std::string, std::string, uint64_t, std::string>;

int64_t microsecondsOf(const std::string& time) {
    std::tm parts{};
    std::istringstream in(time);
    char point = 0;
    std::string fraction(6, '0');
    char zone = 0;
    in >> std::get_time(&parts, "%Y-%m-%dT%H:%M:%S") >> point;
    in.read(fraction.data(), static_cast<std::streamsize>(fraction.size()));
    in >> zone;
    if (!in || point != '.' || zone != 'Z' ||
        fraction.find_first_not_of("0123456789") != std::string::npos) {
        throw Failure(kNoLayer, "\"" + time + "\" is no time");
    }
    return int64_t{timegm(&parts)} * 1'000'000 + std::stoll(fraction);
}

// The kind of a reply, empty for a request. Behind it a user's type may stand.
std::string replyKind(const std::string& type) {
    for (const char* kind :
         {CV_TYPE_RECEIVED, CV_TYPE_RESULT, CV_TYPE_ERROR, CV_TYPE_TIMEOUT, CV_TYPE_PROCESSED}) {
        if (type.compare(0, std::string(kind).size(), kind) == 0) {
            return kind;
        }
    }
    return "";
}

} // namespace

int64_t Conversation::Latency::at(double share) const {
    if (microseconds.empty()) {
        return -1;
    }
    const auto last = static_cast<double>(microseconds.size() - 1);
    return microseconds[static_cast<size_t>(std::lround(share * last))];
}

// Puts the events of a capture together, line by line.
class Conversation::Reader {
public:
    explicit Reader(Conversation& all) : all_(all) {}

    void take(const Json& event) {
        const int64_t time = microsecondsOf(event.at("time"));
        if (all_.start_.empty()) {
            all_.start_ = event.at("time");
            all_.startMicroseconds_ = time;
        }
        if (event.contains("dropped")) {
            all_.dropped_ += event["dropped"].get<uint64_t>();
            return;
        }
        const std::string name = event.at("event");
        const std::string told = event.at("of").get<std::string>() + " " +
                                 event.at("kind").get<std::string>() + " " + name;
        Sent sent;
        sent.microseconds = time - all_.startMicroseconds_;
        sent.type = event.at("type");
        sent.sender = event.at("sender");
        sent.target = event.at("target");
        sent.serial = event.at("serial");
        sent.sizeBytes = event.at("size");
        sent.text = event.at("text");
        Sent& message = all_.messages_[indexOf(std::move(sent), told)];
        message.events += (message.events.empty() ? "" : ", ") + name;
        // A reply may have come before: what arrives after the time-out of its request does not
        // undo it, nor the other way round.
        if (name == "timed out" && message.outcome == Outcome::none) {
            message.outcome = Outcome::timedOut;
        }
    }

private:
    // The message that an event is of. What is told again is another message: numbers begin anew
    // with each process.
    size_t indexOf(Sent&& sent, const std::string& told) {
        const Key key{sent.sender, sent.target, sent.serial, sent.type};
        const auto known = newest_.find(key);
        if (known != newest_.end() && seen_[known->second].insert(told).second) {
            return known->second;
        }
        const size_t index = all_.messages_.size();
        newest_[key] = index;
        seen_[index] = {told};
        const std::string kind = replyKind(sent.type);
        sent.isReply = !kind.empty();
        if (sent.isReply) {
            answer(sent, kind);
        } else {
            requests_[{sent.sender, sent.target, sent.serial}] = index;
        }
        all_.messages_.push_back(std::move(sent));
        return index;
    }

    void answer(Sent& reply, const std::string& kind) {
        const auto request = requests_.find({reply.target, reply.sender, reply.serial});
        // A capture may begin in the middle of a conversation.
        if (request == requests_.end()) {
            return;
        }
        reply.request = static_cast<int64_t>(request->second);
        reply.outcome = kind == CV_TYPE_ERROR     ? Outcome::failed
                        : kind == CV_TYPE_TIMEOUT ? Outcome::timedOut
                                                  : Outcome::answered;
        Sent& asked = all_.messages_[request->second];
        // That a request has been received is no answer to it, and the first of several answers
        // counts.
        if (kind != CV_TYPE_RECEIVED && asked.outcome == Outcome::none) {
            asked.outcome = reply.outcome;
            asked.answerMicroseconds = reply.microseconds - asked.microseconds;
        }
    }

    Conversation& all_;
    std::map<Key, size_t> newest_;                 // of each message
    std::map<size_t, std::set<std::string>> seen_; // its events, and who told them
    std::map<std::tuple<std::string, std::string, uint64_t>, size_t> requests_;
};

Conversation Conversation::read(std::istream& lines) {
    Conversation all;
    Reader reader(all);
    size_t number = 0;
    for (std::string line; std::getline(lines, line);) {
        ++number;
        try {
            reader.take(Json::parse(line));
        } catch (const std::exception&) { // of the library, whose words are about its own parts
            throw Failure(kNoLayer, "line " + std::to_string(number) +
                                        " is no event of a capture: convey monitor --capture "
                                        "writes them");
        }
    }
    return all;
}

std::vector<Conversation::Latency> Conversation::latencies() const {
    std::map<std::tuple<std::string, std::string, std::string>, Latency> all;
    for (const Sent& sent : messages_) {
        if (sent.isReply) {
            continue;
        }
        Latency& one = all[{sent.sender, sent.target, sent.type}];
        one.sender = sent.sender;
        one.target = sent.target;
        one.type = sent.type;
        ++one.count;
        one.failed += sent.outcome == Outcome::failed ? 1 : 0;
        one.timedOut += sent.outcome == Outcome::timedOut ? 1 : 0;
        if (sent.answerMicroseconds >= 0 && sent.outcome != Outcome::timedOut) {
            one.microseconds.push_back(sent.answerMicroseconds);
        }
    }
    std::vector<Latency> result;
    for (auto& [key, latency] : all) {
        std::sort(latency.microseconds.begin(), latency.microseconds.end());
        result.push_back(std::move(latency));
    }
    return result;
}

} // namespace convey_tool
