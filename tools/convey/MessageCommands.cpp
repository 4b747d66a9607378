// What asks other applications, sends them messages and watches theirs.
#include <algorithm>
#include <chrono>
#include <functional>
#include <iomanip>
#include <iostream>
#include <iterator>
#include <set>
#include <sstream>

#include "scriptobjects/convey/SoCVMessage.h"
#include "scriptobjects/convey/SoCVThread.h"
#include "scriptobjects/convey/SoCVUtils.h"
#include "scriptobjects/convey/SoCVUtilsCore.h"
#include "tools/convey/Commands.h"
#include "tools/convey/Session.h"

namespace convey_tool {

using ScObjects::Convey;
using ScObjects::ConveyThread;
using ScObjects::SoString;
using std::chrono::steady_clock;

namespace {

constexpr const char* kAllApplications = "allRunningApps";
constexpr uint32_t kAnyNumber = ScObjects::ConveyData::CV_INVALID_MESSAGE_NUMBER;
constexpr int32_t kSetSeconds = 2;           // for setting a key of another process
constexpr int64_t kCheckMilliseconds = 2000; // how soon the end of a watched process is seen

// Words that say why there is no value.
bool isNoAnswer(const std::string& answer) {
    static const std::set<std::string> words{
        "",          ConveyThread::CV_NOINTERAPPSTREAM, ConveyThread::CV_INVALIDSPEC,
        "Timeout",   ConveyThread::CV_ISNOTINSTALLED,   ConveyThread::CV_ISNOTRUNNING,
        "UNDEFINED", ConveyThread::CV_MSGTOSTRINGERROR};
    return words.count(answer) != 0;
}

// Calls a function with what it is given.
class Handler : public Convey::MsgHandler {
public:
    using Body = std::function<void(const Convey::Message&)>;
    Handler(std::string type, uint32_t serial, Body body)
        : type_(std::move(type)), serial_(serial), body_(std::move(body)) {}
    int32_t handleMessage(int /*event*/, Convey::Message& message, SoString* /*result*/) override {
        body_(message);
        return 0;
    }
    SoString getMsgType() const override { return type_.c_str(); }
    uint32_t getSerialNumber() const override { return serial_; }

private:
    const std::string type_;
    const uint32_t serial_;
    const Body body_;
};

struct Asked {
    std::string specifier;
    std::string answer;
    double milliseconds = 0;
};

Asked askOnce(const std::string& specifier, const PingOptions& options) {
    const auto start = steady_clock::now();
    Asked asked;
    asked.specifier = specifier;
    asked.answer = toStd(Convey::Thread::ping(specifier.c_str(),
                                              options.key.empty() ? nullptr : options.key.c_str(),
                                              options.timeoutSeconds, nullptr));
    asked.milliseconds =
        std::chrono::duration<double, std::milli>(steady_clock::now() - start).count();
    return asked;
}

std::string inMilliseconds(double time) {
    std::ostringstream text;
    text << std::fixed << std::setprecision(3) << time;
    return text.str();
}

void printAnswer(const Output& output, const Asked& asked) {
    const bool answered = !isNoAnswer(asked.answer);
    if (output.json) {
        Json json = {
            {"specifier", asked.specifier}, {"answered", answered}, {"answer", asked.answer}};
        if (answered) {
            json["milliseconds"] = asked.milliseconds;
        }
        output.print(json, true);
        return;
    }
    output.out << output.show(asked.specifier) << ": ";
    if (!answered) {
        output.out << output.show(asked.answer.empty() ? "no answer" : asked.answer, Style::bad)
                   << std::endl;
        return;
    }
    const bool hasLines = asked.answer.find('\n') != std::string::npos;
    output.out << (hasLines ? "" : output.show(asked.answer, Style::good) + " ")
               << "time=" << inMilliseconds(asked.milliseconds) << " ms\n";
    std::istringstream lines(hasLines ? asked.answer : "");
    for (std::string line; std::getline(lines, line);) {
        output.out << "  " << output.show(line) << '\n';
    }
    output.out.flush();
}

void printTimes(const Output& output, const std::string& name, size_t asked,
                std::vector<double> times) {
    std::sort(times.begin(), times.end());
    if (output.json) {
        Json json = {{"specifier", name}, {"asked", asked}, {"answers", times.size()}};
        if (!times.empty()) {
            json["minimum"] = times.front();
            json["median"] = times[times.size() / 2];
            json["maximum"] = times.back();
        }
        output.print(json, true);
        return;
    }
    output.out << "--- " << output.show(name) << ": " << asked << " asked, " << times.size()
               << " answered\n";
    if (!times.empty()) {
        output.out << "round trip min/median/max = " << inMilliseconds(times.front()) << "/"
                   << inMilliseconds(times[times.size() / 2]) << "/" << inMilliseconds(times.back())
                   << " ms\n";
    }
}

std::string bodyOf(const SendOptions& options) {
    if (options.body != "-") {
        return options.body;
    }
    return {std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>()};
}

// Watches what comes back for one message, and prints it.
class Replies {
public:
    Replies(const Output& output, const Convey::Message& message)
        : output_(output), target_(toStd(message.getTarget())) {}

    void watch(Convey& instance, uint32_t serial) {
        const struct {
            const char* type;
            bool ends;
            bool isGood;
        } kinds[] = {{"Received", false, true},
                     {"Result", false, true},
                     {"Error", true, false},
                     {"Timeout", true, false},
                     {"Processed", true, true}};
        for (const auto& kind : kinds) {
            delete instance.changeHandler(
                new Handler(kind.type, serial, [this, kind](const Convey::Message& reply) {
                    print(kind.type, kind.isGood, reply);
                    isGood_ = isGood_ && kind.isGood;
                    hasEnded_ = hasEnded_ || kind.ends;
                }));
        }
    }
    bool hasEnded() const { return hasEnded_; }
    bool isGood() const { return isGood_; }
    // What has happened without a reply.
    void note(const char* event, Style style) const {
        if (output_.json) {
            output_.print({{"event", event}, {"target", target_}}, true);
        } else {
            output_.out << output_.show(event, style) << std::endl;
        }
    }

private:
    void print(const char* type, bool isGood, const Convey::Message& reply) const {
        std::string event(type);
        event[0] = static_cast<char>(event[0] - 'A' + 'a');
        const std::string body = toStd(reply.getBody());
        if (output_.json) {
            Json json = {{"event", event}, {"target", target_}};
            if (!body.empty()) {
                json["body"] = body;
            }
            output_.print(json, true);
            return;
        }
        output_.out << output_.show(event, isGood ? Style::good : Style::bad);
        if (!body.empty()) {
            output_.out << ": " << output_.show(body);
        }
        output_.out << std::endl;
    }

    const Output& output_;
    const std::string target_;
    bool hasEnded_ = false;
    bool isGood_ = true;
};

void setHeaders(Convey::Message& message, const std::vector<std::string>& headers) {
    for (const std::string& header : headers) {
        const size_t equals = header.find('=');
        if (equals == 0 || equals == std::string::npos) {
            throw Failure(kUsage, "\"" + header + "\" is no NAME=VALUE");
        }
        message.setHeader(header.substr(0, equals).c_str(), header.substr(equals + 1).c_str());
    }
}

// The keys by which a process is asked to forward, and what a line calls them.
struct Watched {
    const char* key;
    const char* what;
};

// One forwarded message, taken from its rows.
struct Event {
    std::string root;
    std::string time;
    std::string serial;
    std::string event = "processed"; // unless a row says otherwise
    std::string type;
    std::string sender;
    std::string target;
    std::string size = "0 bytes";
    std::string text;
};

Event readEvent(const Convey::Message& forwarded) {
    Event event;
    event.root = toStd(forwarded.getUserHeaderValue("MsgRoot"));
    std::istringstream rows(toStd(forwarded.getBody()));
    bool isFirst = true;
    for (std::string row; std::getline(rows, row);) {
        SoString path;
        SoString label;
        SoString value;
        bool isHeading = false;
        if (!ScObjects::ConveyUtils::parseInfoLine(row.c_str(), path, label, value, isHeading)) {
            continue;
        }
        const std::string leaf(path.view().substr(path.view().rfind('/') + 1));
        const std::string name = toStd(label);
        if (isHeading && name.compare(0, 4, "msg[") == 0) {
            event.time = name.substr(4, name.size() - 5);
            (isFirst ? event.serial : event.event) = toStd(value);
            isFirst = false;
        } else if (leaf == "type") {
            event.type = toStd(value);
        } else if (leaf == "sender") {
            event.sender = toStd(value);
        } else if (leaf == "target") {
            event.target = toStd(value);
        } else if (leaf == "body" && isHeading) {
            event.size = toStd(value);
        } else if (leaf == "text") {
            event.text = toStd(value);
        }
    }
    return event;
}

void printEvent(const Output& output, const char* what, const Event& event) {
    if (output.json) {
        output.print({{"of", what},
                      {"time", event.time},
                      {"event", event.event},
                      {"root", event.root},
                      {"type", event.type},
                      {"sender", event.sender},
                      {"target", event.target},
                      {"serial", event.serial},
                      {"size", event.size},
                      {"text", event.text}},
                     true);
        return;
    }
    output.out << output.show(event.time, Style::dim) << "  "
               << output.show(event.event, Style::heading) << "  " << output.show(event.type)
               << "  " << output.show(event.sender) << " -> " << output.show(event.target) << "  #"
               << output.show(event.serial) << "  "
               << output.show(event.text.empty() ? event.size : event.text) << std::endl;
}

// Asks a process to forward, and takes that back at the end.
class Forwarding {
public:
    Forwarding(std::string target, std::string observer, const char* key)
        : target_(std::move(target)), observer_(std::move(observer)), key_(key) {
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

} // namespace

Exit ping(const Output& output, const PingOptions& options) {
    const Session session;
    std::vector<std::string> targets;
    const bool all = options.specifier == kAllApplications;
    for (int32_t i = 0; all && i < Convey::getNumberOfRegisteredApplications(); ++i) {
        const Convey::Specifier registered(Convey::getApplicationSpecifier(i).c_str(), false);
        if (registered.isRunning()) {
            targets.push_back(toStd(registered));
        }
    }
    if (!all) {
        targets.push_back(toStd(Convey::Specifier(options.specifier.c_str(), true)));
    }
    std::vector<double> times;
    size_t asked = 0;
    for (int i = 0; i < options.count && !Session::isEnding(); ++i) {
        if (i > 0) {
            Session::pumpFor(static_cast<int64_t>(1000 * options.intervalSeconds));
        }
        for (const std::string& target : targets) {
            const Asked answer = askOnce(target, options);
            ++asked;
            if (!isNoAnswer(answer.answer)) {
                times.push_back(answer.milliseconds);
            }
            printAnswer(output, answer);
        }
    }
    if (options.count > 1 || all) {
        printTimes(output, options.specifier, asked, times);
    }
    return times.empty() ? kNo : kDone;
}

Exit send(const Output& output, const SendOptions& options) {
    Session session;
    const Convey::Specifier target = completed(options.specifier);
    Convey::Message message;
    message.setTarget(target);
    message.setType(options.type.c_str());
    setHeaders(message, options.headers);
    message.setBody(SoString(bodyOf(options).c_str()));
    const bool isAsking = options.waitSeconds != 0;
    message.setResponseRequest(isAsking ? "Received Result Error Timeout Processed" : "");
    message.setTimeout(options.waitSeconds);
    const uint32_t serial = message.getNextSerialNumber(nullptr);
    message.setSerialNumber(serial);
    Replies replies(output, message);
    if (isAsking) {
        replies.watch(session.instance(), serial);
    }
    const bool delivered = session.instance().send(message, options.launch, 0, nullptr);
    // A target that was launched counts as running before it has opened anything.
    const bool queued = !delivered && options.launch && target.isRunning();
    replies.note(delivered ? "sent"
                 : queued  ? "queued"
                           : "not sent",
                 delivered || queued ? Style::plain : Style::bad);
    // A little more than the time-out, which is what tells that it is over.
    const auto end = steady_clock::now() + std::chrono::seconds(options.waitSeconds + 2);
    const auto isDone = [&] {
        return isAsking ? replies.hasEnded()
                        : !queued || !session.instance().outgoingMessagePending();
    };
    while (!isDone() && !Session::isEnding() && steady_clock::now() < end) {
        Session::pumpFor(20);
    }
    if (!isDone()) {
        replies.note(isAsking ? "no answer" : "still queued", Style::bad);
    }
    return isDone() && replies.isGood() && (delivered || queued) ? kDone : kNo;
}

Exit monitor(const Output& output, const MonitorOptions& options) {
    const Session session;
    const std::string target = toStd(completed(options.specifier));
    std::vector<Watched> watched;
    if (options.errors) {
        watched.push_back({"FWDERRORS", "errors"});
    }
    if (options.logs) {
        watched.push_back({"FWDLOGS", "logs"});
    }
    if (watched.empty()) {
        watched.push_back({"FWDMESSAGES", "messages"});
    }
    // Not with the main instance, whose own messages would be forwarded to the same handlers.
    Convey observer(("monitor" + session.name().substr(std::string("convey").size())).c_str(),
                    nullptr, false, nullptr);
    std::vector<std::unique_ptr<Forwarding>> forwardings;
    for (const Watched& kind : watched) {
        delete observer.changeHandler(
            new Handler(kind.key, kAnyNumber, [&output, kind](const Convey::Message& message) {
                printEvent(output, kind.what, readEvent(message));
            }));
        forwardings.push_back(
            std::make_unique<Forwarding>(target, toStd(observer.getAppName()), kind.key));
    }
    output.err << "convey: watching " << target << "; Ctrl-C ends it" << std::endl;
    while (!Session::isEnding()) {
        Session::pumpFor(kCheckMilliseconds);
        for (const auto& forwarding : forwardings) {
            if (!Session::isEnding() && !forwarding->isOurs()) {
                throw Failure(kNo, Convey::targetIsRunning(target.c_str())
                                       ? target + " forwards to somebody else now"
                                       : target + " has ended");
            }
        }
    }
    return kDone;
}

} // namespace convey_tool
