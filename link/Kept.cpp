#include "link/Kept.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <locale>
#include <nlohmann/json.hpp>
#include <sstream>

#include "link/Bounds.h"
#include "link/Text.h"
#include "link/Wire.h"

namespace convey_link {
namespace {

// Of JetStream's errors: the stream is full, the message is larger than it takes.
constexpr uint64_t kStoreFailed = 10077;
constexpr uint64_t kTooLarge = 10054;
// Between tries while nothing keeps.
constexpr int64_t kTryAgainMilliseconds = 500;
// Lives of one link that are remembered: repeats of older ones have long been acknowledged.
constexpr size_t kLives = 4;

// What stands there, or nothing: who may publish here says what it likes.
nlohmann::json in(const nlohmann::json& answer, const char* key) {
    return answer.is_object() ? answer.value(key, nlohmann::json()) : nlohmann::json();
}

uint64_t numberIn(const nlohmann::json& answer, const char* key) {
    const auto found = in(answer, key);
    return found.is_number_unsigned() ? found.get<uint64_t>() : 0;
}

} // namespace

void Keeper::queue(const std::string& link, uint64_t message, MessageHead head, std::string text,
                   int64_t deadline) {
    line_.push_back({++lastNumber_, link, message, std::move(head), std::move(text), deadline});
}

void Keeper::end(KeptAnswer result) {
    ended_.push_back({line_.front().link, line_.front().message, result});
    line_.pop_front();
    isSent_ = false;
    sendAt_ = 0;
}

void Keeper::take(uint64_t number, std::string_view answer, int64_t now) {
    if (line_.empty() || line_.front().number != number || !isSent_) {
        return; // of one that was repeated
    }
    const KeptAnswer result = keptAnswer(answer, stream_);
    if (result == KeptAnswer::ofAnother) {
        return;
    }
    if (result == KeptAnswer::notNow) {
        missedAt_ = std::min(missedAt_, now);
        if (now < missedAt_ + bounds::kNoStreamMilliseconds) {
            sendAt_ = now + kTryAgainMilliseconds;
            return;
        }
    } else if (result == KeptAnswer::kept) {
        missedAt_ = INT64_MAX;
        ++kept_;
    }
    end(result);
}

std::vector<Keeper::Ended> Keeper::step(int64_t now) {
    // What was sent may lie on a disk: its link says how it ends, or its time tells.
    if (isSent_ && line_.front().deadline <= now) {
        end(KeptAnswer::kept);
    }
    std::erase_if(line_, [&](const Waiting& one) {
        const bool isOver = one.deadline <= now && !(isSent_ && &one == &line_.front());
        if (isOver) {
            ended_.push_back({one.link, one.message, KeptAnswer::expired});
        }
        return isOver;
    });
    if (!line_.empty() && sendAt_ <= now) {
        const Waiting& front = line_.front();
        Frame frame;
        frame.kind = FrameKind::kept;
        frame.senderLife = life_;
        frame.number = front.message;
        frame.head = front.head;
        frame.head.remainingMilliseconds = front.deadline == INT64_MAX ? -1 : front.deadline - now;
        frame.text = front.text;
        const std::string bytes = encode(frame);
        if (bytes.size() > wire_.maximumFrame()) {
            end(KeptAnswer::tooLarge);
        } else {
            const bool sent = wire_.keep(front.link, life_, front.number, bytes);
            isSent_ = isSent_ || sent;
            sendAt_ = now + (sent ? bounds::kKeepMilliseconds : kTryAgainMilliseconds);
        }
    }
    return std::exchange(ended_, {});
}

Journal::Lives& Journal::lives(const std::string& link) {
    const auto [found, isNew] = links_.try_emplace(link);
    if (isNew) {
        std::ifstream in(folder_ + "/" + link);
        for (std::pair<uint64_t, uint64_t> one; in >> one.first >> one.second;) {
            found->second.push_back(one);
        }
    }
    return found->second;
}

Journal::State Journal::state(const std::string& link, uint64_t life, uint64_t message) {
    for (const auto& [known, last] : lives(link)) {
        if (known == life) {
            return message > last ? State::fresh : message == last ? State::begun : State::over;
        }
    }
    return State::fresh;
}

bool Journal::begin(const std::string& link, uint64_t life, uint64_t message) {
    Lives changed = lives(link);
    std::erase_if(changed, [life](const auto& one) { return one.first == life; });
    changed.emplace_back(life, message);
    if (changed.size() > kLives) {
        changed.pop_front();
    }
    std::error_code error;
    std::filesystem::create_directories(folder_, error);
    const std::string path = folder_ + "/" + link;
    {
        // Another name first: a link that dies here leaves the old file or the new one.
        std::ofstream out(path + ".new", std::ios::trunc);
        for (const auto& [known, last] : changed) {
            out << known << ' ' << last << '\n';
        }
        if (!out.flush()) {
            return false;
        }
    }
    if (std::rename((path + ".new").c_str(), path.c_str()) != 0) {
        return false;
    }
    lives(link) = std::move(changed);
    return true;
}

KeptAnswer keptAnswer(std::string_view answer, const std::string& stream) {
    if (answer.empty()) {
        return KeptAnswer::notNow;
    }
    const auto json = nlohmann::json::parse(answer, nullptr, false);
    if (in(json, "stream") != stream) {
        return KeptAnswer::ofAnother;
    }
    if (!json.contains("error")) {
        return numberIn(json, "seq") != 0 ? KeptAnswer::kept : KeptAnswer::notNow;
    }
    const uint64_t code = numberIn(json["error"], "err_code");
    return code == kStoreFailed ? KeptAnswer::full
           : code == kTooLarge  ? KeptAnswer::tooLarge
                                : KeptAnswer::notNow;
}

int64_t storedAt(std::string_view acknowledgement) {
    std::vector<std::string> tokens;
    std::istringstream text{std::string(acknowledgement)};
    for (std::string token; std::getline(text, token, '.');) {
        tokens.push_back(token);
    }
    // Later servers say more in front: $JS.ACK[.domain.account].stream.consumer.times.two
    // numbers.nanoseconds.pending[.more]
    const size_t at = tokens.size() == 9 ? 7 : 9;
    if (tokens.size() <= at + 1) {
        return -1;
    }
    const int64_t nanoseconds = numberOf(tokens[at]);
    return nanoseconds < 0 ? -1 : nanoseconds / 1'000'000;
}

int64_t servedAt(std::string_view answer, const std::string& stream, const std::string& consumer) {
    const auto json = nlohmann::json::parse(answer, nullptr, false);
    const auto last = in(in(json, "delivered"), "last_active");
    if (in(json, "stream_name") != stream || in(json, "name") != consumer || !last.is_string()) {
        return -1;
    }
    std::istringstream text(last.get<std::string>());
    text.imbue(std::locale::classic());
    std::tm date{};
    double fraction = 0; // 2026-11-22T21:06:36.88402765Z
    if (!(text >> std::get_time(&date, "%Y-%m-%dT%H:%M:%S")) ||
        (text.peek() == '.' && !(text >> fraction))) {
        return -1;
    }
    return static_cast<int64_t>(timegm(&date)) * 1000 + static_cast<int64_t>(fraction * 1000);
}

} // namespace convey_link
