#pragma once

#include <iosfwd>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <vector>

namespace convey_tool {

using Json = nlohmann::ordered_json;

// What the tool's exit status says.
enum Exit : int {
    kDone = 0,    // done, or the answer is yes
    kNo = 1,      // the answer is no: it does not run, reports an error, does not answer in time
    kUsage = 2,   // the command line is not understood
    kNoLayer = 3, // the layer or what it needs cannot be used, or the answer cannot be written
};

// A command that cannot be carried out; `what` is for the person. `details`: what else the JSON
// document says.
class Failure : public std::runtime_error {
public:
    Failure(Exit exit, const std::string& text, Json more = Json::object())
        : std::runtime_error(text), status(exit), details(std::move(more)) {}
    const Exit status;
    const Json details;
};

enum class Style { plain, heading, good, bad, dim };

// Where results and problems go, and what the person at the terminal can be shown.
struct Output {
    std::ostream& out;
    std::ostream& err;
    bool json = false;
    bool quiet = false;      // nothing but what fails: the exit status is the answer
    bool legend = true;      // headings of tables, and what is said below them
    bool isTerminal = false; // JSON is indented for people only
    bool colour = false;     // only on a terminal
    int columns = 0;         // of the terminal, 0 for none: nothing is cut

    // The text with control characters replaced (what another process or a database says must not
    // steer the terminal) and in a style.
    std::string show(const std::string& text, Style style = Style::plain) const;
    // A text whose first line begins in column `indent`, and the others under it, broken between
    // words where the terminal ends.
    void paragraph(const std::string& text, size_t indent, Style style = Style::plain) const;
    // The one document that a command prints; `inOneLine`: one of a stream that has no end.
    void print(const Json& json, bool inOneLine = false) const;
    // Whether anything was printed so.
    static bool hasPrinted();
    // For the person who waits, to standard error.
    void note(const std::string& text) const;
};

// The output of this process.
Output standardOutput(std::ostream& out, std::ostream& err);

// Rows in columns, two blanks between them. What does not fit the terminal is cut, from the widest
// columns first, so that every column stays to be seen.
class Table {
public:
    explicit Table(std::vector<std::string> headings) : rows_{std::move(headings)} {}
    void add(std::vector<std::string> row) { rows_.push_back(std::move(row)); }
    void print(const Output& output) const;

private:
    std::vector<std::vector<std::string>> rows_;
};

} // namespace convey_tool
