#include "tests/fakes/FaultyFiles.h"

namespace testfakes {

void FaultyFiles::failWrites(int n, bool forGood, std::string reason) {
    std::lock_guard guard(lock_);
    failAt_ = writes_.load() + n;
    forGood_ = forGood;
    reason_ = std::move(reason);
}

void FaultyFiles::refuseReads(const std::filesystem::path& path, std::string problem) {
    std::lock_guard guard(lock_);
    refusedPath_ = path;
    refusal_ = std::move(problem);
}

void FaultyFiles::heal() {
    std::lock_guard guard(lock_);
    failAt_ = 0;
    refusedPath_.reset();
}

bool FaultyFiles::nextWriteFails(std::string* error) const {
    std::lock_guard guard(lock_);
    const int count = ++writes_;
    const bool fails = failAt_ != 0 && (forGood_ ? count >= failAt_ : count == failAt_);
    if (fails && error) *error = reason_;
    return fails;
}

mailcore::FileRead FaultyFiles::read(const std::filesystem::path& path,
                                     std::size_t maxBytes) const {
    ++reads_;
    {
        std::lock_guard guard(lock_);
        if (refusedPath_ == path) {
            mailcore::FileRead refused;
            refused.status = mailcore::FileRead::Status::refused;
            refused.problem = refusal_;
            return refused;
        }
    }
    return real_->read(path, maxBytes);
}

std::optional<mailcore::FileStamp> FaultyFiles::stamp(const std::filesystem::path& path) const {
    return real_->stamp(path);
}

std::optional<mailcore::FileStamp> FaultyFiles::writeAtomically(
    const std::filesystem::path& path, std::string_view data, std::string* error,
    const mailcore::WriteOptions& options) const {
    if (nextWriteFails(error)) return std::nullopt;
    return real_->writeAtomically(path, data, error, options);
}

bool FaultyFiles::append(const std::filesystem::path& path, std::string_view data,
                         std::string* error) const {
    if (nextWriteFails(error)) return false;
    return real_->append(path, data, error);
}

}  // namespace testfakes
