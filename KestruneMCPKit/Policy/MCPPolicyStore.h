// The agent-access state on disk ("state.json") and in memory. Consulted on
// every request: snapshot() first reloads the file when another process (the
// settings window, the installer) changed it, so edits take effect on the
// next request. Harness tokens live only in the token store.
//
// Loading: a missing file is the default state. A file that cannot be read
// (a link, a FIFO, over maxStateBytes, unreadable) or is not a JSON object
// keeps the last good state, and the failure stays visible through
// lastLoadError() until a later load succeeds. Such a file is never saved
// over: changes are refused meanwhile and lastSaveError() says why. Settings
// decode fail-closed (see MCPState.h). Saving writes a temporary file that
// replaces the target, mode 0600; a failed save keeps the change in memory
// and is visible through lastSaveError().
//
// Thread-safe: the cached state, the file and the change callback are guarded
// by one lock; the token store is called outside it, and onChange runs after
// the lock is released, so the callback may call back into the store.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "KestruneMCPKit/Policy/MCPState.h"
#include "KestruneMCPKit/Tokens/MCPTokenStore.h"
#include "MailCore/Common/Clock.h"
#include "MailCore/Common/PrivateFiles.h"

namespace mcpkit {

class MCPPolicyStore {
public:
    // A state file larger than this is refused unread.
    static constexpr std::size_t maxStateBytes = 4 * 1024 * 1024;

    // `fileURL` none keeps the state in memory only. Loads the file if present.
    MCPPolicyStore(std::optional<std::filesystem::path> fileURL,
                   std::shared_ptr<MCPTokenStore> tokens,
                   mailcore::Clock clock = mailcore::systemClock(),
                   std::shared_ptr<const mailcore::PrivateFiles> files = mailcore::systemFiles());

    MCPPolicyStore(const MCPPolicyStore&) = delete;
    MCPPolicyStore& operator=(const MCPPolicyStore&) = delete;

    // A copy of the current state, reloaded first when the file changed.
    MCPState snapshot();

    // Reloads the file, applies `change` to the state under the lock and saves
    // when the state differs; runs onChange when it does. `change` must not
    // call back into the store. False when the change could not be saved
    // (lastSaveError() says why): after a failed write the change stays in
    // memory; while the file cannot be read it is not applied at all.
    bool mutate(const std::function<void(MCPState&)>& change);

    // Re-reads the file when its identity, size or modification time differs
    // from the last load or save. True when the cached state changed (the
    // change callback has then run).
    bool reloadIfChanged();

    // The record whose stored token equals `token` (compared in constant
    // time), or none. An empty token matches nothing. Uses the cached state.
    std::optional<MCPHarnessRecord> harness(const std::string& token);

    // Sets the harness's lastSeen (stored in whole seconds); nothing when the
    // id is not registered.
    void touch(const std::string& harnessID, mailcore::Date at);

    // Binds `clientName` to the harness when no name is bound yet; a bound
    // name is never replaced. True when this call bound it.
    bool bindClientName(const std::string& clientName, const std::string& harnessID);

    // Adds the harness, or replaces the record with the same id, as a fresh
    // registration (allowed, created now, the hints, nothing bound), and
    // stores `token` in the token store. False when the token store or the
    // state could not be saved (lastSaveError() says why).
    bool registerHarness(const std::string& id, const std::string& name,
                         const std::vector<std::string>& hints, const std::string& token);

    // Removes the record and its token. The token is removed only when the
    // state without the record was saved; false (and nothing removed from
    // the token store) otherwise.
    bool unregister(const std::string& id);

    // Writes the cached state to the file. True on success or when the store
    // has no file.
    bool save();

    void setOnChange(std::function<void()> onChange);

    std::optional<std::string> lastLoadError() const;
    std::optional<std::string> lastSaveError() const;

    // For a command that must not change a state file it could not read: the
    // load error followed by what the user can do about it; none when the
    // file was read (or is missing).
    std::optional<std::string> refusalToChange() const;

    MCPTokenStore& tokens() { return *tokens_; }
    const std::optional<std::filesystem::path>& fileURL() const { return fileURL_; }

private:
    bool reloadLocked();
    bool saveLocked();
    void notify(bool changed);

    const std::optional<std::filesystem::path> fileURL_;
    const std::shared_ptr<MCPTokenStore> tokens_;
    const mailcore::Clock clock_;
    const std::shared_ptr<const mailcore::PrivateFiles> files_;

    mutable std::mutex lock_;
    MCPState state_;                                   // guarded by lock_
    std::optional<mailcore::FileStamp> lastModified_;  // guarded by lock_
    bool loadedOnce_ = false;                          // guarded by lock_
    std::function<void()> onChange_;                   // guarded by lock_
    std::optional<std::string> lastLoadError_;         // guarded by lock_
    std::optional<std::string> lastSaveError_;         // guarded by lock_
};

}  // namespace mcpkit
