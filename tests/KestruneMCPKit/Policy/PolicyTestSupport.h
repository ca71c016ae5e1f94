// Helpers shared by the policy and audit suites: a private temporary
// directory removed at the end of the test, a clock that tests step by hand,
// and small file inspections.
#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>

#include "MailCore/Common/Clock.h"

namespace mcpkit::testing {

class TemporaryDirectory {
public:
    TemporaryDirectory() {
        std::string pattern = (std::filesystem::temp_directory_path() / "kestrune-policy-XXXXXX");
        if (!::mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
        path_ = pattern;
    }
    ~TemporaryDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

private:
    std::filesystem::path path_;
};

// A clock that stands still until the test moves it.
class FakeClock {
public:
    explicit FakeClock(double secondsSince1970 = 1'767'225'600.0)  // 2026-01-01T00:00:00Z
        : state_(std::make_shared<State>()) {
        state_->now = mailcore::dateFromSeconds(secondsSince1970);
    }

    mailcore::Clock clock() const {
        auto state = state_;
        return [state] {
            std::lock_guard guard(state->lock);
            return state->now;
        };
    }
    mailcore::Date now() const {
        std::lock_guard guard(state_->lock);
        return state_->now;
    }
    void advance(std::chrono::duration<double> by) {
        std::lock_guard guard(state_->lock);
        state_->now += std::chrono::duration_cast<std::chrono::system_clock::duration>(by);
    }

private:
    struct State {
        std::mutex lock;
        mailcore::Date now;
    };
    std::shared_ptr<State> state_;
};

inline unsigned fileMode(const std::filesystem::path& path) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) return 0;
    return st.st_mode & 07777;
}

inline std::string readText(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

inline void writeText(const std::filesystem::path& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
}

}  // namespace mcpkit::testing
