#include "KestruneMCPKit/Link/MCPFileTokenStore.h"

#include <nlohmann/json.hpp>

#include "KestruneMCPKit/Link/MCPPrivateFile.h"
#include "MailCore/Common/Json.h"

namespace mcpkit {

MCPFileTokenStore::MCPFileTokenStore(std::filesystem::path url) : url_(std::move(url)) {}

std::map<std::string, std::string> MCPFileTokenStore::readLocked() const {
    std::map<std::string, std::string> map;
    auto text = MCPPrivateFile::read(url_);
    if (!text) return map;
    mailcore::Json json;
    if (!mailcore::tryParseJson(*text, json) || !json.is_object()) return map;
    for (const auto& [id, value] : json.items()) {
        // One value that is not text makes the whole file undecodable.
        if (!value.is_string()) return {};
        map[id] = value.get<std::string>();
    }
    return map;
}

void MCPFileTokenStore::saveLocked(const std::map<std::string, std::string>& map) const {
    mailcore::Json json = mailcore::Json::object();
    for (const auto& [id, token] : map) json[id] = token;
    MCPPrivateFile::writeAtomically(url_, mailcore::encodeJson(json));
}

std::optional<std::string> MCPFileTokenStore::token(const std::string& id) {
    std::lock_guard guard(lock_);
    auto map = readLocked();
    auto it = map.find(id);
    if (it == map.end()) return std::nullopt;
    return it->second;
}

void MCPFileTokenStore::set(const std::string& token, const std::string& id) {
    std::lock_guard guard(lock_);
    auto map = readLocked();
    map[id] = token;
    saveLocked(map);
}

void MCPFileTokenStore::remove(const std::string& id) {
    std::lock_guard guard(lock_);
    auto map = readLocked();
    map.erase(id);
    saveLocked(map);
}

}  // namespace mcpkit
