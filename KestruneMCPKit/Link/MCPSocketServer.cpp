#include "KestruneMCPKit/Link/MCPSocketServer.h"

#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <thread>
#include <vector>

#include "KestruneMCPKit/Link/Frame.h"
#include "KestruneMCPKit/Link/MCPPaths.h"
#include "KestruneMCPKit/Link/MCPServe.h"
#include "KestruneMCPKit/Link/MCPSocketError.h"
#include "KestruneMCPKit/Link/MCPWireCode.h"
#include "KestruneMCPKit/Link/Posix.h"

namespace mcpkit {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int pollMilliseconds = 200;
constexpr double connectionTimeoutSeconds = 600;
constexpr int listenBacklog = 16;

void nameThisThread(const char* name) {
    // Linux allows 15 characters; the name is cut there.
    const std::string shortName = std::string(name).substr(0, 15);
#if defined(__APPLE__)
    pthread_setname_np(shortName.c_str());
#else
    pthread_setname_np(pthread_self(), shortName.c_str());
#endif
}

// True when something accepts connections at `path`.
bool somethingListens(const sockaddr_un& addr) {
    int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    if (fd < 0) return false;
    const bool live = ::connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0;
    Posix::closeFD(fd);
    return live;
}

}  // namespace

struct MCPSocketServer::Shared : std::enable_shared_from_this<Shared> {
    std::string path;
    std::size_t maxFrameBytes = 0;
    MCPFrameHandler handler;
    Limits limits;

    mutable std::mutex lock;
    int listenFD = -1;                       // guarded by lock
    bool running = false;                    // guarded by lock
    std::vector<std::thread> acceptThreads;  // guarded by lock

    struct Connection {
        Clock::time_point waitingSince;  // accepted, or its last reply written
        bool busy = false;               // a frame is being handled
        bool closing = false;            // shut down by the server
    };
    std::mutex connectionsLock;
    std::condition_variable connectionsDone;
    std::map<int, Connection> connections;  // by descriptor; guarded by connectionsLock

    void acceptLoop(int fd);
    void admit(int connection);
    void closeIdleLocked(Clock::time_point now);
    bool evictOldestIdleLocked();
    void serve(int connection);
    bool frameState(int connection, bool busy);
};

namespace {

// Written to a connection the server cannot take; the client shows the text.
void refuseBusy(int connection) {
    Posix::writeAll(connection,
                    Frame::encode(mailcore::Json{{"ok", false},
                                                 {"code", MCPWireCode::refused},
                                                 {"error",
                                                  "Kestrune is busy with other requests. Try again "
                                                  "in a moment."}}));
    Posix::closeFD(connection);
}

}  // namespace

void MCPSocketServer::Shared::acceptLoop(int fd) {
    nameThisThread("kestrune-mcp-accept");
    for (;;) {
        {
            std::lock_guard guard(lock);
            if (!running || listenFD != fd) break;  // stopped, or restarted with a new socket
        }
        {
            std::lock_guard guard(connectionsLock);
            closeIdleLocked(Clock::now());
        }
        pollfd pfd{fd, POLLIN, 0};
        if (::poll(&pfd, 1, pollMilliseconds) <= 0) continue;
        int connection = ::accept(fd, nullptr, nullptr);
        if (connection < 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
            continue;
        }
        Posix::setCloseOnExec(connection);
        const auto peer = Posix::peerUserID(connection);
        if (!peer || *peer != ::geteuid()) {
            Posix::closeFD(connection);  // another user's process: dropped without a word
            continue;
        }
        Posix::setTimeouts(connection, connectionTimeoutSeconds);
        admit(connection);
    }
    Posix::closeFD(fd);
}

// Serves the connection when a place is free. At the limit, the connection
// that has waited longest for a frame makes room (an idle or trickling peer
// never holds a place against a working one); when every place is busy
// with a request, the newcomer is refused with a reply that says so.
void MCPSocketServer::Shared::admit(int connection) {
    std::unique_lock guard(connectionsLock);
    if (connections.size() >= limits.maxConnections) evictOldestIdleLocked();
    const bool placeFree = connectionsDone.wait_for(
        guard, std::chrono::seconds(1), [&] { return connections.size() < limits.maxConnections; });
    if (!placeFree) {
        guard.unlock();
        refuseBusy(connection);
        return;
    }
    connections[connection] = Connection{Clock::now()};
    try {
        std::thread([self = shared_from_this(), connection] { self->serve(connection); }).detach();
    } catch (const std::exception&) {
        // No thread (memory or process limits): refused like a full server.
        connections.erase(connection);
        guard.unlock();
        refuseBusy(connection);
    }
}

void MCPSocketServer::Shared::closeIdleLocked(Clock::time_point now) {
    for (auto& [fd, c] : connections) {
        if (c.busy || c.closing || now - c.waitingSince < limits.frameDeadline) continue;
        c.closing = true;
        ::shutdown(fd, SHUT_RDWR);  // its thread sees the end of the stream
    }
}

bool MCPSocketServer::Shared::evictOldestIdleLocked() {
    Connection* oldest = nullptr;
    int oldestFD = -1;
    for (auto& [fd, c] : connections) {
        if (c.busy || c.closing) continue;
        if (!oldest || c.waitingSince < oldest->waitingSince) {
            oldest = &c;
            oldestFD = fd;
        }
    }
    if (!oldest) return false;
    oldest->closing = true;
    ::shutdown(oldestFD, SHUT_RDWR);
    return true;
}

bool MCPSocketServer::Shared::frameState(int connection, bool busy) {
    std::lock_guard guard(connectionsLock);
    auto it = connections.find(connection);
    if (it == connections.end() || it->second.closing) return false;
    it->second.busy = busy;
    if (!busy) it->second.waitingSince = Clock::now();
    return true;
}

void MCPSocketServer::Shared::serve(int connection) {
    nameThisThread("kestrune-mcp-conn");
    mcpServeFrames(connection, maxFrameBytes, handler,
                   [this, connection](bool busy) { return frameState(connection, busy); });
    // Closed under the lock, so the owner never shuts down a descriptor
    // number that has already been reused.
    std::lock_guard guard(connectionsLock);
    connections.erase(connection);
    Posix::closeFD(connection);
    connectionsDone.notify_all();
}

MCPSocketServer::MCPSocketServer(std::string path, std::size_t maxFrameBytes,
                                 MCPFrameHandler handler)
    : MCPSocketServer(std::move(path), maxFrameBytes, std::move(handler), Limits{}) {}

MCPSocketServer::MCPSocketServer(std::string path, std::size_t maxFrameBytes,
                                 MCPFrameHandler handler, Limits limits)
    : shared_(std::make_shared<Shared>()) {
    shared_->limits = limits;
    shared_->path = std::move(path);
    shared_->maxFrameBytes = maxFrameBytes;
    shared_->handler = std::move(handler);
}

MCPSocketServer::~MCPSocketServer() {
    stop();
    std::vector<std::thread> threads;
    {
        std::lock_guard guard(shared_->lock);
        threads.swap(shared_->acceptThreads);
    }
    for (auto& t : threads) t.join();
    std::unique_lock guard(shared_->connectionsLock);
    for (const auto& entry : shared_->connections) ::shutdown(entry.first, SHUT_RDWR);
    shared_->connectionsDone.wait(guard, [&] { return shared_->connections.empty(); });
}

void MCPSocketServer::start() {
    Shared& s = *shared_;
    std::lock_guard guard(s.lock);
    if (s.running) return;

    namespace fs = std::filesystem;
    const fs::path socketPath(s.path);
    MCPPaths::preparePrivateDirectory(socketPath.parent_path());

    struct stat st {};
    if (::lstat(s.path.c_str(), &st) == 0) {
        if (!S_ISSOCK(st.st_mode)) throw MCPSocketError::system("not a socket", EEXIST);
        if (somethingListens(Posix::address(s.path))) throw MCPSocketError::alreadyRunning();
        ::unlink(s.path.c_str());  // stale: left behind by a crash
    }

    const sockaddr_un addr = Posix::address(s.path);
    int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    if (fd < 0) throw MCPSocketError::system("socket", errno);
    Posix::setCloseOnExec(fd);

    const mode_t previous = ::umask(0177);
    const int bound = ::bind(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr);
    const int bindErrno = errno;
    ::umask(previous);
    if (bound != 0) {
        Posix::closeFD(fd);
        throw MCPSocketError::system("bind", bindErrno);
    }
    if (::chmod(s.path.c_str(), 0600) != 0) {
        const int err = errno;
        Posix::closeFD(fd);
        ::unlink(s.path.c_str());
        throw MCPSocketError::system("chmod", err);
    }
    if (::listen(fd, listenBacklog) != 0) {
        const int err = errno;
        Posix::closeFD(fd);
        ::unlink(s.path.c_str());
        throw MCPSocketError::system("listen", err);
    }
    s.listenFD = fd;
    s.running = true;
    s.acceptThreads.emplace_back([self = shared_, fd] { self->acceptLoop(fd); });
}

void MCPSocketServer::stop() {
    Shared& s = *shared_;
    std::lock_guard guard(s.lock);
    const bool wasRunning = s.running;
    s.running = false;
    s.listenFD = -1;
    if (wasRunning) ::unlink(s.path.c_str());
}

bool MCPSocketServer::isRunning() const {
    std::lock_guard guard(shared_->lock);
    return shared_->running;
}

const std::string& MCPSocketServer::path() const { return shared_->path; }

}  // namespace mcpkit
