#include "tests/fakes/TestFiles.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace fs = std::filesystem;

namespace testfiles {

TempDir::TempDir() {
    char pattern[] = "/tmp/kt-XXXXXX";
    if (!::mkdtemp(pattern)) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
}

TempDir::~TempDir() {
    std::error_code error;
    // Tests may have tightened or loosened modes; make everything removable.
    for (auto it = fs::recursive_directory_iterator(path_, error);
         !error && it != fs::recursive_directory_iterator(); it.increment(error)) {
        if (!it->is_symlink())
            fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::add, error);
    }
    fs::remove_all(path_, error);
}

std::string readFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream buffer;
    buffer << in.rdbuf();
    return buffer.str();
}

void writeFile(const fs::path& path, const std::string& bytes) {
    if (path.has_parent_path()) fs::create_directories(path.parent_path());
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << bytes;
    if (!out) throw std::runtime_error("cannot write " + path.string());
}

unsigned fileMode(const fs::path& path) {
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0) return 0;
    return st.st_mode & 07777;
}

std::vector<std::string> namesIn(const fs::path& dir, const std::string& prefix) {
    std::vector<std::string> names;
    std::error_code error;
    for (const auto& item : fs::directory_iterator(dir, error)) {
        std::string name = item.path().filename().string();
        if (name.rfind(prefix, 0) == 0) names.push_back(name);
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::vector<std::string> tree(const fs::path& dir) {
    std::vector<std::string> names;
    for (const auto& item : fs::recursive_directory_iterator(dir))
        names.push_back(fs::relative(item.path(), dir).string());
    std::sort(names.begin(), names.end());
    return names;
}

std::vector<std::string> splitLines(const std::string& text) {
    std::vector<std::string> out;
    std::size_t start = 0;
    while (start < text.size()) {
        std::size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        out.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return out;
}

FakeClock::FakeClock(double secondsSince1970) : state_(std::make_shared<State>()) {
    state_->now = mailcore::dateFromSeconds(secondsSince1970);
}

mailcore::Clock FakeClock::clock() const {
    auto state = state_;
    return [state] {
        std::lock_guard guard(state->lock);
        return state->now;
    };
}

mailcore::Date FakeClock::now() const {
    std::lock_guard guard(state_->lock);
    return state_->now;
}

void FakeClock::advance(std::chrono::duration<double> by) {
    std::lock_guard guard(state_->lock);
    state_->now += std::chrono::duration_cast<std::chrono::system_clock::duration>(by);
}

std::vector<mailcore::Json> readTOMLWithPython(const std::vector<std::string>& texts) {
    TempDir dir;
    const std::string script =
        "import json, sys, tomllib\n"
        "out = []\n"
        "for name in sys.argv[1:]:\n"
        "    try:\n"
        "        with open(name, 'rb') as f: out.append({'ok': tomllib.load(f)})\n"
        "    except Exception as e:\n"
        "        out.append({'error': str(e)})\n"
        "print(json.dumps(out, default=str))\n";
    writeFile(dir / "read.py", script);
    std::string command = "python3 '" + (dir / "read.py").string() + "'";
    for (std::size_t k = 0; k < texts.size(); ++k) {
        const fs::path path = dir / ("text-" + std::to_string(k) + ".toml");
        writeFile(path, texts[k]);
        command += " '" + path.string() + "'";
    }
    FILE* pipe = ::popen(command.c_str(), "r");
    if (!pipe) throw std::runtime_error("cannot start python3");
    std::string output;
    char buffer[4096];
    size_t n;
    while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) output.append(buffer, n);
    if (::pclose(pipe) != 0) throw std::runtime_error("python3 failed: " + output);
    std::vector<mailcore::Json> documents;
    for (const auto& item : mailcore::parseJson(output)) {
        if (item.contains("error"))
            throw std::runtime_error("tomllib: " + item["error"].get<std::string>());
        documents.push_back(item["ok"]);
    }
    return documents;
}

std::string helperPath() {
    if (const char* dir = std::getenv("KESTRUNE_BINARY_DIR"))
        return std::string(dir) + "/kestrune_mcp/kestrune-mcp";
    // <build>/tests/KestruneMCPKit/<Suite>/<test executable>
    const fs::path self = fs::read_symlink("/proc/self/exe");
    return (self.parent_path().parent_path().parent_path().parent_path() /
            "kestrune_mcp/kestrune-mcp")
        .string();
}

ProcessOutcome runHelper(const std::vector<std::string>& args, std::vector<std::string> env,
                         const std::string& input) {
    return runProgram(helperPath(), args, std::move(env), input);
}

ProcessOutcome runProgram(const std::string& exe, const std::vector<std::string>& args,
                          std::vector<std::string> env, const std::string& input) {
    // The helper may exit before reading its input: writing to its closed
    // stdin must fail with EPIPE, not end this test process.
    std::signal(SIGPIPE, SIG_IGN);
    for (const char* keep : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS"}) {
        if (const char* v = std::getenv(keep)) env.push_back(std::string(keep) + "=" + v);
    }
    ProcessOutcome outcome;
    int in[2], out[2], err[2];
    if (::pipe2(in, O_CLOEXEC) || ::pipe2(out, O_CLOEXEC) || ::pipe2(err, O_CLOEXEC))
        return outcome;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_adddup2(&actions, err[1], 2);
    std::vector<char*> argv{const_cast<char*>(exe.c_str())};
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    std::vector<char*> envp;
    for (auto& e : env) envp.push_back(e.data());
    envp.push_back(nullptr);
    pid_t pid = -1;
    const int spawned = posix_spawn(&pid, exe.c_str(), &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    ::close(in[0]);
    ::close(out[1]);
    ::close(err[1]);
    if (spawned != 0) {
        ::close(in[1]);
        ::close(out[0]);
        ::close(err[0]);
        outcome.err = "cannot start " + exe;
        return outcome;
    }
    std::thread writer([fd = in[1], &input] {
        std::size_t done = 0;
        while (done < input.size()) {
            ssize_t n = ::write(fd, input.data() + done, input.size() - done);
            if (n <= 0) break;
            done += static_cast<std::size_t>(n);
        }
        ::close(fd);
    });
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    pollfd fds[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
    int open = 2;
    while (open > 0 && std::chrono::steady_clock::now() < deadline) {
        if (::poll(fds, 2, 200) <= 0) continue;
        for (auto& p : fds) {
            if (p.fd < 0 || !(p.revents & (POLLIN | POLLHUP | POLLERR))) continue;
            char buffer[65536];
            ssize_t n = ::read(p.fd, buffer, sizeof buffer);
            if (n > 0) {
                (p.fd == out[0] ? outcome.out : outcome.err).append(buffer, n);
            } else {
                ::close(p.fd);
                p.fd = -1;
                --open;
            }
        }
    }
    if (open > 0) ::kill(pid, SIGKILL);
    for (auto& p : fds)
        if (p.fd >= 0) ::close(p.fd);
    writer.join();
    int status = 0;
    ::waitpid(pid, &status, 0);
    outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return outcome;
}

}  // namespace testfiles
