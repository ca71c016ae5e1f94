#include "kestrune_app/Host/HostPaths.h"

#include "KestruneMCPKit/Link/MCPPaths.h"
#include "MailCore/Common/PrivateFiles.h"

namespace kestrune {

HostPaths HostPaths::make(const std::optional<std::filesystem::path>& dataDir,
                          const std::filesystem::path& home) {
    HostPaths p;
    p.mcp = mcpkit::MCPPaths::baseDirectory(dataDir, home);
    p.root = dataDir ? *dataDir : p.mcp.parent_path();
    p.store = p.root / "mail.sqlite";
    p.pending = p.mcp / "pending";
    p.answers = mcpkit::MCPPaths::socketURL(p.pending);
    p.control = p.mcp / "control";
    p.workflows = p.mcp / "workflows";
    p.lock = p.mcp / "kestrune.lock";
    return p;
}

std::optional<std::string> readControlFile(const std::filesystem::path& path) {
    auto file = mailcore::systemFiles()->read(path, 1024 * 1024);
    if (!file.ok()) return std::nullopt;
    return std::move(file.bytes);
}

bool writeControlFile(const std::filesystem::path& path, std::string_view data,
                      std::string* error) {
    mailcore::WriteOptions options;
    options.durable = false;
    return mailcore::systemFiles()->writeAtomically(path, data, error, options).has_value();
}

}  // namespace kestrune
