#pragma once

#include <functional>
#include <sstream>
#include <string>

// What a page shows of a shell: each command of the first block that begins with "$ " and more, and
// the lines below it. How many there are.
inline int eachCommand(
    const std::string& page, const std::string& more,
    const std::function<void(const std::string& command, const std::string& shown)>& check) {
    const size_t start = page.find("```\n$ " + more) + 4;
    std::istringstream session(page.substr(start, page.find("```\n", start) - start));
    std::string command;
    std::string shown;
    int commands = 0;
    for (bool goesOn = true; goesOn;) {
        std::string line;
        goesOn = static_cast<bool>(std::getline(session, line));
        if (goesOn && !line.starts_with("$ ")) {
            shown += line + "\n";
            continue;
        }
        if (!command.empty()) {
            ++commands;
            check(command, shown);
        }
        command = goesOn ? line.substr(2) : "";
        shown.clear();
    }
    return commands;
}
