// A fresh directory under the system's temporary directory, removed with
// everything in it when the object goes away.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>

namespace mailcore::testing {

class TempDirectory {
public:
    TempDirectory() {
        std::string pattern = (std::filesystem::temp_directory_path() / "kestrune-wf-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr) std::abort();
        path_ = pattern;
    }
    ~TempDirectory() {
        std::error_code ignored;
        std::filesystem::permissions(path_, std::filesystem::perms::owner_all, ignored);
        std::filesystem::remove_all(path_, ignored);
    }
    TempDirectory(const TempDirectory&) = delete;
    TempDirectory& operator=(const TempDirectory&) = delete;

    const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
};

}  // namespace mailcore::testing
