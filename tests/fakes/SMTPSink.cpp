#include "tests/fakes/SMTPSink.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <thread>

#include "tests/fakes/TestFiles.h"

namespace testfiles {

std::uint16_t freeLoopbackPort() {
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    socklen_t len = sizeof addr;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
    ::close(fd);
    return ntohs(addr.sin_port);
}

std::filesystem::path sourceDir() {
    if (const char* dir = std::getenv("KESTRUNE_SOURCE_DIR")) return dir;
    return std::filesystem::current_path();
}

SMTPSink::SMTPSink() {
    char templ[] = "/tmp/kestrune-sink-XXXXXX";
    if (!::mkdtemp(templ)) throw std::runtime_error("cannot make the sink's directory");
    dir_ = templ;
    std::vector<std::string> args{
        "/usr/bin/python3", (sourceDir() / "tests/fakes/smtp_sink.py").string(), dir_.string()};
    for (int attempt = 0; attempt < 5 && pid_ < 0; ++attempt) {
        port_ = freeLoopbackPort();
        auto argv = args;
        argv.push_back(std::to_string(port_));
        std::vector<char*> raw;
        for (auto& a : argv) raw.push_back(a.data());
        raw.push_back(nullptr);
        const std::string log = (dir_ / "sink.log").string();
        const int pid = ::fork();
        if (pid == 0) {
            int fd = ::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
            ::dup2(fd, 1);
            ::dup2(fd, 2);
            ::execv(raw[0], raw.data());
            ::_exit(127);
        }
        for (int i = 0; i < 200; ++i) {
            if (std::filesystem::exists(dir_ / "ready")) {
                pid_ = pid;
                break;
            }
            int status = 0;
            if (::waitpid(pid, &status, WNOHANG) == pid) break;  // port taken: try another
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        if (pid_ < 0) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, nullptr, 0);
        }
    }
    if (pid_ < 0)
        throw std::runtime_error("the SMTP sink did not start: " + readFile(dir_ / "sink.log"));
}

SMTPSink::~SMTPSink() {
    if (pid_ > 0) {
        ::kill(pid_, SIGTERM);
        int status = 0;
        for (int i = 0; i < 100 && ::waitpid(pid_, &status, WNOHANG) == 0; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        if (::waitpid(pid_, &status, WNOHANG) == 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, &status, 0);
        }
    }
    std::error_code ignored;
    std::filesystem::remove_all(dir_, ignored);
}

std::vector<std::string> SMTPSink::messages() const {
    std::vector<std::string> out;
    for (const auto& name : namesIn(dir_ / "messages")) {
        if (name.size() > 4 && name.substr(name.size() - 4) == ".eml")
            out.push_back(readFile(dir_ / "messages" / name));
    }
    return out;
}

std::vector<mailcore::Json> SMTPSink::envelopes() const {
    std::vector<mailcore::Json> out;
    for (const auto& name : namesIn(dir_ / "messages")) {
        if (name.size() > 5 && name.substr(name.size() - 5) == ".json")
            out.push_back(mailcore::Json::parse(readFile(dir_ / "messages" / name)));
    }
    return out;
}

void SMTPSink::setFaults(const mailcore::Json& faults) const {
    writeFile(dir_ / "faults.json.new", faults.dump());
    std::filesystem::rename(dir_ / "faults.json.new", dir_ / "faults.json");
}

}  // namespace testfiles
