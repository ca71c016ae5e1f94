// Small helpers that many suites need: a temporary directory, whole-file
// reads and writes, modes and directory listings, a clock the test steps by hand, Python's tomllib
// as an independent TOML reader, and the built kestrune-mcp run as a process.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "MailCore/Common/Clock.h"
#include "MailCore/Common/Json.h"

namespace testfiles {

// A fresh private directory /tmp/kt-XXXXXX (short, so that socket paths
// below it stay under 104 bytes), removed with its contents on destruction
// even when a test changed modes inside it.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path operator/(const std::string& name) const { return path_ / name; }
    std::string file(const std::string& name) const { return (path_ / name).string(); }

private:
    std::filesystem::path path_;
};

// The whole file; empty when it cannot be read.
std::string readFile(const std::filesystem::path& path);
// Replaces the file, creating missing parent directories.
void writeFile(const std::filesystem::path& path, const std::string& bytes);
// Permission bits of the path itself (not a link's target); 0 when missing.
unsigned fileMode(const std::filesystem::path& path);
// Names of the entries of `dir` that start with `prefix`, sorted.
std::vector<std::string> namesIn(const std::filesystem::path& dir, const std::string& prefix = "");
// Every path below `dir`, relative to it, sorted.
std::vector<std::string> tree(const std::filesystem::path& dir);
// Splits text at line feeds; a last piece without one counts as a line.
std::vector<std::string> splitLines(const std::string& text);

// The error of type E that `action` throws; none when it returns normally.
// Other exceptions pass through and fail the test.
template <typename E>
std::optional<E> caught(const std::function<void()>& action) {
    try {
        action();
    } catch (const E& error) {
        return error;
    }
    return std::nullopt;
}

// A clock that stands still until the test moves it; copies share the time.
class FakeClock {
public:
    explicit FakeClock(double secondsSince1970 = 1'767'225'600.0);  // 2026-01-01T00:00:00Z
    mailcore::Clock clock() const;
    mailcore::Date now() const;
    void advance(std::chrono::duration<double> by);

private:
    struct State {
        std::mutex lock;
        mailcore::Date now;
    };
    std::shared_ptr<State> state_;
};

// Parses each text with Python 3's tomllib in one run; values without a JSON
// form come back as text. Throws std::runtime_error with Python's message
// for the first text tomllib refuses.
std::vector<mailcore::Json> readTOMLWithPython(const std::vector<std::string>& texts);

// The built kestrune-mcp: KESTRUNE_BINARY_DIR under ctest, else found from
// this test executable's place in the build tree.
std::string helperPath();

struct ProcessOutcome {
    int status = -1;  // exit status; -1 when killed or it did not exit
    std::string out;
    std::string err;
};

// Runs the helper with `args` and exactly `env` (plus this process's
// sanitizer settings), writes `input` to its stdin and closes it, and
// collects stdout and stderr until it exits (killed after 30 s).
ProcessOutcome runHelper(const std::vector<std::string>& args, std::vector<std::string> env,
                         const std::string& input = "");
// The same for any program.
ProcessOutcome runProgram(const std::string& exe, const std::vector<std::string>& args,
                          std::vector<std::string> env, const std::string& input = "");

}  // namespace testfiles
