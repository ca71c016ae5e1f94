// Posix: the few socket operations the agent link needs, with the portable
// rules kept in one place: Unix socket paths shorter than 104 bytes (the
// smallest limit among the supported systems), writes that never raise
// SIGPIPE, close-on-exec descriptors, and peer checks by user id.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>
#include <sys/un.h>

#include <optional>
#include <string>
#include <string_view>

namespace mcpkit::Posix {

// Paths of this many bytes or more do not fit a portable sockaddr_un.
inline constexpr std::size_t maxSocketPathBytes = 104;

// An AF_UNIX address for `path`. Throws MCPSocketError::pathTooLong when the
// path has 104 or more bytes.
sockaddr_un address(const std::string& path);

// Connects to the Unix socket at `path` and checks that the peer runs as
// this process's effective user. Returns the connected, close-on-exec
// descriptor. Throws MCPSocketError: pathTooLong, system("socket", errno),
// system("connect", errno), or system("peer", 1) for a foreign peer.
int connect(const std::string& path);

// Writes every byte; retries after EINTR. False on any other error or a
// write of zero bytes. Never raises SIGPIPE on sockets.
bool writeAll(int fd, std::string_view bytes);

// The effective user id of the peer of a connected Unix socket, or none.
std::optional<uid_t> peerUserID(int fd);

// Sets SO_RCVTIMEO and SO_SNDTIMEO to `seconds`; 0 means no time-out.
void setTimeouts(int fd, double seconds);

// Marks `fd` close-on-exec.
void setCloseOnExec(int fd);

// Closes `fd`, retrying nothing (close must not be retried after EINTR).
void closeFD(int fd);

}  // namespace mcpkit::Posix
