#include "tools/convey/Verdict.h"

#include <algorithm>
#include <cstdlib>

#include "platform/MessagePort.h"
#include "scriptobjects/convey/SoCVWords.h"

namespace convey_tool {
namespace {

// What is shorter is work.
constexpr int64_t kLongMilliseconds = 1000;
// What a send takes in a handler that runs for long, when its target is why: one after another.
constexpr int64_t kHeldUpMilliseconds = 100;
// A loop that has something to handle comes by at once.
constexpr int64_t kUnpumpedMilliseconds = 2000;
constexpr int64_t kUnsentSeconds = 2;

int64_t number(const std::string& text) {
    return std::strtoll(text.c_str(), nullptr, 10);
}

// The last step of a path.
std::string_view leafOf(const Node& node) {
    return std::string_view(node.path).substr(node.path.rfind('/') + 1);
}

const Node* childOf(const Node& node, std::string_view leaf) {
    const auto found = std::find_if(node.children.begin(), node.children.end(),
                                    [leaf](const Node& child) { return leafOf(child) == leaf; });
    return found == node.children.end() ? nullptr : &*found;
}

std::string valueOf(const Node& node, std::string_view leaf) {
    const Node* const child = childOf(node, leaf);
    return child == nullptr ? "" : child->value;
}

std::vector<Occupation> readOccupations(const Node& instance, std::string_view leaf) {
    std::vector<Occupation> occupations;
    if (const Node* const node = childOf(instance, leaf)) {
        for (const Node& child : node->children) {
            occupations.push_back({child.value, valueOf(child, "type"), valueOf(child, "sender"),
                                   valueOf(child, "target"), number(valueOf(child, "for"))});
        }
    }
    return occupations;
}

// Why it does not know who is installed; empty when it does.
std::string faultOfRegistry(const Node& rows) {
    const auto connector = std::find_if(rows.children.begin(), rows.children.end(),
                                        [](const Node& top) { return leafOf(top) == "connector"; });
    if (connector == rows.children.end()) {
        return "has no database of installed products";
    }
    return valueOf(*connector, "good") == "no" ? "its database of installed products is not read"
                                               : "";
}

size_t countMessages(const Node& instance, std::string_view leaf, std::string* firstTarget) {
    const Node* const queue = childOf(instance, leaf);
    size_t count = 0;
    for (const Node& child : queue == nullptr ? std::vector<Node>() : queue->children) {
        if (leafOf(child).substr(0, 3) == "msg" &&
            valueOf(child, "type") != ScObjects::ConveyData::CV_TYPE_WATCHER) {
            if (count++ == 0 && firstTarget != nullptr) {
                *firstTarget = valueOf(child, "target");
            }
        }
    }
    return count;
}

std::string counted(size_t count, const char* what) {
    return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

std::string described(const Occupation& message) {
    return (message.type.empty() || message.type == "undefined" ? "message" : message.type) + " " +
           message.serial;
}

std::string handlerOf(const Occupation& message) {
    return "its handler of " + described(message) + " from " + message.sender;
}

// "; 6 messages wait, the oldest 20 s"
std::string queued(const InstanceFacts& facts) {
    if (facts.incoming == 0) {
        return "";
    }
    return "; " + counted(facts.incoming, "message") + (facts.incoming == 1 ? " waits" : " wait") +
           ", the oldest " + forPeople(1000 * facts.oldestSeconds) +
           (facts.sendersWithoutRoom == 0
                ? ""
                : "; its queue is full for " + counted(facts.sendersWithoutRoom, "sender") +
                      ", who waits");
}

std::string placed(const Subject& subject) {
    return subject.place.empty() ? "" : ", in " + subject.place + " of the system";
}

// A chain of applications that wait for each other, followed from the one that is asked about.
class Judge {
public:
    explicit Judge(const std::function<Subject(const std::string&)>& look) : look_(look) {}

    Verdict of(const std::string& name) {
        chain_.push_back(name);
        const Subject subject = look_(name);
        if (subject.state == 'T' || subject.state == 't') {
            return {"stopped",
                    name + " is stopped: process " + std::to_string(subject.process) +
                        " does nothing until it is continued (SIGCONT).",
                    false};
        }
        if (subject.rows.empty()) {
            return silent(name, subject);
        }
        const Node rows = readTree(subject.rows);
        const auto instances = readInstances(rows);
        for (const InstanceFacts& facts : instances) {
            Verdict verdict;
            if (occupied(name, facts, verdict) || unpumped(name, subject, facts, verdict) ||
                unsent(name, facts, verdict)) {
                return verdict;
            }
        }
        if (const std::string reason = faultOfRegistry(rows); !reason.empty()) {
            return {"unregistered",
                    name + " is well, but " + reason +
                        ": it finds no application that it is not told of. ovrel-caps check looks "
                        "at the database, OVREL_CAPS_DB names another one.",
                    false};
        }
        const bool works = std::any_of(instances.begin(), instances.end(), [](const auto& facts) {
            return !facts.handling.empty() || !facts.waiting.empty() || facts.incoming != 0;
        });
        return {works ? "working" : "idle",
                name + (works ? " is at work and well." : " is idle and well."), true};
    }

private:
    static Verdict silent(const std::string& name, const Subject& subject) {
        if (!subject.elsewhere.empty()) {
            return {"elsewhere",
                    name + " runs as process " + std::to_string(subject.process) +
                        ", but has its ports in " + subject.elsewhere +
                        ", while this tool and who is started like it look in " +
                        platform::MessagePorts::system().place() +
                        ": start both with the same XDG_RUNTIME_DIR.",
                    false};
        }
        if (subject.hasDied) {
            return {"died",
                    name + " has died without ending the layer: what waited in its queue is lost. "
                           "convey launch starts it again, convey ports --clean removes what it "
                           "has left.",
                    false};
        }
        if (subject.process == 0) {
            return {"gone", name + " does not answer, and no process has its port.", false};
        }
        if (!subject.link.empty()) {
            return {"silent",
                    name + " does not answer: it is used at " + subject.link +
                        ", which gives no answer either. convey doctor says more.",
                    false};
        }
        return {"silent",
                name + " does not answer: not even the background thread of process " +
                    std::to_string(subject.process) + " does (state " + subject.state +
                    placed(subject) + ").",
                false};
    }

    bool occupied(const std::string& name, const InstanceFacts& facts, Verdict& verdict) {
        const auto isLong = [](const Occupation& one) {
            return one.milliseconds >= kLongMilliseconds;
        };
        auto waiting = std::find_if(facts.waiting.begin(), facts.waiting.end(), isLong);
        const auto handling = std::find_if(facts.handling.begin(), facts.handling.end(), isLong);
        // What began last is what the thread is at: a wait within a handler, however short, or a
        // handler of what came in during a wait.
        if (handling != facts.handling.end()) {
            const auto within = [&](const Occupation& one) {
                return one.milliseconds <= handling->milliseconds;
            };
            if (waiting == facts.waiting.end() || !within(*waiting)) {
                waiting = std::find_if(facts.waiting.begin(), facts.waiting.end(), within);
            }
        }
        // Only a target that takes nothing makes it long; then that is what the thread is at,
        // within a handler or not.
        const auto isHeldUp = [&](const Occupation& one) {
            return isLong(one) ||
                   (handling != facts.handling.end() && one.milliseconds >= kHeldUpMilliseconds);
        };
        const auto sending = std::find_if(facts.sending.begin(), facts.sending.end(), isHeldUp);
        if (sending != facts.sending.end() &&
            (waiting == facts.waiting.end() || sending->milliseconds <= waiting->milliseconds)) {
            verdict = sends(name, facts, *sending,
                            handling == facts.handling.end() ? nullptr : &*handling);
            return true;
        }
        if (waiting != facts.waiting.end()) {
            verdict = waits(name, facts, *waiting,
                            handling == facts.handling.end() ? nullptr : &*handling);
            return true;
        }
        if (handling != facts.handling.end()) {
            verdict = {"busy",
                       name + " is busy: " + forPeople(handling->milliseconds) + " in " +
                           handlerOf(*handling) + queued(facts) + ".",
                       false};
            return true;
        }
        return false;
    }

    Verdict waits(const std::string& name, const InstanceFacts& facts, const Occupation& waiting,
                  const Occupation* handling) {
        return follow("waiting", waiting.target,
                      name + " waits " + forPeople(waiting.milliseconds) + " for an answer of " +
                          waiting.target + " to " + described(waiting) +
                          (handling == nullptr ? "" : ", in " + handlerOf(*handling)) +
                          queued(facts) + ".");
    }

    Verdict sends(const std::string& name, const InstanceFacts& facts, const Occupation& sending,
                  const Occupation* handling) {
        return follow("unsent", sending.target,
                      name + " waits " + forPeople(sending.milliseconds) + " to hand over " +
                          described(sending) + " to " + sending.target + ", which takes nothing" +
                          (handling == nullptr ? "" : ", in " + handlerOf(*handling)) +
                          queued(facts) + ".");
    }

    // What keeps `target`, behind the sentence on who waits for it.
    Verdict follow(const char* word, const std::string& target, std::string sentence) {
        const auto met = std::find(chain_.begin(), chain_.end(), target);
        if (met != chain_.end()) {
            sentence += " They wait in a circle:";
            for (auto one = met; one != chain_.end(); ++one) {
                sentence += " " + *one + " for";
            }
            return {"circle", sentence + " " + target + ".", false};
        }
        const Verdict other = of(target);
        return {other.word == "circle" ? "circle" : word, sentence + " " + other.sentence, false};
    }

    static bool unpumped(const std::string& name, const Subject& subject,
                         const InstanceFacts& facts, Verdict& verdict) {
        if (facts.incoming == 0 || facts.oldestSeconds * 1000 < kUnpumpedMilliseconds ||
            (facts.pumpedMilliseconds >= 0 && facts.pumpedMilliseconds < kUnpumpedMilliseconds)) {
            return false;
        }
        const bool never = facts.pumpedMilliseconds < 0;
        verdict = {never ? "unpumped" : "stuck",
                   name +
                       (never ? " does not pump: no loop of it has handled a message yet"
                              : " does not pump: its main loop came by " +
                                    forPeople(facts.pumpedMilliseconds) + " ago and is stuck") +
                       placed(subject) + queued(facts) + ".",
                   false};
        return true;
    }

    bool unsent(const std::string& name, const InstanceFacts& facts, Verdict& verdict) {
        if (!facts.blocked.empty() && facts.blocked[0].milliseconds >= 1000 * kUnsentSeconds) {
            const Blocked& worst = facts.blocked[0];
            const bool isFull = worst.reason == "is full";
            verdict = {"unsent",
                       name + " cannot hand over " + counted(worst.messages, "message") + " to " +
                           worst.target + ", which " + (isFull ? "takes nothing" : worst.reason) +
                           ", for " + forPeople(worst.milliseconds) + queued(facts) + ".",
                       false};
            // Why it takes nothing is its own verdict, unless that has been said.
            if (isFull && std::find(chain_.begin(), chain_.end(), worst.target) == chain_.end()) {
                verdict.sentence += " " + of(worst.target).sentence;
            }
            return true;
        }
        if (facts.outgoing == 0 || facts.oldestOutSeconds < kUnsentSeconds) {
            return false;
        }
        verdict = {"unsent",
                   name + " cannot hand over " + counted(facts.outgoing, "message") +
                       ": the oldest has waited " + forPeople(1000 * facts.oldestOutSeconds) +
                       " for " + facts.outgoingTarget + ".",
                   false};
        return true;
    }

    const std::function<Subject(const std::string&)>& look_;
    std::vector<std::string> chain_;
};

} // namespace

std::vector<InstanceFacts> readInstances(const Node& rows) {
    std::vector<InstanceFacts> all;
    for (const Node& top : rows.children) {
        if (leafOf(top) != "instances") {
            continue;
        }
        for (const Node& instance : top.children) {
            InstanceFacts facts;
            facts.name = instance.value;
            facts.handling = readOccupations(instance, "handling");
            facts.waiting = readOccupations(instance, "waiting");
            facts.sending = readOccupations(instance, "sending");
            if (const Node* const blocked = childOf(instance, "blocked")) {
                for (const Node& one : blocked->children) {
                    facts.blocked.push_back({one.value, number(valueOf(one, "for")),
                                             static_cast<size_t>(number(valueOf(one, "messages"))),
                                             valueOf(one, "reason")});
                }
            }
            facts.incoming = countMessages(instance, "in", nullptr);
            facts.outgoing = countMessages(instance, "out", &facts.outgoingTarget);
            facts.incomingBytes = number(valueOf(instance, "inbytes"));
            facts.sendersWithoutRoom = static_cast<size_t>(number(valueOf(instance, "full")));
            facts.oldestSeconds = number(valueOf(instance, "oldestin"));
            facts.oldestOutSeconds = number(valueOf(instance, "oldestout"));
            const std::string pumped = valueOf(instance, "pumped");
            if (!pumped.empty() && pumped != "undefined") {
                facts.pumpedMilliseconds = number(pumped);
            }
            all.push_back(std::move(facts));
        }
    }
    return all;
}

Verdict judge(const std::string& name, const std::function<Subject(const std::string&)>& look) {
    return Judge(look).of(name);
}

std::string forPeople(int64_t milliseconds) {
    const int64_t seconds = milliseconds / 1000;
    if (seconds < 1) {
        return std::to_string(milliseconds) + " ms";
    }
    if (seconds < 60) {
        return std::to_string(seconds) + " s";
    }
    if (seconds < 3600) {
        return std::to_string(seconds / 60) + " min " + std::to_string(seconds % 60) + " s";
    }
    return std::to_string(seconds / 3600) + " h " + std::to_string(seconds / 60 % 60) + " min";
}

} // namespace convey_tool
