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
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "KestruneMCPKit/Link/MCPPaths.h"
#include "KestruneMCPKit/Link/MCPServe.h"
#include "KestruneMCPKit/Link/MCPSocketError.h"
#include "KestruneMCPKit/Link/Posix.h"

namespace mcpkit {

namespace {

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

    mutable std::mutex lock;
    int listenFD = -1;                       // guarded by lock
    bool running = false;                    // guarded by lock
    std::vector<std::thread> acceptThreads;  // guarded by lock

    std::mutex connectionsLock;
    std::condition_variable connectionsDone;
    std::set<int> connections;  // open connection descriptors; guarded by connectionsLock

    void acceptLoop(int fd);
    void serve(int connection);
};

void MCPSocketServer::Shared::acceptLoop(int fd) {
    nameThisThread("kestrune-mcp-accept");
    for (;;) {
        {
            std::lock_guard guard(lock);
            if (!running || listenFD != fd) break;  // stopped, or restarted with a new socket
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
        {
            std::lock_guard guard(connectionsLock);
            connections.insert(connection);
        }
        std::thread([self = shared_from_this(), connection] { self->serve(connection); }).detach();
    }
    Posix::closeFD(fd);
}

void MCPSocketServer::Shared::serve(int connection) {
    nameThisThread("kestrune-mcp-conn");
    mcpServeFrames(connection, maxFrameBytes, handler);
    // Closed under the lock, so the owner never shuts down a descriptor
    // number that has already been reused.
    std::lock_guard guard(connectionsLock);
    connections.erase(connection);
    Posix::closeFD(connection);
    connectionsDone.notify_all();
}

MCPSocketServer::MCPSocketServer(std::string path, std::size_t maxFrameBytes,
                                 MCPFrameHandler handler)
    : shared_(std::make_shared<Shared>()) {
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
    for (int fd : shared_->connections) ::shutdown(fd, SHUT_RDWR);
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
