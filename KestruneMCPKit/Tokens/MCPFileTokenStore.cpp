#include "KestruneMCPKit/Tokens/MCPFileTokenStore.h"

#include <nlohmann/json.hpp>

#include "KestruneMCPKit/Link/MCPPrivateFile.h"
#include "MailCore/Common/Json.h"

namespace mcpkit {

MCPFileTokenStore::MCPFileTokenStore(std::filesystem::path url) : url_(std::move(url)) {}

namespace {

std::map<std::string, std::string> decodeTokens(const std::string& text) {
    std::map<std::string, std::string> map;
    mailcore::Json json;
    if (!mailcore::tryParseJson(text, json) || !json.is_object()) return map;
    for (const auto& [id, value] : json.items()) {
        // One value that is not text makes the whole file undecodable.
        if (!value.is_string()) return {};
        map[id] = value.get<std::string>();
    }
    return map;
}

}  // namespace

std::map<std::string, std::string> MCPFileTokenStore::readLocked() const {
    auto before = MCPPrivateFile::stamp(url_);
    if (!before) {
        cachedStamp_.reset();
        return {};
    }
    if (before == cachedStamp_) return cachedMap_;
    auto text = MCPPrivateFile::read(url_);
    if (!text) {
        cachedStamp_.reset();
        return {};
    }
    auto map = decodeTokens(*text);
    // Cached only when the file did not change while it was read.
    if (MCPPrivateFile::stamp(url_) == before) {
        cachedStamp_ = before;
        cachedMap_ = map;
    } else {
        cachedStamp_.reset();
    }
    return map;
}

void MCPFileTokenStore::saveLocked(const std::map<std::string, std::string>& map) const {
    mailcore::Json json = mailcore::Json::object();
    for (const auto& [id, token] : map) json[id] = token;
    if (auto stamp = MCPPrivateFile::writeAtomically(url_, mailcore::encodeJson(json))) {
        cachedStamp_ = stamp;
        cachedMap_ = map;
    } else {
        cachedStamp_.reset();
    }
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
