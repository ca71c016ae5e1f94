// Helpers for the agent-link tests: raw socket clients, and running a piece
// of code as another user in a forked child.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>

#include "tests/fakes/TestFiles.h"

namespace linktest {

using testfiles::TempDir;  // for suites written before it moved

// Connects to a Unix socket without any peer check; -1 on failure.
int rawConnect(const std::string& path);

// Reads until end of stream or `timeout`; what was read.
std::string readAll(int fd, std::chrono::milliseconds timeout = std::chrono::seconds(10));

// Reads one line (without its line feed) or none at end of stream / timeout.
std::optional<std::string> readLine(int fd,
                                    std::chrono::milliseconds timeout = std::chrono::seconds(10));

// True when the tests run as root, so a child can switch to another user.
bool canSwitchUser();

// The uid and gid of "nobody" (65534 when the account is missing).
uid_t otherUserID();
gid_t otherGroupID();

// A forked child that switches to otherUserID() at once, then waits until
// go() before it runs `body` and exits with its value. Create it before the
// test starts threads, so the child never inherits a lock held by another
// thread.
class OtherUserProcess {
public:
    explicit OtherUserProcess(std::function<int()> body);
    ~OtherUserProcess();
    OtherUserProcess(const OtherUserProcess&) = delete;
    OtherUserProcess& operator=(const OtherUserProcess&) = delete;

    void go();
    // The child's exit status (120 when it could not switch user), or -1.
    int wait();

private:
    pid_t pid_ = -1;
    int goFD_ = -1;
};

}  // namespace linktest
