#include "KestruneMCPKit/Policy/MCPPolicyStore.h"

#include <nlohmann/json.hpp>

#include "KestruneMCPKit/Tokens/MCPToken.h"
#include "MailCore/Common/Json.h"

namespace mcpkit {

MCPPolicyStore::MCPPolicyStore(std::optional<std::filesystem::path> fileURL,
                               std::shared_ptr<MCPTokenStore> tokens, mailcore::Clock clock,
                               std::shared_ptr<const mailcore::PrivateFiles> files)
    : fileURL_(std::move(fileURL)),
      tokens_(std::move(tokens)),
      clock_(std::move(clock)),
      files_(std::move(files)) {
    std::lock_guard guard(lock_);
    reloadLocked();
}

bool MCPPolicyStore::reloadLocked() {
    if (!fileURL_) return false;
    auto stamp = files_->stamp(*fileURL_);
    if (loadedOnce_ && stamp == lastModified_) return false;
    loadedOnce_ = true;
    // Opened without following links and without blocking, so that nothing
    // planted at the path can hold the lock.
    auto file = stamp ? files_->read(*fileURL_, maxStateBytes) : mailcore::FileRead{};
    if (file.missing()) {
        // No file: the default state.
        lastModified_ = std::nullopt;
        lastLoadError_ = std::nullopt;
        MCPState fresh;
        if (fresh == state_) return false;
        state_ = std::move(fresh);
        return true;
    }
    // Compared again after reading: a write that lands in between is then
    // seen by the next check instead of being mistaken for this one.
    lastModified_ = files_->stamp(*fileURL_) == stamp ? stamp : std::nullopt;
    if (!lastModified_) loadedOnce_ = false;
    if (file.refused()) {
        lastLoadError_ = "The agent-access state file " + fileURL_->string() + " " + file.problem +
                         "; the last good state stays in effect.";
        return false;
    }
    mailcore::Json json;
    if (!mailcore::tryParseJson(file.bytes, json) || !json.is_object()) {
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
    if (lastLoadError_) {
        // The file holds the user's decisions in a form this store could not
        // read: writing the cached state would replace them.
        lastSaveError_ = "Not saved: " + *lastLoadError_;
        return false;
    }
    std::string text =
        toJson(state_).dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
    text.push_back('\n');
    std::string error;
    auto stamp = files_->writeAtomically(*fileURL_, text, &error);
    if (!stamp) {
        lastSaveError_ = "Saving " + fileURL_->string() + " failed (" + error + ").";
        return false;
    }
    lastSaveError_ = std::nullopt;
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

bool MCPPolicyStore::mutate(const std::function<void(MCPState&)>& change) {
    bool changed;
    bool saved = true;
    {
        std::lock_guard guard(lock_);
        changed = reloadLocked();
        if (fileURL_ && lastLoadError_) {
            // The user's decisions are in a file this store could not read:
            // a change now would act on the wrong state and replace them.
            lastSaveError_ = "Not saved: " + *lastLoadError_;
            saved = false;
        } else {
            MCPState before = state_;
            change(state_);
            if (!(state_ == before)) {
                saved = saveLocked();
                changed = true;
            }
        }
    }
    notify(changed);
    return saved;
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

bool MCPPolicyStore::registerHarness(const std::string& id, const std::string& name,
                                     const std::vector<std::string>& hints,
                                     const std::string& token) {
    if (auto problem = tokens_->set(token, id)) {
        std::lock_guard guard(lock_);
        lastSaveError_ = "Saving the token failed: " + *problem + ".";
        return false;
    }
    MCPHarnessRecord record;
    record.id = id;
    record.name = name;
    record.allowed = true;
    record.createdAt = wholeSeconds(clock_());
    record.clientHints = hints;
    return mutate([&](MCPState& state) {
        if (auto* existing = state.harness(id)) {
            *existing = record;
        } else {
            state.harnesses.push_back(record);
        }
    });
}

bool MCPPolicyStore::unregister(const std::string& id) {
    if (!mutate([&](MCPState& state) {
            std::erase_if(state.harnesses, [&](const MCPHarnessRecord& h) { return h.id == id; });
        })) {
        return false;
    }
    if (auto problem = tokens_->remove(id)) {
        std::lock_guard guard(lock_);
        lastSaveError_ = "Removing the token failed: " + *problem + ".";
        return false;
    }
    return true;
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

std::optional<std::string> MCPPolicyStore::refusalToChange() const {
    std::lock_guard guard(lock_);
    if (!lastLoadError_ || !fileURL_) return std::nullopt;
    const std::string path = fileURL_->string();
    return *lastLoadError_ + " Nothing was changed. Repair the file, or move it aside (mv '" +
           path + "' '" + path + ".damaged') to start again from the default settings.";
}

std::optional<std::string> MCPPolicyStore::lastSaveError() const {
    std::lock_guard guard(lock_);
    return lastSaveError_;
}

}  // namespace mcpkit
