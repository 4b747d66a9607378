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
    kNo = 1,      // the answer is no: it does not run, reports an error, does not answer in time;
                  // or it could not be written
    kUsage = 2,   // the command line is not understood
    kNoLayer = 3, // the layer or what it needs cannot be used
};

// A command that cannot be carried out; `what` is for the person.
class Failure : public std::runtime_error {
public:
    Failure(Exit exit, const std::string& text) : std::runtime_error(text), status(exit) {}
    const Exit status;
};

enum class Style { plain, heading, good, bad, dim };

// Where results and problems go, and what the person at the terminal can be shown.
struct Output {
    std::ostream& out;
    std::ostream& err;
    bool json = false;
    bool colour = false; // only on a terminal
    int columns = 0;     // of the terminal, 0 for none: nothing is cut

    // The text with control characters replaced (what another process or a database says must not
    // steer the terminal) and in a style.
    std::string show(const std::string& text, Style style = Style::plain) const;
    void print(const Json& json, bool inOneLine = false) const;
};

// The output of this process.
Output standardOutput(std::ostream& out, std::ostream& err);

// Rows in columns, two blanks between them; the last one is cut to fit the terminal.
class Table {
public:
    explicit Table(std::vector<std::string> headings) : rows_{std::move(headings)} {}
    void add(std::vector<std::string> row) { rows_.push_back(std::move(row)); }
    void print(const Output& output) const;

private:
    std::vector<std::vector<std::string>> rows_;
};

} // namespace convey_tool
