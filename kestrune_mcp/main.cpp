// kestrune-mcp: the MCP server that AI harnesses start over stdio. With
// options it runs the command line; without, it serves MCP: every input line
// is handled on the request queue, answers go to stdout one whole line at a
// time, and tool calls travel to the Kestrune app over its Unix socket.
#include <unistd.h>
#if defined(__APPLE__)
#include <mach-o/dyld.h>
#endif

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

#include "KestruneMCPKit/Link/MCP.h"
#include "KestruneMCPKit/Link/MCPPaths.h"
#include "KestruneMCPKit/Link/MCPSocketLink.h"
#include "KestruneMCPKit/Link/Posix.h"
#include "KestruneMCPKit/Shim/MCPCommandLine.h"
#include "KestruneMCPKit/Shim/MCPInputLines.h"
#include "KestruneMCPKit/Shim/MCPRequestQueue.h"
#include "KestruneMCPKit/Shim/MCPShim.h"

namespace {

constexpr double linkTimeoutSeconds = 240;

// The helper's own path: the running executable when the system reports it,
// otherwise argv[0] made absolute with "." and ".." resolved.
std::string selfPath(const char* argv0) {
    namespace fs = std::filesystem;
    std::error_code error;
#if defined(__APPLE__)
    char buffer[4096];
    uint32_t size = sizeof buffer;
    if (_NSGetExecutablePath(buffer, &size) == 0)
        return fs::path(buffer).lexically_normal().string();
#else
    fs::path exe = fs::read_symlink("/proc/self/exe", error);
    if (!error && !exe.empty()) return exe.string();
#endif
    fs::path given(argv0 ? argv0 : "kestrune-mcp");
    fs::path absolute = fs::absolute(given, error);
    return (error ? given : absolute).lexically_normal().string();
}

std::string environment(std::string_view name) {
    const char* value = std::getenv(std::string(name).c_str());
    return value ? value : "";
}

}  // namespace

int main(int argc, char** argv) {
    // A harness that goes away must not kill the helper mid-write.
    std::signal(SIGPIPE, SIG_IGN);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);

    const std::string self = selfPath(argc > 0 ? argv[0] : nullptr);
    std::vector<std::string> args(argv + (argc > 0 ? 1 : 0), argv + argc);
    auto out = [](const std::string& text) { std::fprintf(stdout, "%s\n", text.c_str()); };
    auto err = [](const std::string& text) { std::fprintf(stderr, "%s\n", text.c_str()); };
    if (auto status = mcpkit::MCPCommandLine::run(args, self, out, err)) {
        std::fflush(stdout);
        return *status;
    }

    const std::string token = environment(mcpkit::MCP::tokenEnv);
    if (token.empty()) {
        std::fprintf(stderr,
                     "kestrune-mcp: %s is not set. Reinstall this server from the Kestrune app "
                     "(Agent access).\n",
                     std::string(mcpkit::MCP::tokenEnv).c_str());
        return 2;
    }
    std::string socketPath = environment(mcpkit::MCP::socketEnv);
    if (socketPath.empty()) {
        socketPath =
            mcpkit::MCPPaths::socketURL(
                mcpkit::MCPPaths::baseDirectory(std::nullopt, mcpkit::MCPPaths::homeDirectory()))
                .string();
    }

    std::mutex outputLock;
    auto sink = [&outputLock](const std::string& line) {
        std::lock_guard guard(outputLock);
        // A harness that closed stdout gets nothing more; the helper goes on
        // until its input ends.
        mcpkit::Posix::writeAll(STDOUT_FILENO, line);
    };
    mcpkit::MCPShim shim(std::make_unique<mcpkit::MCPSocketLink>(socketPath, linkTimeoutSeconds),
                         token, sink);

    {
        mcpkit::MCPRequestQueue queue("kestrune-mcp.requests");
        mcpkit::MCPInputLines input(STDIN_FILENO);
        while (auto line = input.next()) {
            if (line->oversized) {
                shim.rejectOversizedLine();
                continue;
            }
            if (line->bytes.empty()) continue;
            if (mcpkit::MCPShim::opensSession(line->bytes)) {
                // Answered before any later line is dispatched.
                shim.handle(line->bytes);
                continue;
            }
            queue.submit([&shim, request = std::move(line->bytes)] { shim.handle(request); });
        }
        queue.wait();
    }
    shim.close();
    return 0;
}
