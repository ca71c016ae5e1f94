#include "KestruneMCPKit/Tokens/MCPTokenStore.h"

namespace mcpkit {

std::optional<std::string> MCPMemoryTokenStore::token(const std::string& id) {
    std::lock_guard guard(lock_);
    auto it = map_.find(id);
    if (it == map_.end()) return std::nullopt;
    return it->second;
}

void MCPMemoryTokenStore::set(const std::string& token, const std::string& id) {
    std::lock_guard guard(lock_);
    map_[id] = token;
}

void MCPMemoryTokenStore::remove(const std::string& id) {
    std::lock_guard guard(lock_);
    map_.erase(id);
}

}  // namespace mcpkit
