#include "KestruneMCPKit/Policy/MCPPolicyStore.h"

#include <nlohmann/json.hpp>

#include "KestruneMCPKit/Tokens/MCPToken.h"
#include "MailCore/Common/Json.h"

namespace mcpkit {

MCPPolicyStore::MCPPolicyStore(std::optional<std::filesystem::path> fileURL,
                               std::shared_ptr<MCPTokenStore> tokens, mailcore::Clock clock)
    : fileURL_(std::move(fileURL)), tokens_(std::move(tokens)), clock_(std::move(clock)) {
    std::lock_guard guard(lock_);
    reloadLocked();
}

bool MCPPolicyStore::reloadLocked() {
    if (!fileURL_) return false;
    auto stamp = MCPPrivateFile::stamp(*fileURL_);
    if (loadedOnce_ && stamp == lastModified_) return false;
    loadedOnce_ = true;
    if (!stamp) {
        // No file: the default state.
        lastModified_ = std::nullopt;
        lastLoadError_ = std::nullopt;
        MCPState fresh;
        if (fresh == state_) return false;
        state_ = std::move(fresh);
        return true;
    }
    auto text = MCPPrivateFile::read(*fileURL_);
    // The stamp is taken again after reading: a write that lands in between
    // is then seen by the next check instead of being mistaken for this one.
    auto after = MCPPrivateFile::stamp(*fileURL_);
    lastModified_ = after == stamp ? stamp : std::nullopt;
    if (!after) loadedOnce_ = false;
    if (!text) {
        lastLoadError_ = "The agent-access state file " + fileURL_->string() +
                         " cannot be read; the last good state stays in effect.";
        return false;
    }
    mailcore::Json json;
    if (!mailcore::tryParseJson(*text, json) || !json.is_object()) {
        lastLoadError_ = "The agent-access state file " + fileURL_->string() +
                         " is not a valid JSON object; the last good state stays in effect.";
        return false;
    }
    lastLoadError_ = std::nullopt;
    MCPState loaded = stateFromJson(json);
    if (loaded == state_) return false;
    state_ = std::move(loaded);
    return true;
}

bool MCPPolicyStore::saveLocked() {
    if (!fileURL_) return true;
    std::string text =
        toJson(state_).dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
    text.push_back('\n');
    std::string error;
    auto stamp = MCPPrivateFile::writeAtomically(*fileURL_, text, &error);
    if (!stamp) {
        lastSaveError_ = "Saving " + fileURL_->string() + " failed (" + error + ").";
        return false;
    }
    lastSaveError_ = std::nullopt;
    lastLoadError_ = std::nullopt;  // the file on disk is valid again
    lastModified_ = stamp;
    loadedOnce_ = true;
    return true;
}

void MCPPolicyStore::notify(bool changed) {
    if (!changed) return;
    std::function<void()> callback;
    {
        std::lock_guard guard(lock_);
        callback = onChange_;
    }
    if (callback) callback();
}

MCPState MCPPolicyStore::snapshot() {
    MCPState copy;
    bool changed;
    {
        std::lock_guard guard(lock_);
        changed = reloadLocked();
        copy = state_;
    }
    notify(changed);
    return copy;
}

bool MCPPolicyStore::reloadIfChanged() {
    bool changed;
    {
        std::lock_guard guard(lock_);
        changed = reloadLocked();
    }
    notify(changed);
    return changed;
}

void MCPPolicyStore::mutate(const std::function<void(MCPState&)>& change) {
    bool changed;
    {
        std::lock_guard guard(lock_);
        changed = reloadLocked();
        MCPState before = state_;
        change(state_);
        if (!(state_ == before)) {
            saveLocked();
            changed = true;
        }
    }
    notify(changed);
}

std::optional<MCPHarnessRecord> MCPPolicyStore::harness(const std::string& token) {
    if (token.empty()) return std::nullopt;
    std::vector<MCPHarnessRecord> records;
    {
        std::lock_guard guard(lock_);
        records = state_.harnesses;
    }
    std::optional<MCPHarnessRecord> found;
    for (auto& record : records) {
        auto stored = tokens_->token(record.id);
        if (stored && !stored->empty() && MCPToken::equal(*stored, token) && !found) {
            found = std::move(record);
        }
    }
    return found;
}

void MCPPolicyStore::touch(const std::string& harnessID, mailcore::Date at) {
    mutate([&](MCPState& state) {
        if (auto* record = state.harness(harnessID)) record->lastSeen = wholeSeconds(at);
    });
}

bool MCPPolicyStore::bindClientName(const std::string& clientName, const std::string& harnessID) {
    bool bound = false;
    mutate([&](MCPState& state) {
        auto* record = state.harness(harnessID);
        if (record && !record->boundClientName) {
            record->boundClientName = clientName;
            bound = true;
        }
    });
    return bound;
}

void MCPPolicyStore::registerHarness(const std::string& id, const std::string& name,
                                     const std::vector<std::string>& hints,
                                     const std::string& token) {
    tokens_->set(token, id);
    MCPHarnessRecord record;
    record.id = id;
    record.name = name;
    record.allowed = true;
    record.createdAt = wholeSeconds(clock_());
    record.clientHints = hints;
    mutate([&](MCPState& state) {
        if (auto* existing = state.harness(id)) {
            *existing = record;
        } else {
            state.harnesses.push_back(record);
        }
    });
}

void MCPPolicyStore::unregister(const std::string& id) {
    mutate([&](MCPState& state) {
        std::erase_if(state.harnesses, [&](const MCPHarnessRecord& h) { return h.id == id; });
    });
    tokens_->remove(id);
}

bool MCPPolicyStore::save() {
    std::lock_guard guard(lock_);
    return saveLocked();
}

void MCPPolicyStore::setOnChange(std::function<void()> onChange) {
    std::lock_guard guard(lock_);
    onChange_ = std::move(onChange);
}

std::optional<std::string> MCPPolicyStore::lastLoadError() const {
    std::lock_guard guard(lock_);
    return lastLoadError_;
}

std::optional<std::string> MCPPolicyStore::lastSaveError() const {
    std::lock_guard guard(lock_);
    return lastSaveError_;
}

}  // namespace mcpkit
