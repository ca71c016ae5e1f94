#include "KestruneMCPKit/Policy/MCPStorage.h"

#include "KestruneMCPKit/Link/MCPPaths.h"
#include "KestruneMCPKit/Tokens/MCPFileTokenStore.h"

namespace mcpkit {

MCPStorage MCPStorage::open(const std::optional<std::filesystem::path>& dataDir,
                            const std::optional<std::filesystem::path>& socketOverride,
                            const std::filesystem::path& home, bool interactiveKeychain,
                            mailcore::Clock clock) {
    (void)interactiveKeychain;  // no keychain store on this platform
    MCPStorage storage;
    storage.base = MCPPaths::baseDirectory(dataDir, home);
    MCPPaths::preparePrivateDirectory(storage.base);
    storage.socketPath = socketOverride ? *socketOverride : MCPPaths::socketURL(storage.base);

    const auto stateURL = storage.base / "state.json";
    const auto tokensURL = storage.base / "tokens.json";
    storage.auditURL = storage.base / "audit.jsonl";
    for (const auto& file : {stateURL, tokensURL, storage.auditURL}) {
        mailcore::restrictToOwner(file);
    }
    auto tokens = std::make_shared<MCPFileTokenStore>(tokensURL);
    storage.policy = std::make_shared<MCPPolicyStore>(stateURL, tokens, std::move(clock));
    return storage;
}

}  // namespace mcpkit
