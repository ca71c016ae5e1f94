#include "KestruneMCPKit/Link/MCPPairLink.h"

#include <sys/socket.h>

#include <nlohmann/json.hpp>
#include <thread>

#include "KestruneMCPKit/Link/Frame.h"
#include "KestruneMCPKit/Link/MCP.h"
#include "KestruneMCPKit/Link/MCPLinkError.h"
#include "KestruneMCPKit/Link/MCPServe.h"
#include "KestruneMCPKit/Link/MCPSocketLink.h"
#include "KestruneMCPKit/Link/Posix.h"

namespace mcpkit {

mailcore::Json MCPPairLink::send(const mailcore::Json& request) {
    int fds[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0)
        throw MCPLinkError::transport("socketpair");
    Posix::setCloseOnExec(fds[0]);
    Posix::setCloseOnExec(fds[1]);
    // The server end is closed by mcpServe; the thread is joined before
    // returning so that no handler call outlives the send.
    std::thread server(
        [fd = fds[1], handler = handler_] { mcpServe(fd, MCP::maxFrameBytes, handler); });
    struct Finish {
        int fd;
        std::thread& server;
        ~Finish() {
            Posix::closeFD(fd);  // ends the server loop
            server.join();
        }
    } finish{fds[0], server};
    if (!Posix::writeAll(fds[0], Frame::encode(request))) throw MCPLinkError::transport("write");
    return readReply(fds[0]);
}

}  // namespace mcpkit
