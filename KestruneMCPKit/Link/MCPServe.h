// mcpServe: serves one accepted link connection: reads request frames one
// after another, hands each to the handler, writes its reply, until the peer
// closes, a read or write fails, or a frame exceeds the limit (answered with
// the "Request too large." reply). Closes the descriptor before returning.
#pragma once

#include <cstddef>
#include <functional>

#include "KestruneMCPKit/Link/MCPAppLink.h"

namespace mcpkit {

void mcpServe(int fd, std::size_t maxFrameBytes, const MCPFrameHandler& handler);

// The same loop without closing `fd`, for owners that close it themselves.
// `onFrame`, when given, is called with true once a whole frame has been read
// (before the handler runs; false from it ends the loop unhandled) and with
// false once its reply has been written.
void mcpServeFrames(int fd, std::size_t maxFrameBytes, const MCPFrameHandler& handler,
                    const std::function<bool(bool busy)>& onFrame = {});

// The frame written for an oversized request.
std::string tooLargeReply();

}  // namespace mcpkit
