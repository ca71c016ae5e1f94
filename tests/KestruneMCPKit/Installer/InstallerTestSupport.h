// Temporary homes, file helpers and the Python TOML reader for the installer
// tests.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "MailCore/Common/Clock.h"
#include "MailCore/Common/Json.h"

namespace installertest {

// A fresh directory below the system's temporary directory, removed with
// everything in it when the object goes away.
class TemporaryHome {
public:
    TemporaryHome();
    ~TemporaryHome();
    TemporaryHome(const TemporaryHome&) = delete;
    TemporaryHome& operator=(const TemporaryHome&) = delete;
    const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
};

std::string readFile(const std::filesystem::path& path);
void writeFile(const std::filesystem::path& path, const std::string& bytes);

// The names of the files in `dir` that start with `prefix`, sorted.
std::vector<std::string> filesStartingWith(const std::filesystem::path& dir,
                                           const std::string& prefix);

// Parses `path` with Python 3's tomllib and returns the document as JSON;
// throws std::runtime_error with Python's message when tomllib refuses it.
mailcore::Json readTOMLWithPython(const std::filesystem::path& path);

// Parses each of `texts` with tomllib in one Python run (the files are written
// into `dir`); throws like readTOMLWithPython for the first one refused.
std::vector<mailcore::Json> readTOMLTextsWithPython(const std::filesystem::path& dir,
                                                    const std::vector<std::string>& texts);

// A clock that tests set and step by hand.
struct ManualClock {
    mailcore::Date now = mailcore::dateFromSeconds(1767225600);  // 2026-01-01 00:00:00 UTC
    mailcore::Clock clock() {
        return [this] { return now; };
    }
    void advance(int seconds) { now += std::chrono::seconds(seconds); }
};

}  // namespace installertest
