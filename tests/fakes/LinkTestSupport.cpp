#include "tests/fakes/LinkTestSupport.h"

#include <grp.h>
#include <poll.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace linktest {

namespace fs = std::filesystem;

int rawConnect(const std::string& path) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path) return -1;
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

std::string readAll(int fd, std::chrono::milliseconds timeout) {
    std::string out;
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) return out;
        pollfd pfd{fd, POLLIN, 0};
        if (::poll(&pfd, 1, static_cast<int>(left.count())) <= 0) return out;
        char buffer[65536];
        ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return out;
        out.append(buffer, static_cast<std::size_t>(n));
    }
}

std::optional<std::string> readLine(int fd, std::chrono::milliseconds timeout) {
    std::string out;
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) return std::nullopt;
        pollfd pfd{fd, POLLIN, 0};
        if (::poll(&pfd, 1, static_cast<int>(left.count())) <= 0) return std::nullopt;
        char c;
        ssize_t n = ::read(fd, &c, 1);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return std::nullopt;
        if (c == '\n') return out;
        out.push_back(c);
    }
}

bool canSwitchUser() { return ::geteuid() == 0; }

uid_t otherUserID() {
    if (const passwd* pw = ::getpwnam("nobody")) return pw->pw_uid;
    return 65534;
}

gid_t otherGroupID() {
    if (const passwd* pw = ::getpwnam("nobody")) return pw->pw_gid;
    return 65534;
}

OtherUserProcess::OtherUserProcess(std::function<int()> body) {
    const uid_t uid = otherUserID();
    const gid_t gid = otherGroupID();
    int fds[2];
    if (::pipe(fds) != 0) throw std::runtime_error("pipe failed");
    pid_ = ::fork();
    if (pid_ < 0) throw std::runtime_error("fork failed");
    if (pid_ == 0) {
        ::close(fds[1]);
        const bool switched =
            ::setgroups(0, nullptr) == 0 && ::setgid(gid) == 0 && ::setuid(uid) == 0;
        char c;
        ssize_t n;
        do {
            n = ::read(fds[0], &c, 1);
        } while (n < 0 && errno == EINTR);
        if (!switched) _exit(120);
        if (n != 1) _exit(122);
        _exit(body());
    }
    ::close(fds[0]);
    goFD_ = fds[1];
}

OtherUserProcess::~OtherUserProcess() {
    if (goFD_ >= 0) ::close(goFD_);
    if (pid_ > 0) wait();
}

void OtherUserProcess::go() {
    char c = 'g';
    if (goFD_ >= 0) (void)!::write(goFD_, &c, 1);
}

int OtherUserProcess::wait() {
    if (pid_ <= 0) return -1;
    if (goFD_ >= 0) {
        ::close(goFD_);  // a child never told to go exits with 122
        goFD_ = -1;
    }
    int status = 0;
    while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace linktest
