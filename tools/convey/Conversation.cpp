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

namespace convey_tool {
namespace {

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
    for (const char* kind : {"Received", "Result", "Error", "Timeout", "Processed"}) {
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

Conversation Conversation::read(std::istream& lines) {
    Conversation all;
    std::map<Key, size_t> newest;                 // of each message
    std::map<size_t, std::set<std::string>> seen; // its events, and who told them
    std::map<std::tuple<std::string, std::string, uint64_t>, size_t> requests;
    size_t number = 0;
    for (std::string line; std::getline(lines, line);) {
        ++number;
        try {
            const Json event = Json::parse(line);
            const int64_t time = microsecondsOf(event.at("time"));
            if (all.start_.empty()) {
                all.start_ = event.at("time");
                all.startMicroseconds_ = time;
            }
            if (event.contains("dropped")) {
                all.dropped_ += event["dropped"].get<uint64_t>();
                continue;
            }
            const std::string name = event.at("event");
            const std::string told = event.at("of").get<std::string>() + " " +
                                     event.at("kind").get<std::string>() + " " + name;
            Sent sent;
            sent.microseconds = time - all.startMicroseconds_;
            sent.type = event.at("type");
            sent.sender = event.at("sender");
            sent.target = event.at("target");
            sent.serial = event.at("serial");
            sent.sizeBytes = event.at("size");
            sent.text = event.at("text");
            const Key key{sent.sender, sent.target, sent.serial, sent.type};
            const auto known = newest.find(key);
            // What is told again is another message: numbers begin anew with each process.
            const bool isNew = known == newest.end() || !seen[known->second].insert(told).second;
            const size_t index = isNew ? all.messages_.size() : known->second;
            if (isNew) {
                newest[key] = index;
                seen[index] = {told};
                const std::string kind = replyKind(sent.type);
                sent.isReply = !kind.empty();
                if (!sent.isReply) {
                    requests[{sent.sender, sent.target, sent.serial}] = index;
                } else if (const auto request =
                               requests.find({sent.target, sent.sender, sent.serial});
                           request != requests.end()) {
                    sent.request = static_cast<int64_t>(request->second);
                    Sent& asked = all.messages_[request->second];
                    const Outcome outcome = kind == "Error"     ? Outcome::failed
                                            : kind == "Timeout" ? Outcome::timedOut
                                                                : Outcome::answered;
                    const bool ends = kind != "Received";
                    if (ends && asked.outcome == Outcome::none) {
                        asked.outcome = outcome;
                        asked.answerMicroseconds = sent.microseconds - asked.microseconds;
                    }
                    sent.outcome = outcome;
                }
                all.messages_.push_back(std::move(sent));
            }
            Sent& message = all.messages_[index];
            message.events += (message.events.empty() ? "" : ", ") + name;
            if (name == "timed out" && message.outcome == Outcome::none) {
                message.outcome = Outcome::timedOut;
            }
        } catch (const std::exception& error) {
            throw Failure(kNoLayer, "line " + std::to_string(number) +
                                        " is no event of a capture: " + error.what());
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
