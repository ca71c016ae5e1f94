#include "KestruneMCPKit/Link/Posix.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "KestruneMCPKit/Link/MCPSocketError.h"

namespace mcpkit::Posix {

sockaddr_un address(const std::string& path) {
    if (path.size() >= maxSocketPathBytes) throw MCPSocketError::pathTooLong();
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::memcpy(addr.sun_path, path.data(), path.size());
    addr.sun_path[path.size()] = '\0';
    return addr;
}

void setCloseOnExec(int fd) {
    int flags = ::fcntl(fd, F_GETFD);
    if (flags >= 0) ::fcntl(fd, F_SETFD, flags | FD_CLOEXEC);
}

void closeFD(int fd) {
    if (fd >= 0) ::close(fd);
}

std::optional<uid_t> peerUserID(int fd) {
#if defined(__APPLE__) || defined(__FreeBSD__)
    uid_t uid = 0;
    gid_t gid = 0;
    if (::getpeereid(fd, &uid, &gid) != 0) return std::nullopt;
    return uid;
#else
    ucred cred{};
    socklen_t length = sizeof cred;
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &length) != 0 || length != sizeof cred)
        return std::nullopt;
    return cred.uid;
#endif
}

int connect(const std::string& path) {
    const sockaddr_un addr = address(path);
    int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    if (fd < 0) throw MCPSocketError::system("socket", errno);
    setCloseOnExec(fd);
#ifdef SO_NOSIGPIPE
    int one = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_NOSIGPIPE, &one, sizeof one);
#endif
    int rc;
    do {
        rc = ::connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr);
    } while (rc != 0 && errno == EINTR);
    if (rc != 0) {
        const int err = errno;
        closeFD(fd);
        throw MCPSocketError::system("connect", err);
    }
    const auto peer = peerUserID(fd);
    if (!peer || *peer != ::geteuid()) {
        closeFD(fd);
        throw MCPSocketError::system("peer", 1);
    }
    return fd;
}

bool writeAll(int fd, std::string_view bytes) {
#ifdef MSG_NOSIGNAL
    constexpr int flags = MSG_NOSIGNAL;
#else
    constexpr int flags = 0;
#endif
    bool isSocket = true;
    std::size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n;
        if (isSocket) {
            n = ::send(fd, bytes.data() + done, bytes.size() - done, flags);
            if (n < 0 && errno == ENOTSOCK) {
                isSocket = false;
                continue;
            }
        } else {
            n = ::write(fd, bytes.data() + done, bytes.size() - done);
        }
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<std::size_t>(n);
    }
    return true;
}

void setTimeouts(int fd, double seconds) {
    timeval tv{};
    tv.tv_sec = static_cast<time_t>(seconds);
    tv.tv_usec = static_cast<suseconds_t>((seconds - static_cast<double>(tv.tv_sec)) * 1e6);
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
}

}  // namespace mcpkit::Posix
