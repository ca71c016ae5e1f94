#include "KestruneMCPKit/Tokens/MCPFileTokenStore.h"

#include <nlohmann/json.hpp>

#include "MailCore/Common/Json.h"

namespace mcpkit {

MCPFileTokenStore::MCPFileTokenStore(std::filesystem::path url,
                                     std::shared_ptr<const mailcore::PrivateFiles> files)
    : url_(std::move(url)), files_(std::move(files)) {}

namespace {

std::optional<std::map<std::string, std::string>> decodeTokens(const std::string& text) {
    std::map<std::string, std::string> map;
    mailcore::Json json;
    if (!mailcore::tryParseJson(text, json) || !json.is_object()) return std::nullopt;
    for (const auto& [id, value] : json.items()) {
        // One value that is not text makes the whole file undecodable.
        if (!value.is_string()) return std::nullopt;
        map[id] = value.get<std::string>();
    }
    return map;
}

}  // namespace

MCPFileTokenStore::Loaded MCPFileTokenStore::readLocked() const {
    auto before = files_->stamp(url_);
    if (!before) {
        cachedStamp_.reset();
        return {};
    }
    if (before == cachedStamp_) return {cachedMap_, std::nullopt};
    cachedStamp_.reset();
    auto file = files_->read(url_, maxTokenBytes);
    if (file.missing()) return {};
    if (file.refused()) return {{}, "the token file " + url_.string() + " " + file.problem};
    auto map = decodeTokens(file.bytes);
    if (!map) return {{}, "the token file " + url_.string() + " is not a JSON object of texts"};
    // Cached only when the file did not change while it was read.
    if (files_->stamp(url_) == file.stamp) {
        cachedStamp_ = file.stamp;
        cachedMap_ = *map;
    }
    return {std::move(*map), std::nullopt};
}

std::optional<std::string> MCPFileTokenStore::saveLocked(
    const std::map<std::string, std::string>& map) const {
    mailcore::Json json = mailcore::Json::object();
    for (const auto& [id, token] : map) json[id] = token;
    std::string error;
    if (auto stamp = files_->writeAtomically(url_, mailcore::encodeJson(json), &error)) {
        cachedStamp_ = stamp;
        cachedMap_ = map;
        return std::nullopt;
    }
    cachedStamp_.reset();
    return "saving " + url_.string() + " failed (" + error + ")";
}

std::optional<std::string> MCPFileTokenStore::token(const std::string& id) {
    std::lock_guard guard(lock_);
    auto loaded = readLocked();
    auto it = loaded.map.find(id);
    if (it == loaded.map.end()) return std::nullopt;
    return it->second;
}

std::optional<std::string> MCPFileTokenStore::set(const std::string& token, const std::string& id) {
    std::lock_guard guard(lock_);
    auto loaded = readLocked();
    if (loaded.problem) return loaded.problem;
    loaded.map[id] = token;
    return saveLocked(loaded.map);
}

std::optional<std::string> MCPFileTokenStore::remove(const std::string& id) {
    std::lock_guard guard(lock_);
    auto loaded = readLocked();
    if (loaded.problem) return loaded.problem;
    if (loaded.map.erase(id) == 0) return std::nullopt;
    return saveLocked(loaded.map);
}

}  // namespace mcpkit
