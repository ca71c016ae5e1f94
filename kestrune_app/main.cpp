// kestrune: the application that owns the mail store and serves harnesses.
// Every command is in the host library; this entry wires signals and output.
#include <sys/ioctl.h>
#include <unistd.h>
#if defined(__linux__)
#include <sys/prctl.h>
#endif

#include <csignal>
#include <cstdio>
#include <string>
#include <vector>

#include "KestruneMCPKit/Link/MCPPaths.h"
#include "kestrune_app/Host/HostCommands.h"

namespace {
std::atomic<bool> stopRequested{false};
extern "C" void requestStop(int) { stopRequested.store(true); }
}  // namespace

int main(int argc, char** argv) {
#if defined(__linux__)
    // Other processes of the user may neither attach to this one nor read
    // its memory, where `serve` keeps the one-time codes of its questions.
    ::prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);
#endif
    std::signal(SIGPIPE, SIG_IGN);
    struct sigaction action {};
    action.sa_handler = requestStop;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);

    kestrune::HostCommands::Environment env;
    env.home = mcpkit::MCPPaths::homeDirectory();
    env.demoMessages = KESTRUNE_DEMO_DIR;
    env.stop = &stopRequested;
    if (::isatty(STDIN_FILENO)) env.input = STDIN_FILENO;
    env.out = [](const std::string& text) { std::fprintf(stdout, "%s\n", text.c_str()); };
    env.err = [](const std::string& text) { std::fprintf(stderr, "%s\n", text.c_str()); };
    env.write = [](std::string_view bytes) {
        std::fwrite(bytes.data(), 1, bytes.size(), stdout);
        std::fflush(stdout);
    };
    env.outIsTerminal = ::isatty(STDOUT_FILENO) == 1;
    if (winsize size{}; env.outIsTerminal && ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0)
        env.columns = size.ws_col;
    const int status =
        kestrune::HostCommands::run(std::vector<std::string>(argv + 1, argv + argc), env);
    std::fflush(stdout);
    return status;
}
