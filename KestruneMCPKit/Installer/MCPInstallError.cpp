#include "KestruneMCPKit/Installer/MCPInstallError.h"

#include <utility>

namespace mcpkit {

MCPInstallError::MCPInstallError(Kind kind, std::string reason)
    : kind_(kind), reason_(std::move(reason)) {
    switch (kind_) {
        case Kind::unreadable:
            description_ = "unreadable(" + reason_ + ")";
            break;
        case Kind::io:
            description_ = "io(" + reason_ + ")";
            break;
        case Kind::snippetOnly:
            description_ = "snippetOnly";
            break;
    }
}

MCPInstallError MCPInstallError::unreadable(std::string reason) {
    return MCPInstallError(Kind::unreadable, std::move(reason));
}

MCPInstallError MCPInstallError::io(std::string reason) {
    return MCPInstallError(Kind::io, std::move(reason));
}

MCPInstallError MCPInstallError::snippetOnly() { return MCPInstallError(Kind::snippetOnly, {}); }

}  // namespace mcpkit
