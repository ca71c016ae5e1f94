#include "KestruneMCPKit/Link/MCPServe.h"

#include <nlohmann/json.hpp>

#include "KestruneMCPKit/Link/Frame.h"
#include "KestruneMCPKit/Link/FrameReader.h"
#include "KestruneMCPKit/Link/MCPWireCode.h"
#include "KestruneMCPKit/Link/Posix.h"

namespace mcpkit {

std::string tooLargeReply() {
    return Frame::encode(mailcore::Json{
        {"ok", false}, {"code", MCPWireCode::badRequest}, {"error", "Request too large."}});
}

void mcpServe(int fd, std::size_t maxFrameBytes, const MCPFrameHandler& handler) {
    mcpServeFrames(fd, maxFrameBytes, handler);
    Posix::closeFD(fd);
}

void mcpServeFrames(int fd, std::size_t maxFrameBytes, const MCPFrameHandler& handler,
                    const std::function<bool(bool busy)>& onFrame) {
    FrameReader reader(fd, maxFrameBytes);
    for (;;) {
        FrameReader::Next next = reader.next();
        if (next.kind == FrameReader::Next::Kind::tooLarge) {
            Posix::writeAll(fd, tooLargeReply());
            break;
        }
        if (next.kind != FrameReader::Next::Kind::frame) break;
        if (onFrame && !onFrame(true)) break;
        std::string reply;
        try {
            reply = handler(next.bytes);
        } catch (...) {
            break;  // a broken handler ends the connection; the client reports no reply
        }
        if (reply.empty() || reply.back() != '\n') reply.push_back('\n');
        if (!Posix::writeAll(fd, reply)) break;
        if (onFrame) onFrame(false);
    }
}

}  // namespace mcpkit
