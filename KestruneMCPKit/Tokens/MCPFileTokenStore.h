// A token store in one JSON file: an object from harness id to token. Every
// operation reads the file under the store's lock; a missing, unreadable or
// undecodable file (an array, garbage, a non-text value) reads as empty, and
// the next set or remove replaces it with a valid object. Saving writes a
// temporary file that replaces the target, then sets mode 0600; a failed save
// is silent. Thread-safe; the read-change-save of set and remove is atomic
// with respect to other callers in this process.
//
// The decoded map is cached together with the file's stamp (inode, size,
// modification time); a read whose stamp matches uses the cache, so a
// lookup costs one stat() while the file is unchanged.
#pragma once

#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "KestruneMCPKit/Link/MCPPrivateFile.h"
#include "KestruneMCPKit/Tokens/MCPTokenStore.h"

namespace mcpkit {

class MCPFileTokenStore final : public MCPTokenStore {
public:
    explicit MCPFileTokenStore(std::filesystem::path url);

    std::optional<std::string> token(const std::string& id) override;
    void set(const std::string& token, const std::string& id) override;
    void remove(const std::string& id) override;

    const std::filesystem::path& url() const { return url_; }

private:
    std::map<std::string, std::string> readLocked() const;
    void saveLocked(const std::map<std::string, std::string>& map) const;

    const std::filesystem::path url_;
    std::mutex lock_;
    mutable std::optional<MCPPrivateFile::Stamp> cachedStamp_;  // guarded by lock_
    mutable std::map<std::string, std::string> cachedMap_;      // guarded by lock_
};

}  // namespace mcpkit
