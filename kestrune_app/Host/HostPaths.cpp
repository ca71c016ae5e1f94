#include "kestrune_app/Host/HostPaths.h"

#include "KestruneMCPKit/Link/MCPPaths.h"

namespace kestrune {

HostPaths HostPaths::make(const std::optional<std::filesystem::path>& dataDir,
                          const std::filesystem::path& home) {
    HostPaths p;
    p.mcp = mcpkit::MCPPaths::baseDirectory(dataDir, home);
    p.root = dataDir ? *dataDir : p.mcp.parent_path();
    p.store = p.root / "mail.sqlite";
    p.pending = p.mcp / "pending";
    p.control = p.mcp / "control";
    p.workflows = p.mcp / "workflows";
    p.lock = p.mcp / "kestrune.lock";
    return p;
}

}  // namespace kestrune
