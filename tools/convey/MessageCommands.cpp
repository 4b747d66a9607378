// What asks other applications and sends them messages.
#include <algorithm>
#include <cctype>
#include <chrono>
#include <iomanip>
#include <iostream>
#include <iterator>
#include <sstream>
#include <unistd.h>

#include "scriptobjects/convey/SoCVMessage.h"
#include "scriptobjects/convey/SoCVWords.h"
#include "tools/convey/Asking.h"
#include "tools/convey/Commands.h"
#include "tools/convey/Session.h"

namespace convey_tool {

using ScObjects::Convey;
using ScObjects::SoString;
using std::chrono::steady_clock;

namespace {

constexpr const char* kAllApplications = "allRunningApps";

std::string indented(const Output& output, const std::string& text) {
    std::string shown;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        shown += "  " + output.show(line) + "\n";
    }
    return shown;
}

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

Json asJson(const Asked& asked) {
    const bool answered = !isNoAnswer(asked.answer);
    Json json = {{"specifier", asked.specifier}, {"answered", answered}, {"answer", asked.answer}};
    if (answered) {
        json["milliseconds"] = asked.milliseconds;
    }
    return json;
}

void printAnswer(const Output& output, const Asked& asked) {
    output.out << output.show(asked.specifier) << ": ";
    if (isNoAnswer(asked.answer)) {
        output.out << output.show(asked.answer, Style::bad) << std::endl;
        return;
    }
    const bool hasLines = asked.answer.find('\n') != std::string::npos;
    output.out << (hasLines               ? ""
                   : asked.answer.empty() ? output.show("(empty)", Style::dim) + " "
                                          : output.show(asked.answer, Style::good) + " ")
               << "time=" << inMilliseconds(asked.milliseconds) << " ms\n"
               << (hasLines ? indented(output, asked.answer) : "") << std::flush;
}

void printTimes(const Output& output, const std::string& name, size_t asked,
                const std::vector<double>& times) {
    output.out << "--- " << output.show(name) << ": " << asked << " asked, " << times.size()
               << " answered\n";
    if (!times.empty()) {
        output.out << "round trip min/median/max = " << inMilliseconds(times.front()) << "/"
                   << inMilliseconds(times[times.size() / 2]) << "/" << inMilliseconds(times.back())
                   << " ms\n";
    }
}

std::string bodyOf(const Output& output, const SendOptions& options) {
    if (!options.hasBody) {
        throw Failure(kUsage, "the body is missing: --body TEXT, or --body - for standard input");
    }
    if (options.body != "-") {
        return options.body;
    }
    if (isatty(STDIN_FILENO) != 0) {
        output.note("the body is what you type; Ctrl-D ends it");
    }
    return {std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>()};
}

// Watches what comes back for one message, and shows it.
class Replies {
public:
    explicit Replies(const Output& output) : output_(output) {}

    void watch(Convey& instance, uint32_t serial, const std::string& type) {
        using namespace ScObjects::ConveyData;
        const struct {
            const char* type;
            bool ends;
            bool isGood;
        } kinds[] = {{CV_TYPE_RECEIVED, false, true},
                     {CV_TYPE_RESULT, false, true},
                     {CV_TYPE_ERROR, true, false},
                     {CV_TYPE_TIMEOUT, true, false},
                     {CV_TYPE_PROCESSED, true, true}};
        for (const auto& kind : kinds) {
            // Replies to a message of a user's type carry that behind their own.
            for (const std::string& name : {std::string(kind.type), kind.type + type}) {
                delete instance.changeHandler(
                    new Handler(name, serial, [this, kind](const Convey::Message& reply) {
                        add(kind.type, kind.isGood, toStd(reply.getBody()));
                        isGood_ = isGood_ && kind.isGood;
                        hasEnded_ = hasEnded_ || kind.ends;
                    }));
            }
        }
    }
    bool hasEnded() const { return hasEnded_; }
    bool isGood() const { return isGood_; }
    const Json& events() const { return events_; }

    // What has happened, and the text that belongs to it.
    void add(const char* type, bool isGood, const std::string& body = "") {
        std::string event(type);
        event[0] = static_cast<char>(std::tolower(event[0]));
        events_.push_back({{"event", event}});
        if (!body.empty()) {
            events_.back()["body"] = body;
        }
        if (output_.json) {
            return;
        }
        const bool hasLines = body.find('\n') != std::string::npos;
        output_.out << output_.show(event, isGood ? Style::good : Style::bad)
                    << (body.empty() ? "\n"
                        : hasLines   ? ":\n" + indented(output_, body)
                                     : ": " + output_.show(body) + "\n")
                    << std::flush;
    }

private:
    const Output& output_;
    Json events_ = Json::array();
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

} // namespace

Exit ping(const Output& output, const PingOptions& options) {
    const Session session;
    std::vector<std::string> targets;
    if (options.specifier == kAllApplications) {
        requireRegistry();
    }
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
    Json answers = Json::array();
    for (int i = 0; i < options.count && !Session::isEnding(); ++i) {
        if (i > 0) {
            Session::pumpFor(static_cast<int64_t>(1000 * options.intervalSeconds));
        }
        for (const std::string& target : targets) {
            if (Session::isEnding()) {
                break;
            }
            const Asked answer = askOnce(target, options);
            answers.push_back(asJson(answer));
            if (!isNoAnswer(answer.answer)) {
                times.push_back(answer.milliseconds);
            }
            if (!output.json) {
                printAnswer(output, answer);
            }
        }
    }
    const bool isOne = options.count == 1 && !all && answers.size() == 1;
    const size_t asked = answers.size();
    std::sort(times.begin(), times.end());
    if (output.json) {
        Json json = {{"specifier", options.specifier},
                     {"asked", asked},
                     {"answered", times.size()},
                     {"answers", answers}};
        if (!times.empty()) {
            json["minimum"] = times.front();
            json["median"] = times[times.size() / 2];
            json["maximum"] = times.back();
        }
        output.print(isOne ? answers[0] : json);
    } else if (!isOne && output.legend) {
        printTimes(output, options.specifier, asked, times);
    }
    return times.empty() ? kNo : kDone;
}

Exit send(const Output& output, const SendOptions& options) {
    const std::string body = bodyOf(output, options);
    Session session;
    const Convey::Specifier target = known(options.specifier);
    const bool ran = target.isRunning();
    if (!ran && !options.launch) {
        throw Failure(kNo, toStd(target) + " does not run; --launch launches it");
    }
    Convey::Message message;
    message.setTarget(target);
    message.setType(options.type.c_str());
    setHeaders(message, options.headers);
    message.setBody(SoString(body));
    const bool isAsking = options.waitSeconds != 0;
    message.setResponseRequest(isAsking ? "Received Result Error Timeout Processed" : "");
    message.setTimeout(options.waitSeconds);
    // Taken beforehand: the handlers of the replies go by it, and stand before the message is sent.
    const uint32_t serial = message.getNextSerialNumber(nullptr);
    message.setSerialNumber(serial);
    Replies replies(output);
    if (isAsking) {
        replies.watch(session.instance(), serial, options.type);
    }
    const bool delivered = session.instance().send(message, options.launch, 0, nullptr);
    // A target that was launched counts as running before it has opened anything.
    const bool queued = !delivered && options.launch && target.isRunning();
    replies.add(delivered ? "sent" : queued ? "queued" : "not sent", delivered || queued);
    // A little more than the time-out, which is what tells that it is over.
    const auto end = steady_clock::now() + std::chrono::seconds(options.waitSeconds + 2);
    const auto isDone = [&] {
        return isAsking ? replies.hasEnded()
                        : !queued || !session.instance().outgoingMessagePending();
    };
    // Also when nobody reads any more: the result is the status, too.
    while (!isDone() && !Ending::isInterrupted() && steady_clock::now() < end) {
        (void)Convey::pumpOrWait(20);
    }
    if (!isDone()) {
        replies.add(isAsking ? "no answer" : "still queued", false);
    }
    const bool isGood = isDone() && replies.isGood() && (delivered || queued);
    if (output.json) {
        output.print({{"target", toStd(target)},
                      {"type", options.type},
                      {"serial", serial},
                      {"done", isGood},
                      {"events", replies.events()}});
    }
    return isGood ? kDone : kNo;
}

} // namespace convey_tool
