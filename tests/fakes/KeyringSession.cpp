#include "tests/fakes/KeyringSession.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <thread>
#include <vector>

namespace testfiles {
namespace {

// Starts `argv` with `env` added to this process's environment; its stdin
// is `input` (or /dev/null), its output goes to /dev/null.
pid_t start(const std::vector<std::string>& argv, const std::vector<std::string>& env,
            int input = -1) {
    const pid_t pid = ::fork();
    if (pid != 0) return pid;
    for (const auto& e : env) ::putenv(const_cast<char*>(e.c_str()));
    const int null = ::open("/dev/null", O_RDWR);
    ::dup2(input >= 0 ? input : null, 0);
    ::dup2(null, 1);
    ::dup2(null, 2);
    std::vector<char*> args;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    ::execvp(args[0], args.data());
    ::_exit(127);
}

void stop(pid_t pid) {
    if (pid <= 0) return;
    ::kill(pid, SIGTERM);
    for (int i = 0; i < 50; ++i) {
        if (::waitpid(pid, nullptr, WNOHANG) == pid) return;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
}

std::string capture(const std::string& command) {
    std::string out;
    FILE* pipe = ::popen(command.c_str(), "r");
    if (!pipe) return out;
    char buffer[1024];
    std::size_t n;
    while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) out.append(buffer, n);
    ::pclose(pipe);
    return out;
}

}  // namespace

KeyringSession::KeyringSession(const std::filesystem::path& root) : root_(root) {
    if (std::system("command -v dbus-daemon gnome-keyring-daemon secret-tool >/dev/null") != 0) {
        why_ = "dbus-daemon, gnome-keyring-daemon or secret-tool is not installed";
        return;
    }
    address_ = "unix:path=" + (root / "bus").string();
    bus_ =
        start({"dbus-daemon", "--session", "--nofork", "--nopidfile", "--address=" + address_}, {});
    const std::vector<std::string> env{
        "DBUS_SESSION_BUS_ADDRESS=" + address_, "HOME=" + root.string(),
        "XDG_DATA_HOME=" + (root / "data").string(), "XDG_RUNTIME_DIR=" + root.string()};
    for (int i = 0; i < 100 && !std::filesystem::exists(root / "bus"); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    int password[2];
    if (::pipe2(password, O_CLOEXEC) != 0) return;
    keyring_ = start({"gnome-keyring-daemon", "--foreground", "--unlock", "--components=secrets"},
                     env, password[0]);
    ::close(password[0]);
    const char secret[] = "keyring-test-password";
    if (::write(password[1], secret, sizeof secret - 1) < 0) why_ = "cannot unlock the keyring";
    ::close(password[1]);
    // Our daemon must own the name before anything asks for it: a request
    // for an unowned name would make the bus start a keyring of its own.
    const std::string prefix = "DBUS_SESSION_BUS_ADDRESS='" + address_ + "' ";
    const std::string owned =
        prefix +
        "dbus-send --session --print-reply --dest=org.freedesktop.DBus /org/freedesktop/DBus "
        "org.freedesktop.DBus.NameHasOwner string:org.freedesktop.secrets 2>/dev/null";
    for (int i = 0; i < 100 && capture(owned).find("true") == std::string::npos; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    // Ready once a stored item can be read back through the bus.
    for (int i = 0; i < 20 && !ready_; ++i) {
        std::system((prefix + "sh -c 'printf probe | secret-tool store --label=probe "
                              "kestrune-test probe' >/dev/null 2>&1")
                        .c_str());
        ready_ = lookup("kestrune-test probe") == "probe";
        if (!ready_) std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    if (!ready_ && why_.empty()) why_ = "the Secret Service did not come up";
}

KeyringSession::~KeyringSession() {
    stop(keyring_);
    stop(bus_);
}

std::string KeyringSession::lookup(const std::string& attributes) const {
    return capture("DBUS_SESSION_BUS_ADDRESS='" + address_ + "' secret-tool lookup " + attributes +
                   " 2>/dev/null");
}

}  // namespace testfiles
