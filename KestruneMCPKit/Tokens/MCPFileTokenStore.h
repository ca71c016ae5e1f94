// A token store in one JSON file: an object from harness id to token. Every
// operation reads the file under the store's lock. A missing file reads as
// empty. A file that cannot be read (a link, not a regular file, over
// maxTokenBytes) or decoded (an array, garbage, a non-text value) reads as
// empty too, and is never saved over: set and remove then fail and say why.
// Saving writes a temporary file that replaces the target, mode 0600.
// Thread-safe; the read-change-save of set and remove is atomic with respect
// to other callers in this process.
//
// The decoded map is cached together with the file's stamp (inode, size,
// modification time); a read whose stamp matches uses the cache, so a
// lookup costs one lstat() while the file is unchanged.
#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "KestruneMCPKit/Tokens/MCPTokenStore.h"
#include "MailCore/Common/PrivateFiles.h"

namespace mcpkit {

class MCPFileTokenStore final : public MCPTokenStore {
public:
    static constexpr std::size_t maxTokenBytes = 1024 * 1024;

    explicit MCPFileTokenStore(
        std::filesystem::path url,
        std::shared_ptr<const mailcore::PrivateFiles> files = mailcore::systemFiles());

    std::optional<std::string> token(const std::string& id) override;
    std::optional<std::string> set(const std::string& token, const std::string& id) override;
    std::optional<std::string> remove(const std::string& id) override;

    const std::filesystem::path& url() const { return url_; }

private:
    struct Loaded {
        std::map<std::string, std::string> map;
        std::optional<std::string> problem;  // the file exists but cannot be used
    };
    Loaded readLocked() const;
    std::optional<std::string> saveLocked(const std::map<std::string, std::string>& map) const;

    const std::filesystem::path url_;
    const std::shared_ptr<const mailcore::PrivateFiles> files_;
    std::mutex lock_;
    mutable std::optional<mailcore::FileStamp> cachedStamp_;  // guarded by lock_
    mutable std::map<std::string, std::string> cachedMap_;    // guarded by lock_
};

}  // namespace mcpkit
