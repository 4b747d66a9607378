// Watches the messages of other applications.
#include <chrono>
#include <ctime>
#include <fnmatch.h>
#include <fstream>
#include <map>
#include <ostream>
#include <set>

#include "tools/convey/Asking.h"
#include "tools/convey/Commands.h"
#include "tools/convey/Model.h"
#include "tools/convey/Session.h"

namespace convey_tool {

using ScObjects::Convey;
using std::chrono::steady_clock;

namespace {

constexpr uint32_t kAnyNumber = ScObjects::ConveyData::CV_INVALID_MESSAGE_NUMBER;
constexpr int32_t kSetSeconds = 2;              // for setting a key of another process
constexpr int64_t kCheckMilliseconds = 2000;    // how soon the end of a watched process is seen
constexpr const char* kBodies = "FWDBODIES";    // the key by which whole bodies are asked for
constexpr const char* kNumber = "Event-Number"; // the header that counts what was to be told

// The keys by which a process is asked to forward, and what a line calls them.
struct Kind {
    const char* key;
    const char* what;
};

// A moment for people, or for programs: UTC, as ISO 8601 has it.
std::string timeText(std::chrono::system_clock::time_point time, bool forPrograms) {
    const auto micros =
        std::chrono::duration_cast<std::chrono::microseconds>(time.time_since_epoch()).count();
    const auto seconds = static_cast<std::time_t>(micros / 1'000'000);
    std::tm parts{};
    (void)(forPrograms ? gmtime_r(&seconds, &parts) : localtime_r(&seconds, &parts));
    char text[48];
    const size_t length =
        std::strftime(text, sizeof text, forPrograms ? "%Y-%m-%dT%H:%M:%S" : "%F %T", &parts);
    (void)std::snprintf(text + length, sizeof text - length, ".%06d%s",
                        static_cast<int>(micros % 1'000'000), forPrograms ? "Z" : "");
    return text;
}

// As much of it as the observed application was asked for.
const std::string& bodyOf(const MessageRows& message) {
    return message.whole.empty() ? message.text : message.whole;
}

// What `--match` asks for: every one of its patterns.
class Match {
public:
    explicit Match(const std::vector<std::string>& texts) {
        for (const std::string& text : texts) {
            for (size_t at = 0; at <= text.size();) {
                const size_t end = std::min(text.find(',', at), text.size());
                add(text.substr(at, end - at));
                at = end + 1;
            }
        }
    }
    bool wantsBodies() const {
        return std::any_of(patterns_.begin(), patterns_.end(),
                           [](const auto& pattern) { return pattern.first == "body"; });
    }
    bool holds(const MessageRows& message) const {
        const auto fits = [](const std::string& pattern, const std::string& text) {
            return fnmatch(pattern.c_str(), text.c_str(), 0) == 0;
        };
        for (const auto& [field, pattern] : patterns_) {
            if (field == "header") {
                const size_t equals = pattern.find('=');
                const std::string name = pattern.substr(0, equals);
                const std::string value =
                    equals == std::string::npos ? "*" : pattern.substr(equals + 1);
                if (std::none_of(message.headers.begin(), message.headers.end(),
                                 [&](const auto& header) {
                                     return fits(name, header.first) && fits(value, header.second);
                                 })) {
                    return false;
                }
            } else if (!fits(pattern, field == "type"   ? message.type
                                      : field == "from" ? message.sender
                                      : field == "to"   ? message.target
                                                        : bodyOf(message))) {
                return false;
            }
        }
        return true;
    }

private:
    void add(const std::string& text) {
        const size_t equals = text.find('=');
        const std::string field = text.substr(0, equals);
        if (equals == std::string::npos ||
            std::set<std::string>{"type", "from", "to", "header", "body"}.count(field) == 0) {
            throw Failure(kUsage, "--match wants type=, from=, to=, header= or body=, not \"" +
                                      text + "\"");
        }
        patterns_.emplace_back(field, text.substr(equals + 1));
    }
    std::vector<std::pair<std::string, std::string>> patterns_;
};

// Asks a process to forward, and takes that back at the end.
class Forwarding {
public:
    Forwarding(std::string target, std::string observer, const char* key)
        : target_(std::move(target)), observer_(std::move(observer)), key_(key) {
        // Setting a key is answered with its value; any other answer says why it was not set.
        const std::string answer = ask(std::string(key_) + "=" + observer_);
        if (answer != observer_) {
            throw Failure(kNo, target_ + ": " + (answer.empty() ? "no answer" : answer));
        }
    }
    ~Forwarding() {
        if (isOurs()) {
            (void)ask(std::string(key_) + "="); // else its process sees that nobody is here
        }
    }
    Forwarding(const Forwarding&) = delete;
    Forwarding& operator=(const Forwarding&) = delete;

    bool isOurs() const { return ask(key_) == observer_; }

private:
    std::string ask(const std::string& key) const {
        return toStd(Convey::Thread::ping(target_.c_str(), key.c_str(), kSetSeconds, nullptr));
    }

    const std::string target_;
    const std::string observer_;
    const char* const key_;
};

// Takes what is forwarded, and shows and records it.
class Observer {
public:
    Observer(const Output& output, const MonitorOptions& options, const std::string& name)
        : output_(output),
          options_(options),
          match_(options.match),
          // Not the main instance, whose own messages would be forwarded to the same handlers.
          instance_(name.c_str(), nullptr, false, nullptr) {
        if (options.errors) {
            kinds_.push_back({ScObjects::ConveyData::CV_FORWARD_ERRORS, "errors"});
        }
        if (options.logs) {
            kinds_.push_back({ScObjects::ConveyData::CV_FORWARD_LOGS, "logs"});
        }
        if (kinds_.empty()) {
            kinds_.push_back({ScObjects::ConveyData::CV_FORWARD_MESSAGES, "messages"});
            if (!options.captureFile.empty()) { // replies are steps only
                kinds_.push_back({ScObjects::ConveyData::CV_FORWARD_LOGS, "logs"});
            }
        }
        if (options.bodies || !options.captureFile.empty() || match_.wantsBodies()) {
            kinds_.push_back({kBodies, "bodies"});
        }
        for (const Kind& kind : kinds_) {
            delete instance_.changeHandler(
                new Handler(kind.key, kAnyNumber,
                            [this, kind](const Convey::Message& message) { take(kind, message); }));
        }
        if (!options.captureFile.empty()) {
            capture_.open(options.captureFile, std::ios::binary);
            if (!capture_) {
                throw Failure(kNoLayer, "cannot write " + options.captureFile);
            }
        }
    }

    void watch(const std::string& target) {
        std::vector<std::unique_ptr<Forwarding>> forwardings;
        for (const Kind& kind : kinds_) {
            forwardings.push_back(
                std::make_unique<Forwarding>(target, toStd(instance_.getAppName()), kind.key));
        }
        watched_[target] = std::move(forwardings);
    }
    bool watches(const std::string& target) const { return watched_.count(target) != 0; }
    size_t count() const { return watched_.size(); }
    uint64_t events() const { return events_; }
    uint64_t dropped() const { return dropped_; }
    bool canRecord() const { return capture_.good(); }

    // Leaves those alone that have ended or forward to somebody else; the text says why.
    std::string check() {
        std::string left;
        for (auto i = watched_.begin(); i != watched_.end() && !Session::isEnding();) {
            const bool isOurs =
                std::all_of(i->second.begin(), i->second.end(),
                            [](const auto& forwarding) { return forwarding->isOurs(); });
            if (isOurs || Session::isEnding()) {
                ++i;
                continue;
            }
            left += (left.empty() ? "" : "; ") + i->first +
                    (Convey::targetIsRunning(i->first.c_str()) ? " forwards to somebody else now"
                                                               : " has ended");
            i = watched_.erase(i);
        }
        return left;
    }

private:
    void take(const Kind& kind, const Convey::Message& forwarded) {
        const auto now = std::chrono::system_clock::now();
        const std::string of = toStd(forwarded.getSender());
        const uint64_t number =
            std::strtoull(toStd(forwarded.getUserHeaderValue(kNumber)).c_str(), nullptr, 10);
        uint64_t& last = last_[{of, kind.key}];
        // It counts anew when it was started again, and a process of before counts nothing.
        const uint64_t expected = number > last ? last + 1 : 1;
        const uint64_t dropped = number > expected ? number - expected : 0;
        last = number;
        if (dropped != 0) {
            dropped_ += dropped;
            record({{"time", timeText(now, true)}, {"of", of}, {"dropped", dropped}});
            if (!output_.json && !output_.quiet) {
                output_.out << output_.show(timeText(now, false), Style::dim) << "  "
                            << output_.show(std::to_string(dropped) + " events of " + of +
                                                " were dropped here",
                                            Style::bad)
                            << std::endl;
            }
        }
        const std::string root =
            toStd(forwarded.getUserHeaderValue(ScObjects::ConveyData::CV_MESSAGE_ROOT));
        const MessageRows message = readMessage(toStd(forwarded.getBody()), root);
        if (!match_.holds(message) || (options_.count != 0 && events_ >= options_.count)) {
            return;
        }
        ++events_;
        Json headers = Json::object();
        for (const auto& [name, value] : message.headers) {
            headers[name] = value;
        }
        const std::string event = message.event.empty() ? "processed" : message.event;
        Json json = {{"time", timeText(now, true)},
                     {"of", of},
                     {"kind", kind.what},
                     {"event", event},
                     {"type", message.type},
                     {"sender", message.sender},
                     {"target", message.target},
                     {"serial", std::strtoul(message.serial.c_str(), nullptr, 10)},
                     {"size", message.sizeBytes},
                     {"text", message.text}};
        if (options_.headers || !options_.captureFile.empty()) {
            json["headers"] = headers;
        }
        if (options_.bodies || !options_.captureFile.empty()) {
            json["body"] = bodyOf(message);
        }
        record(json);
        if (!output_.json) {
            show(timeText(now, false), of, event, message);
        }
    }

    void record(const Json& json) {
        if (capture_.is_open()) {
            // Each line at once: a capture is looked at while it grows, and is whole up to the last
            // event when this process is killed. What peers wrote may be no UTF-8.
            capture_ << json.dump(-1, ' ', false, Json::error_handler_t::replace) << std::endl;
        }
        if (output_.json) {
            output_.print(json, true);
        }
    }

    void show(const std::string& time, const std::string& of, const std::string& event,
              const MessageRows& message) const {
        output_.out << output_.show(time, Style::dim) << "  ";
        if (watched_.size() > 1 || options_.all) {
            output_.out << output_.show(of, Style::dim) << "  ";
        }
        output_.out << output_.show(event, Style::heading) << "  " << output_.show(message.type)
                    << "  " << output_.show(message.sender) << " -> "
                    << output_.show(message.target) << "  #" << output_.show(message.serial) << "  "
                    << output_.show(message.text.empty()
                                        ? std::to_string(message.sizeBytes) + " bytes"
                                        : message.text)
                    << '\n';
        for (const auto& [name, value] : message.headers) {
            if (options_.headers) {
                output_.out << "    " << output_.show(name) << " = " << output_.show(value) << '\n';
            }
        }
        for (size_t at = 0; options_.bodies && at < message.whole.size();) {
            const size_t end = std::min(message.whole.find('\n', at), message.whole.size());
            output_.out << "    | " << output_.show(message.whole.substr(at, end - at)) << '\n';
            at = end + 1;
        }
        output_.out.flush();
    }

    const Output& output_;
    const MonitorOptions& options_;
    const Match match_;
    std::vector<Kind> kinds_;
    std::ofstream capture_;
    uint64_t events_ = 0;
    uint64_t dropped_ = 0;
    std::map<std::pair<std::string, const char*>, uint64_t> last_; // number of each kind
    Convey instance_;
    // Before the instance goes, so that nothing is forwarded to a name that nobody has.
    std::map<std::string, std::vector<std::unique_ptr<Forwarding>>> watched_;
};

std::vector<std::string> running(const std::string& own) {
    std::vector<std::string> all;
    for (int32_t i = 0; i < Convey::getNumberOfRegisteredApplications(); ++i) {
        const std::string name = toStd(Convey::getApplicationSpecifier(i));
        if (name != own && Convey::Specifier(name.c_str(), false).isRunning()) {
            all.push_back(name);
        }
    }
    return all;
}

} // namespace

Exit monitor(const Output& output, const MonitorOptions& options) {
    const Session session;
    if (options.all == !options.specifiers.empty()) {
        throw Failure(kUsage, "name one application or several, or --all");
    }
    Observer observer(output, options,
                      "monitor" + session.name().substr(std::string("convey").size()));
    std::vector<std::string> targets;
    if (options.all) {
        requireRegistry();
        targets = running(session.name());
    }
    for (const std::string& specifier : options.specifiers) {
        targets.push_back(toStd(known(specifier)));
    }
    for (const std::string& target : targets) {
        observer.watch(target);
        output.note("watching " + target + "; Ctrl-C ends it");
    }
    const auto start = steady_clock::now();
    const auto isOver = [&] {
        return (options.count != 0 && observer.events() >= options.count) ||
               (options.timeoutSeconds > 0 &&
                steady_clock::now() - start >=
                    std::chrono::duration<double>(options.timeoutSeconds));
    };
    auto nextCheck = start + std::chrono::milliseconds(kCheckMilliseconds);
    while (!Session::isEnding() && !isOver()) {
        Session::pumpFor(20);
        if (!observer.canRecord()) { // said here: nothing may be thrown through the layer
            throw Failure(kNoLayer, "cannot write " + options.captureFile);
        }
        if (steady_clock::now() < nextCheck || Session::isEnding()) {
            continue;
        }
        nextCheck = steady_clock::now() + std::chrono::milliseconds(kCheckMilliseconds);
        const std::string left = observer.check();
        if (!left.empty()) {
            if (!options.all && observer.count() == 0) {
                throw Failure(kNo, left);
            }
            output.note(left);
        }
        for (const std::string& target : options.all ? running(session.name()) : targets) {
            if (options.all && !observer.watches(target)) {
                observer.watch(target);
                output.note("watching " + target);
            }
        }
    }
    if (observer.dropped() != 0) {
        output.note(std::to_string(observer.dropped()) + " events were dropped");
    }
    return options.count == 0 || observer.events() >= options.count || Session::isEnding() ? kDone
                                                                                           : kNo;
}

} // namespace convey_tool
