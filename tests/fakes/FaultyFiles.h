// A PrivateFiles over the real file system that fails on request: every
// write or append from the Nth on (once or for good), or every read of one
// path as refused. Counts what it was asked to do. Thread-safe.
#pragma once

#include <atomic>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>

#include "MailCore/Common/PrivateFiles.h"

namespace testfakes {

class FaultyFiles final : public mailcore::PrivateFiles {
public:
    // The `n`th write or append from now (1 = the next) and, when `forGood`,
    // every later one fails with `reason`; the file is left untouched.
    void failWrites(int n, bool forGood = true, std::string reason = "No space left on device");
    void refuseReads(const std::filesystem::path& path, std::string problem);
    void heal();

    int writes() const { return writes_.load(); }
    int reads() const { return reads_.load(); }

    mailcore::FileRead read(const std::filesystem::path& path, std::size_t maxBytes) const override;
    std::optional<mailcore::FileStamp> stamp(const std::filesystem::path& path) const override;
    std::optional<mailcore::FileStamp> writeAtomically(
        const std::filesystem::path& path, std::string_view data, std::string* error,
        const mailcore::WriteOptions& options) const override;
    bool append(const std::filesystem::path& path, std::string_view data,
                std::string* error) const override;

private:
    bool nextWriteFails(std::string* error) const;

    std::shared_ptr<const mailcore::PrivateFiles> real_ = mailcore::systemFiles();
    mutable std::mutex lock_;
    mutable int failAt_ = 0;                            // guarded by lock_; 0: no failure planned
    bool forGood_ = false;                              // guarded by lock_
    std::string reason_;                                // guarded by lock_
    std::optional<std::filesystem::path> refusedPath_;  // guarded by lock_
    std::string refusal_;                               // guarded by lock_
    mutable std::atomic<int> writes_{0};
    mutable std::atomic<int> reads_{0};
};

}  // namespace testfakes
