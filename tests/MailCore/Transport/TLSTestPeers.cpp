#include "TLSTestPeers.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <mutex>
#include <stdexcept>

extern char** environ;

namespace mailcore::testing {
namespace {

using namespace std::chrono_literals;

sockaddr_in loopback(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

using testfiles::readFile;
using testfiles::writeFile;

// Runs an openssl command line in `dir`; throws with its output on failure.
void openssl(const std::string& dir, const std::string& arguments) {
    const std::string command = "cd '" + dir + "' && openssl " + arguments + " > openssl.log 2>&1";
    if (std::system(command.c_str()) != 0) {
        throw std::runtime_error("openssl " + arguments + " failed:\n" +
                                 readFile(dir + "/openssl.log"));
    }
}

const char* const config = R"([ req ]
distinguished_name = dn
prompt = no
[ dn ]
CN = unused
[ v3_ca ]
basicConstraints = critical,CA:TRUE
keyUsage = critical,keyCertSign,cRLSign
subjectKeyIdentifier = hash
[ leaf_localhost ]
basicConstraints = CA:FALSE
keyUsage = critical,digitalSignature
extendedKeyUsage = serverAuth
subjectAltName = DNS:localhost,IP:127.0.0.1
[ leaf_other ]
basicConstraints = CA:FALSE
keyUsage = critical,digitalSignature
extendedKeyUsage = serverAuth
subjectAltName = DNS:other.example
[ ca ]
default_ca = test_ca
[ test_ca ]
database = ./index.txt
new_certs_dir = .
serial = ./serial
default_md = sha256
policy = any_name
unique_subject = no
[ any_name ]
commonName = supplied
)";

struct OwnedPKI {
    TestPKI pki;
    ~OwnedPKI() {
        std::error_code ignored;
        std::filesystem::remove_all(pki.dir, ignored);
    }
};

TestPKI makePKI() {
    char pattern[] = "/tmp/kestrune-tls-XXXXXX";
    if (!mkdtemp(pattern)) throw std::runtime_error("mkdtemp failed");
    TestPKI p;
    p.dir = pattern;
    const std::string& d = p.dir;
    writeFile(d + "/openssl.cnf", config);
    writeFile(d + "/index.txt", "");
    writeFile(d + "/serial", "1000\n");
    std::filesystem::create_directory(d + "/nocerts");
    // name, common name, extensions, issuer (none: self-signed)
    const std::array<std::array<std::string, 4>, 7> certificates = {{
        {"ca", "Kestrune Test CA", "v3_ca", ""},
        {"rogue", "Rogue Test CA", "v3_ca", ""},
        {"self", "localhost", "leaf_localhost", ""},
        {"leaf", "localhost", "leaf_localhost", "ca"},
        {"other", "other.example", "leaf_other", "ca"},
        {"rogueleaf", "localhost", "leaf_localhost", "rogue"},
        {"expired", "localhost", "leaf_localhost", "ca"},
    }};
    for (const auto& [name, cn, extensions, issuer] : certificates) {
        const std::string request =
            "req -config openssl.cnf -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes "
            "-keyout " +
            name + ".key -subj '/CN=" + cn + "' ";
        if (issuer.empty()) {
            openssl(
                d, request + "-x509 -days 30 -extensions " + extensions + " -out " + name + ".pem");
            continue;
        }
        const std::string dates =
            name == "expired" ? "-startdate 20200101000000Z -enddate 20200201000000Z" : "-days 30";
        openssl(d, request + "-new -out " + name + ".csr");
        openssl(d, "ca -batch -notext -config openssl.cnf -cert " + issuer + ".pem -keyfile " +
                       issuer + ".key -extensions " + extensions + " " + dates + " -in " + name +
                       ".csr -out " + name + ".pem");
    }
    // The process's platform trust store is exactly the test CA.
    setenv("SSL_CERT_FILE", (d + "/ca.pem").c_str(), 1);
    setenv("SSL_CERT_DIR", (d + "/nocerts").c_str(), 1);
    return p;
}

}  // namespace

std::uint16_t freePort() {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = loopback(0);
    ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    socklen_t length = sizeof address;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    ::close(fd);
    return ntohs(address.sin_port);
}

const TestPKI& TestPKI::shared() {
    static std::once_flag once;
    static std::unique_ptr<OwnedPKI> owned;
    std::call_once(once, [] {
        owned = std::make_unique<OwnedPKI>();
        owned->pki = makePKI();
    });
    return owned->pki;
}

std::string TestPKI::pemText(const std::string& name) const {
    return readFile(dir + "/" + name + ".pem");
}

OpenSSLServer::OpenSSLServer(std::vector<std::string> arguments) {
    for (int attempt = 0; attempt < 3; ++attempt) {
        if (start(arguments)) return;
        stop();
    }
    throw std::runtime_error("openssl s_server did not start:\n" + log());
}

OpenSSLServer::~OpenSSLServer() { stop(); }

bool OpenSSLServer::start(const std::vector<std::string>& arguments) {
    port_ = freePort();
    logPath_ = TestPKI::shared().dir + "/s_server-" + std::to_string(port_) + ".log";
    std::vector<std::string> args = {"openssl", "s_server", "-accept",
                                     "127.0.0.1:" + std::to_string(port_)};
    args.insert(args.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, logPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0600);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    pid_t pid = -1;
    const int rc = posix_spawnp(&pid, "openssl", &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) return false;
    pid_ = pid;
    const auto deadline = std::chrono::steady_clock::now() + 5s;
    while (std::chrono::steady_clock::now() < deadline) {
        if (readFile(logPath_).find("ACCEPT") != std::string::npos) return true;
        int status = 0;
        if (waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;
            return false;
        }
        std::this_thread::sleep_for(10ms);
    }
    return false;
}

void OpenSSLServer::stop() {
    if (pid_ > 0) {
        kill(pid_, SIGTERM);
        int status = 0;
        waitpid(pid_, &status, 0);
        pid_ = -1;
    }
}

std::string OpenSSLServer::log() const { return readFile(logPath_); }

Listener::Listener(int backlog) {
    fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = loopback(0);
    if (fd_ < 0 || ::bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(fd_, backlog) != 0) {
        throw std::runtime_error("cannot listen on 127.0.0.1");
    }
    socklen_t length = sizeof address;
    ::getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length);
    port_ = ntohs(address.sin_port);
}

Listener::~Listener() {
    if (fd_ >= 0) ::close(fd_);
}

int Listener::accept(int timeoutMs) {
    pollfd p{fd_, POLLIN, 0};
    if (::poll(&p, 1, timeoutMs) <= 0) return -1;
    return ::accept(fd_, nullptr, nullptr);
}

FullListener::FullListener() : filler_(::socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address = loopback(listener_.port());
    if (::connect(filler_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        throw std::runtime_error("cannot fill the accept queue");
    }
}

FullListener::~FullListener() { ::close(filler_); }

ScriptedServer::ScriptedServer(std::function<void(int fd)> script)
    : thread_([this, script = std::move(script)] {
          std::vector<std::thread> connections;
          while (!stop_) {
              const int fd = listener_.accept(50);
              if (fd < 0) continue;
              connections.emplace_back([fd, script] {
                  script(fd);
                  ::close(fd);
              });
          }
          for (auto& c : connections) c.join();
      }) {}

ScriptedServer::~ScriptedServer() {
    stop_ = true;
    thread_.join();
}

bool sendAll(int fd, const std::string& bytes) {
    std::size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t n = ::send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) return false;
        sent += static_cast<std::size_t>(n);
    }
    return true;
}

std::string readLine(int fd) {
    std::string line;
    char c;
    while (::recv(fd, &c, 1, 0) == 1) {
        line.push_back(c);
        if (c == '\n') break;
    }
    return line;
}

void resetConnection(int fd) {
    linger l{1, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &l, sizeof l);
}

StartTLSFront::StartTLSFront(std::uint16_t backendPort)
    : backend_(backendPort), server_([this](int client) {
          if (!sendAll(client, "* OK ready\r\n")) return;
          const std::string command = readLine(client);
          if (command.rfind("A1 STARTTLS", 0) != 0) {
              sendAll(client, "A1 BAD expected STARTTLS\r\n");
              return;
          }
          const int backend = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
          sockaddr_in address = loopback(backend_);
          if (::connect(backend, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
              ::close(backend);
              return;
          }
          sendAll(client, "A1 OK begin TLS\r\n");
          // Relay until either side ends or nothing moves for ten seconds.
          char buffer[16384];
          for (;;) {
              pollfd p[2] = {{client, POLLIN, 0}, {backend, POLLIN, 0}};
              if (::poll(p, 2, 10000) <= 0) break;
              bool ended = false;
              for (int i = 0; i < 2 && !ended; ++i) {
                  if (!(p[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
                  const ssize_t n = ::recv(p[i].fd, buffer, sizeof buffer, 0);
                  if (n <= 0 ||
                      !sendAll(p[1 - i].fd, std::string(buffer, static_cast<std::size_t>(n)))) {
                      ended = true;
                  }
              }
              if (ended) break;
          }
          ::close(backend);
      }) {}

}  // namespace mailcore::testing
