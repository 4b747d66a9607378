// The applications that run, as a live table.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <clocale>
#include <cstdlib>
#include <curses.h>
#include <deque>
#include <iomanip>
#include <map>
#include <memory>
#include <mutex>
#include <ostream>
#include <poll.h>
#include <sstream>
#include <thread>
#include <unistd.h>
#include <utility>

#include "tools/convey/Asking.h"
#include "tools/convey/Commands.h"
#include "tools/convey/Look.h"
#include "tools/convey/Model.h"
#include "tools/convey/Session.h"
#include "tools/convey/Tree.h"
#include "tools/convey/Verdict.h"

// A macro of curses that is a word everywhere else.
#undef timeout

namespace convey_tool {

using ScObjects::Convey;
using ScObjects::ConveyThread;
using std::chrono::steady_clock;

namespace {

constexpr int32_t kAnswerSeconds = 1; // an application that hangs must not hold the others' rows
constexpr size_t kAnswers = 15;       // that the median is of
constexpr int kKeyMilliseconds = 50;  // how soon the wish to end is seen

struct Line {
    std::string specifier;
    uint32_t process = 0;
    std::string program;
    std::string state;
    bool isHealthy = false;
    int64_t in = -1; // messages that wait; -1: not known, as below
    int64_t out = -1;
    double inPerSecond = -1;
    double outPerSecond = -1;
    double milliseconds = -1; // median of the last answers
    double processor = -1;    // per cent of one
    uint64_t memoryBytes = 0;
};

// What is remembered of an application between two looks.
struct History {
    std::deque<double> answers;
    int64_t sent = -1;
    int64_t received = -1;
    double seconds = -1;
    steady_clock::time_point at;
};

int64_t sumOf(const Node& node, const std::string& label) {
    int64_t sum = -1;
    for (const Node& child : node.children) {
        const int64_t below = child.label == label ? std::strtoll(child.value.c_str(), nullptr, 10)
                                                   : sumOf(child, label);
        sum = below < 0 ? sum : std::max<int64_t>(sum, 0) + below;
    }
    return sum;
}

class Watch {
public:
    // One look at every application, all at once: those that do not answer cost a second together.
    std::vector<Line> look(const std::string& own) {
        struct One {
            std::string name;
            uint32_t process;
            History* history; // stays where it is
        };
        std::vector<One> all;
        const std::map<std::string, uint32_t> owners = portOwners();
        for (int32_t i = 0; i < Convey::getNumberOfRegisteredApplications(); ++i) {
            const std::string name = toStd(Convey::getApplicationSpecifier(i));
            const auto owner = owners.find(name + "#thread");
            if (owner != owners.end() && name != own) {
                all.push_back({name, owner->second, &histories_[name]});
            }
        }
        std::vector<Line> lines(all.size());
        allAtOnce(all.size(), [&](size_t i) {
            lines[i] = lookAtOne(all[i].name, all[i].process, *all[i].history);
        });
        std::erase_if(lines, [](const Line& line) { return line.process == 0; }); // it ends
        return lines;
    }

private:
    static double perSecond(int64_t& before, int64_t now, double seconds) {
        // Counters that went back are those of a new process.
        const double rate = before < 0 || now < before || seconds <= 0
                                ? -1
                                : static_cast<double>(now - before) / seconds;
        before = now;
        return rate;
    }

    static Line lookAtOne(const std::string& name, uint32_t process, History& history) {
        Line line;
        line.specifier = name;
        line.process = process;
        const ProcessFacts facts = lookAt(process);
        line.program = facts.program.substr(facts.program.rfind('/') + 1);
        line.memoryBytes = facts.memoryBytes;
        const auto now = steady_clock::now();
        const double passed = std::chrono::duration<double>(now - history.at).count();
        // Less than before is another process under the same name.
        if (history.seconds >= 0 && facts.seconds >= history.seconds) {
            line.processor = 100 * (facts.seconds - history.seconds) / passed;
        }
        history.seconds = facts.seconds;
        history.at = now;
        if (facts.state == 'T') { // it would not answer
            line.state = "stopped";
            return line;
        }
        const auto start = steady_clock::now();
        const std::string status = toStd(
            Convey::Thread::ping(name.c_str(), ConveyThread::CV_STATUS, kAnswerSeconds, nullptr));
        if (isNoAnswer(status)) {
            line.state = "silent";
            return line;
        }
        history.answers.push_back(
            std::chrono::duration<double, std::milli>(steady_clock::now() - start).count());
        if (history.answers.size() > kAnswers) {
            history.answers.pop_front();
        }
        std::vector<double> sorted(history.answers.begin(), history.answers.end());
        std::nth_element(sorted.begin(), sorted.begin() + static_cast<long>(sorted.size() / 2),
                         sorted.end());
        line.milliseconds = sorted[sorted.size() / 2];
        const std::string rows = toStd(Convey::Thread::ping(
            name.c_str(), ConveyThread::CV_DIAGNOSTICS, kAnswerSeconds, nullptr));
        const Node root = readTree(rows);
        line.in = sumOf(root, "Incoming");
        line.out = sumOf(root, "Outgoing");
        line.inPerSecond = perSecond(history.received, sumOf(root, "Messages in"), passed);
        line.outPerSecond = perSecond(history.sent, sumOf(root, "Messages out"), passed);
        // Of its own: whom it waits for has a line, too.
        const Verdict verdict = judge(name, [&](const std::string& other) {
            Subject subject;
            subject.process = process;
            subject.state = facts.state;
            subject.rows = other == name ? rows : "";
            return subject;
        });
        line.state = verdict.word;
        line.isHealthy = verdict.isHealthy;
        return line;
    }

    std::map<std::string, History> histories_;
};

// With fewer decimals where the column has no room for them.
std::string number(double value, int decimals, int room = 0) {
    if (value < 0) {
        return "-";
    }
    std::ostringstream text;
    text << std::fixed << std::setprecision(decimals) << value;
    return room != 0 && decimals != 0 && text.str().size() > static_cast<size_t>(room)
               ? number(value, decimals - 1, room)
               : text.str();
}

void sortBy(std::vector<Line>& lines, char key) {
    std::sort(lines.begin(), lines.end(), [key](const Line& a, const Line& b) {
        switch (key) {
        case 'p':
            return a.processor > b.processor;
        case 'm':
            return a.memoryBytes > b.memoryBytes;
        case 'w':
            return a.in + a.out > b.in + b.out;
        case 'a':
            return a.milliseconds > b.milliseconds;
        default:
            return a.specifier < b.specifier;
        }
    });
}

struct Column {
    const char* heading;
    int width; // negative: to the left
};
// With a blank before each they leave 15 of 80 columns to the names: most of these are no longer.
constexpr Column kColumns[] = {{"PROCESS", 7}, {"STATE", -9}, {"IN", 5},   {"OUT", 5}, {"IN/s", 6},
                               {"OUT/s", 6},   {"ANSWER", 7}, {"CPU%", 5}, {"MB", 6}};
constexpr int kWithPrograms = 100; // columns from which there is room for these, too
constexpr int kProgramWidth = 18;

std::vector<std::string> cells(const Line& line) {
    return {std::to_string(line.process),
            line.state,
            number(static_cast<double>(line.in), 0),
            number(static_cast<double>(line.out), 0),
            number(line.inPerSecond, 1, kColumns[4].width),
            number(line.outPerSecond, 1, kColumns[5].width),
            number(line.milliseconds, 2, kColumns[6].width),
            number(line.processor, 1, kColumns[7].width),
            number(static_cast<double>(line.memoryBytes) / (1 << 20), 1, kColumns[8].width)};
}

// A "+" stands for what is cut off.
std::string padded(const std::string& text, int width) {
    const auto room = static_cast<size_t>(std::abs(width));
    if (text.size() > room) {
        return text.substr(0, room - 1) + "+";
    }
    const std::string blanks(room - text.size(), ' ');
    return width < 0 ? text + blanks : blanks + text;
}

// The terminal while it shows the table; given back with the object, or with the process when that
// ends in another thread. One at a time.
class Screen {
public:
    // Whether the terminal can show it.
    static bool isPossible() {
        // NOLINTNEXTLINE(concurrency-mt-unsafe): before others run; else names show as bytes
        (void)std::setlocale(LC_ALL, "");
        return isatty(STDIN_FILENO) != 0 && newterm(nullptr, stdout, stdin) != nullptr;
    }

    // Behind `isPossible`.
    explicit Screen(bool colour) {
        (void)std::atexit(giveBack);
        (void)cbreak();
        (void)noecho();
        (void)curs_set(0);
        (void)keypad(stdscr, TRUE);
        (void)nodelay(stdscr, TRUE);
        if (colour && has_colors()) {
            (void)start_color();
            (void)use_default_colors();
            (void)init_pair(1, COLOR_RED, -1);
            hasColour_ = true;
        }
    }
    ~Screen() { giveBack(); }
    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;

    // Waits a moment for it; ERR without one. A new size of the terminal is a key, too.
    static int key() {
        pollfd keys{STDIN_FILENO, POLLIN, 0};
        (void)poll(&keys, 1, kKeyMilliseconds);
        const std::lock_guard<std::mutex> guard(gMutex);
        return isendwin() ? ERR : getch();
    }

    void draw(const Output& output, const std::vector<Line>& lines,
              const std::string& order) const {
        const std::lock_guard<std::mutex> guard(gMutex);
        if (isendwin()) {
            return;
        }
        (void)erase();
        const int names = nameWidth(lines);
        std::string heading = padded("APPLICATION", -names);
        for (const Column& column : kColumns) {
            heading += " " + padded(column.heading, column.width);
        }
        put(0, std::to_string(lines.size()) + " run, by " + order + "; n p m w a sort, q ends",
            A_NORMAL);
        put(1, heading + (COLS < kWithPrograms ? "" : "  PROGRAM"), A_BOLD);
        for (size_t i = 0; i < lines.size(); ++i) {
            std::string row = padded(output.show(lines[i].specifier), -names);
            const std::vector<std::string> values = cells(lines[i]);
            for (size_t k = 0; k < values.size(); ++k) {
                row += " " + padded(values[k], kColumns[k].width);
            }
            if (COLS >= kWithPrograms) {
                row += "  " + output.show(lines[i].program);
            }
            const chtype look = lines[i].isHealthy ? A_NORMAL
                                : hasColour_       ? static_cast<chtype>(COLOR_PAIR(1))
                                                   : A_REVERSE;
            put(static_cast<int>(i) + 2, row, static_cast<int>(look));
        }
        (void)refresh();
    }

private:
    static void giveBack() {
        const std::lock_guard<std::mutex> guard(gMutex);
        if (!isendwin()) {
            (void)endwin();
        }
    }
    static int nameWidth(const std::vector<Line>& lines) {
        size_t longest = 15; // so that the columns stay where they are as a rule
        for (const Line& line : lines) {
            longest = std::max(longest, line.specifier.size());
        }
        int used = 0;
        for (const Column& column : kColumns) {
            used += std::abs(column.width) + 1;
        }
        return std::clamp(COLS - used - (COLS < kWithPrograms ? 0 : kProgramWidth), 8,
                          static_cast<int>(longest));
    }
    static void put(int y, const std::string& text, int attributes) {
        if (y < LINES) {
            (void)attrset(attributes);
            (void)mvaddnstr(y, 0, text.c_str(), COLS);
        }
    }
    static inline std::mutex gMutex; // nothing draws once the terminal is given back
    bool hasColour_ = false;
};

// Looks again and again on a thread of its own, so that a key is answered while it asks.
struct Shared {
    std::mutex mutex;
    std::vector<Line> lines;
    std::unique_ptr<Session> session;
};

void show(const Output& output, const TopOptions& options, std::unique_ptr<Session> session) {
    static auto* const shared = new Shared; // the thread may be asking when the process ends
    const std::string own = session->name();
    shared->session = std::move(session);
    std::thread([own, seconds = options.intervalSeconds] {
        Watch watch;
        for (;;) {
            std::vector<Line> lines = watch.look(own);
            {
                const std::lock_guard<std::mutex> guard(shared->mutex);
                shared->lines = std::move(lines);
            }
            std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
        }
    }).detach();
    std::string order = options.sortBy;
    const Screen screen(output.colour);
    while (!Session::isEnding()) {
        std::vector<Line> lines;
        {
            const std::lock_guard<std::mutex> guard(shared->mutex);
            lines = shared->lines;
        }
        sortBy(lines, order.front());
        screen.draw(output, lines, order);
        const int key = Screen::key();
        if (key == 'q') {
            return;
        }
        for (const std::string& each : topKeys()) {
            order = key == each.front() ? each : order;
        }
    }
}

} // namespace

std::vector<std::string> topKeys() {
    return {"name", "processor", "memory", "waiting", "answer"};
}

Exit top(const Output& output, const TopOptions& options) {
    auto session = std::make_unique<Session>();
    requireRegistry();
    if (output.isTerminal && !output.json && Screen::isPossible()) {
        show(output, options, std::move(session));
        return kDone;
    }
    Watch watch;
    std::vector<Line> lines = watch.look(session->name());
    Session::pumpFor(static_cast<int64_t>(1000 * options.intervalSeconds)); // rates need two looks
    lines = watch.look(session->name());
    sortBy(lines, options.sortBy.front());
    if (output.json) {
        Json json = Json::array();
        const auto orNull = [](double value) { return value < 0 ? Json() : Json(value); };
        for (const Line& line : lines) {
            json.push_back({{"specifier", line.specifier},
                            {"process", line.process},
                            {"program", line.program},
                            {"state", line.state},
                            {"incoming", line.in < 0 ? Json() : Json(line.in)},
                            {"outgoing", line.out < 0 ? Json() : Json(line.out)},
                            {"inPerSecond", orNull(line.inPerSecond)},
                            {"outPerSecond", orNull(line.outPerSecond)},
                            {"answerMilliseconds", orNull(line.milliseconds)},
                            {"processorPercent", orNull(line.processor)},
                            {"memoryBytes", line.memoryBytes}});
        }
        output.print(json);
        return kDone;
    }
    Table table(
        {"APPLICATION", "PROCESS", "STATE", "IN", "OUT", "IN/s", "OUT/s", "ANSWER", "CPU%", "MB"});
    for (const Line& line : lines) {
        std::vector<std::string> row = cells(line);
        row.insert(row.begin(), line.specifier);
        table.add(row);
    }
    table.print(output);
    return kDone;
}

} // namespace convey_tool
