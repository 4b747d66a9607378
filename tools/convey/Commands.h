#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "scriptobjects/convey/SoCVWords.h"
#include "tools/convey/Output.h"

// The commands of the tool. Each starts the layer, does one thing and gives the exit status; throws
// Failure, with what to tell the person.
namespace convey_tool {

struct ListOptions {
    bool running = false; // only those that run
    bool names = false;   // nothing but the specifiers
};
Exit list(const Output& output, const ListOptions& options);

Exit resolve(const Output& output, const std::string& specifier);

struct PingOptions {
    std::string specifier;
    std::string key;
    int32_t timeoutSeconds = 2;
    int count = 1;
    double intervalSeconds = 1;
};
Exit ping(const Output& output, const PingOptions& options);

struct SendOptions {
    std::string specifier;
    std::string type = ScObjects::ConveyData::CV_TYPE_PLAIN;
    std::vector<std::string> headers; // NAME=VALUE
    std::string body;                 // "-": what standard input gives
    bool hasBody = false;
    uint32_t waitSeconds = 10; // 0: no reply is asked for
    bool launch = false;
};
Exit send(const Output& output, const SendOptions& options);

struct LaunchOptions {
    std::string specifier;
    std::string parameters;
    bool behind = false;
    uint32_t waitSeconds = 15; // for the target to take its parameters
};
Exit launch(const Output& output, const LaunchOptions& options);

Exit front(const Output& output, const std::string& specifier);

struct WaitOptions {
    std::string specifier;
    bool untilRunning = true;
    double timeoutSeconds = 30;
};
Exit wait(const Output& output, const WaitOptions& options);

struct DiagnoseOptions {
    std::string specifier; // empty: the tool itself
    bool raw = false;
    bool watch = false;
    std::string htmlFile;
    bool whole = false; // texts are not cut
    std::string path;   // what the shown rows begin with, below the application's name
    int32_t timeoutSeconds = 5;
};
Exit diagnose(const Output& output, const DiagnoseOptions& options);

struct DoctorOptions {
    std::vector<std::string> specifiers; // empty: all that run
    int32_t timeoutSeconds = 5;
};
// Applications, and the installation.
Exit doctor(const Output& output, const DoctorOptions& options);

struct MonitorOptions {
    std::vector<std::string> specifiers;
    bool all = false;
    bool errors = false;
    bool logs = false;
    std::vector<std::string> match; // FIELD=PATTERN,...
    bool headers = false;
    bool bodies = false;
    uint64_t count = 0;        // 0: without end
    double timeoutSeconds = 0; // 0: without end
    std::string captureFile;
};
Exit monitor(const Output& output, const MonitorOptions& options);

struct ReportOptions {
    std::string file;     // what `monitor --capture` has written
    std::string htmlFile; // empty: the file's name with .html
};
Exit report(const Output& output, const ReportOptions& options);

struct TopOptions {
    double intervalSeconds = 1;
    std::string sortBy = "processor";
};
// What `sortBy` may be; the first letter of each is its key.
std::vector<std::string> topKeys();
Exit top(const Output& output, const TopOptions& options);

struct KeyOptions {
    std::string specifier;
    std::string name;
    std::string value;
    bool hasValue = false;
    bool watch = false;
    double intervalSeconds = 1;
    int32_t timeoutSeconds = 5;
};
Exit keys(const Output& output, const KeyOptions& options);
Exit key(const Output& output, const KeyOptions& options);

struct PortsOptions {
    bool clean = false;
};
Exit ports(const Output& output, const PortsOptions& options);

Exit limits(const Output& output);

} // namespace convey_tool
