#include "KestruneMCPKit/Tokens/MCPTokenStore.h"

namespace mcpkit {

std::optional<std::string> MCPMemoryTokenStore::token(const std::string& id) {
    std::lock_guard guard(lock_);
    auto it = map_.find(id);
    if (it == map_.end()) return std::nullopt;
    return it->second;
}

std::optional<std::string> MCPMemoryTokenStore::set(const std::string& token,
                                                    const std::string& id) {
    std::lock_guard guard(lock_);
    map_[id] = token;
    return std::nullopt;
}

std::optional<std::string> MCPMemoryTokenStore::remove(const std::string& id) {
    std::lock_guard guard(lock_);
    map_.erase(id);
    return std::nullopt;
}

}  // namespace mcpkit
