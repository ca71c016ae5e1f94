#include "KestruneMCPKit/Link/MCPLinkError.h"

namespace mcpkit {

MCPLinkError::MCPLinkError(Kind kind, std::string message)
    : kind_(kind), message_(std::move(message)) {
    switch (kind_) {
        case Kind::transport:
            description_ = "transport(" + message_ + ")";
            break;
        case Kind::appNotRunning:
            description_ = "appNotRunning";
            break;
        case Kind::malformedReply:
            description_ = "malformedReply";
            break;
    }
}

}  // namespace mcpkit
