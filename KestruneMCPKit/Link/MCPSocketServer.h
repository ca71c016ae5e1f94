// MCPSocketServer: the application's end of the agent link. Listens on a
// Unix socket (mode 0600) in a private directory (mode 0700), accepts
// connections of the same user on an accept thread, and serves each on its
// own connection thread with mcpServe and the handler.
//
// Bounded: at most Limits::maxConnections connections (and so connection
// threads) at once. A connection that has not completed a frame within
// Limits::frameDeadline of being accepted or of its last reply is closed, so
// idle or trickling peers free their place; when the server is full, the
// connection that has waited longest for a frame makes room for a new one,
// and only when every place is busy handling a request is the newcomer
// refused (a "refused" reply saying Kestrune is busy). A thread that cannot
// be started refuses its connection the same way; nothing aborts.
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

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>

#include "KestruneMCPKit/Link/MCPAppLink.h"

namespace mcpkit {

class MCPSocketServer {
public:
    struct Limits {
        std::size_t maxConnections = 64;
        std::chrono::milliseconds frameDeadline = std::chrono::seconds(30);
    };

    MCPSocketServer(std::string path, std::size_t maxFrameBytes, MCPFrameHandler handler);
    MCPSocketServer(std::string path, std::size_t maxFrameBytes, MCPFrameHandler handler,
                    Limits limits);
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
