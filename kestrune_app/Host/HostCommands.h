// The `kestrune` command line: serving agents, answering confirmations, and
// the user's agent-access controls.
//
// Exit statuses: 0 success; 1 a failure (an unusable data directory, an
// unknown harness or workflow, an import that cannot be read, serve unable
// to start); 64 a usage error (unknown command or option, a missing or bad
// argument).
#pragma once

#include <atomic>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace kestrune::HostCommands {

const std::string& usage();

struct Environment {
    std::filesystem::path home;
    std::filesystem::path demoMessages;       // the bundled demonstration messages
    const std::atomic<bool>* stop = nullptr;  // set to end `serve`
    int input = -1;                           // a terminal `serve` reads typed answers from, or -1
    std::function<void(const std::string&)> out;  // one line, the line feed added
    std::function<void(const std::string&)> err;
    // Bytes to standard output as they are (progress redrawn in place, raw
    // messages); unset, they go to `out` a line at a time.
    std::function<void(std::string_view)> write;
    bool outIsTerminal = false;  // standard output is a terminal
    std::size_t columns = 0;     // its width, 0 when unknown
};

// `args` are the arguments without the program name.
int run(const std::vector<std::string>& args, const Environment& env);

}  // namespace kestrune::HostCommands
