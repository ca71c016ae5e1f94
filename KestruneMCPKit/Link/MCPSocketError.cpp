#include "KestruneMCPKit/Link/MCPSocketError.h"

namespace mcpkit {

MCPSocketError::MCPSocketError(Kind kind, std::string text, int err)
    : kind_(kind), text_(std::move(text)), errno_(err) {
    switch (kind_) {
        case Kind::insecureDirectory:
            description_ = "insecureDirectory(" + text_ + ")";
            break;
        case Kind::system:
            description_ = "system(" + text_ + ", " + std::to_string(errno_) + ")";
            break;
        case Kind::pathTooLong:
            description_ = "pathTooLong";
            break;
        case Kind::alreadyRunning:
            description_ = "alreadyRunning";
            break;
    }
}

MCPSocketError MCPSocketError::insecureDirectory(std::string path) {
    return MCPSocketError(Kind::insecureDirectory, std::move(path), 0);
}
MCPSocketError MCPSocketError::system(std::string operation, int errnoValue) {
    return MCPSocketError(Kind::system, std::move(operation), errnoValue);
}
MCPSocketError MCPSocketError::pathTooLong() { return MCPSocketError(Kind::pathTooLong, {}, 0); }
MCPSocketError MCPSocketError::alreadyRunning() {
    return MCPSocketError(Kind::alreadyRunning, {}, 0);
}

}  // namespace mcpkit
