// MCPSocketServer: the application's end of the agent link. Listens on a
// Unix socket (mode 0600) in a private directory (mode 0700), accepts
// connections of the same user on an accept thread, and serves each on its
// own connection thread with mcpServe and the handler.
//
// Thread-safety: start, stop and isRunning may be called from any thread;
// the lock guards only the running state and the listening descriptor and is
// never held while serving. The handler runs concurrently on connection
// threads. stop() returns at once: the accept thread closes the listening
// descriptor within 200 ms, and connections already being served go on
// until their peers close them. The destructor stops the server, ends the
// open connections and waits for every thread it started, so no handler call
// outlives the server.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "KestruneMCPKit/Link/MCPAppLink.h"

namespace mcpkit {

class MCPSocketServer {
public:
    MCPSocketServer(std::string path, std::size_t maxFrameBytes, MCPFrameHandler handler);
    ~MCPSocketServer();

    MCPSocketServer(const MCPSocketServer&) = delete;
    MCPSocketServer& operator=(const MCPSocketServer&) = delete;

    // Starts listening; does nothing while running. Throws MCPSocketError:
    // insecureDirectory (the socket's directory), alreadyRunning (a live
    // server answers at the path), system("not a socket", EEXIST) (another
    // kind of file is at the path; it is left alone), pathTooLong,
    // system("socket"|"bind"|"chmod"|"listen", errno); or
    // std::filesystem::filesystem_error when the directory cannot be created.
    // A stale socket file (nothing listening) is removed first.
    void start();

    // Stops accepting and removes the socket file. Safe to call repeatedly.
    void stop();

    bool isRunning() const;

    const std::string& path() const;

private:
    struct Shared;
    std::shared_ptr<Shared> shared_;
};

}  // namespace mcpkit
