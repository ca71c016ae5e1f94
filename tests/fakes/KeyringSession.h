// A private Secret Service for tests: a D-Bus session daemon on a socket in
// a temporary directory and gnome-keyring-daemon (secrets component) on it,
// its login keyring created and unlocked with a test password. Both are
// started by the fixture and stopped by their process ids. `available()`
// is false (and `why` says why) where the programs are missing.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <string>

namespace testfiles {

class KeyringSession {
public:
    // `root`: an existing private directory for the bus socket and keyrings.
    explicit KeyringSession(const std::filesystem::path& root);
    ~KeyringSession();
    KeyringSession(const KeyringSession&) = delete;
    KeyringSession& operator=(const KeyringSession&) = delete;

    bool available() const { return ready_; }
    const std::string& why() const { return why_; }
    // "unix:path=<root>/bus": the value of DBUS_SESSION_BUS_ADDRESS.
    const std::string& busAddress() const { return address_; }
    // Runs `secret-tool lookup` with the attributes; the secret, or "" .
    std::string lookup(const std::string& attributes) const;

private:
    pid_t bus_ = -1;
    pid_t keyring_ = -1;
    bool ready_ = false;
    std::string why_;
    std::string address_;
    std::filesystem::path root_;
};

}  // namespace testfiles
