#include "KestruneMCPKit/Link/MCPSocketLink.h"

#include <cerrno>
#include <nlohmann/json.hpp>

#include "KestruneMCPKit/Link/Frame.h"
#include "KestruneMCPKit/Link/FrameReader.h"
#include "KestruneMCPKit/Link/MCP.h"
#include "KestruneMCPKit/Link/MCPLinkError.h"
#include "KestruneMCPKit/Link/MCPSocketError.h"
#include "KestruneMCPKit/Link/Posix.h"

namespace mcpkit {

namespace {

// Closes the descriptor on every path out of a send.
struct FDGuard {
    int fd;
    ~FDGuard() { Posix::closeFD(fd); }
};

}  // namespace

mailcore::Json readReply(int fd) {
    FrameReader reader(fd, MCP::maxReplyBytes);
    FrameReader::Next next = reader.next();
    if (next.kind != FrameReader::Next::Kind::frame)
        throw MCPLinkError::transport("no reply from the app");
    mailcore::Json reply;
    if (!mailcore::tryParseJson(next.bytes, reply) || !reply.is_object())
        throw MCPLinkError::malformedReply();
    return reply;
}

mailcore::Json MCPSocketLink::send(const mailcore::Json& request) {
    int fd = -1;
    try {
        fd = Posix::connect(path_);
    } catch (const MCPSocketError& error) {
        if (error.kind() == MCPSocketError::Kind::system &&
            (error.errnoValue() == ENOENT || error.errnoValue() == ENOTDIR ||
             error.errnoValue() == ECONNREFUSED))
            throw MCPLinkError::appNotRunning();
        throw MCPLinkError::transport(error.what());
    }
    FDGuard guard{fd};
    Posix::setTimeouts(fd, timeout_);
    if (!Posix::writeAll(fd, Frame::encode(request))) throw MCPLinkError::transport("write failed");
    return readReply(fd);
}

}  // namespace mcpkit
