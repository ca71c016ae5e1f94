#include "tests/fakes/DovecotServer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <pwd.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "MailCore/IMAP/ModifiedUTF7.h"
#include "tests/fakes/TestFiles.h"

extern char** environ;

namespace mailcore::testing {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using testfiles::readFile;
using testfiles::writeFile;

std::uint16_t unusedPort() {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    socklen_t length = sizeof address;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    ::close(fd);
    return ntohs(address.sin_port);
}

bool accepting(std::uint16_t port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const bool ok = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    ::close(fd);
    return ok;
}

std::string program(const std::string& name) {
    for (const char* dir : {"/usr/sbin/", "/usr/bin/", "/usr/local/sbin/", "/usr/local/bin/"}) {
        if (::access((std::string(dir) + name).c_str(), X_OK) == 0) return dir + name;
    }
    return name;
}

// Runs argv with stdin from `inPath` and stdout/stderr to the given files;
// returns the child's pid (-1 when it could not be started).
pid_t spawn(const std::vector<std::string>& args, const std::string& inPath,
            const std::string& outPath, const std::string& errPath) {
    std::vector<char*> argv;
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, inPath.c_str(), O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0600);
    posix_spawn_file_actions_addopen(&actions, 2, errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0600);
    pid_t pid = -1;
    const int rc = posix_spawn(&pid, args[0].c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    return rc == 0 ? pid : -1;
}

void chownMail(const std::string& path) {
    if (::chown(path.c_str(), DovecotServer::mailUID, DovecotServer::mailUID) != 0) {
        throw std::runtime_error("cannot give " + path + " to the mail user");
    }
}

// Creates `dir` and its missing parents below `base`, each owned by the mail user.
void makeMailDirectories(const fs::path& base, const fs::path& dir) {
    fs::path current = base;
    for (const auto& part : dir.lexically_relative(base)) {
        current /= part;
        if (fs::exists(current)) continue;
        fs::create_directory(current);
        chownMail(current.string());
    }
}

void openssl(const std::string& dir, const std::string& arguments) {
    const std::string command = "cd '" + dir + "' && openssl " + arguments + " >> openssl.log 2>&1";
    if (std::system(command.c_str()) != 0) {
        throw std::runtime_error("openssl " + arguments + " failed:\n" +
                                 readFile(dir + "/openssl.log"));
    }
}

// Everything Dovecot offers after login except MOVE.
constexpr const char* capabilitiesWithoutMove =
    "IMAP4rev1 SASL-IR LOGIN-REFERRALS ID ENABLE IDLE SORT SORT=DISPLAY THREAD=REFERENCES "
    "THREAD=REFS THREAD=ORDEREDSUBJECT MULTIAPPEND URL-PARTIAL CATENATE UNSELECT CHILDREN "
    "NAMESPACE UIDPLUS LIST-EXTENDED I18NLEVEL=1 CONDSTORE QRESYNC ESEARCH ESORT SEARCHRES "
    "WITHIN CONTEXT=SEARCH LIST-STATUS BINARY SNIPPET=FUZZY PREVIEW=FUZZY PREVIEW STATUS=SIZE "
    "SAVEDATE LITERAL+ NOTIFY SPECIAL-USE";

}  // namespace

DovecotServer::DovecotServer(DovecotOptions options) : options_(std::move(options)) {
    char pattern[] = "/tmp/kestrune-dovecot-XXXXXX";
    if (!::mkdtemp(pattern)) throw std::runtime_error("mkdtemp failed");
    root_ = pattern;
    configPath_ = root_ + "/dovecot.conf";
    try {
        // Dovecot's auth and login processes run unprivileged and must
        // traverse the root.
        fs::permissions(root_, fs::perms(0755));
        fs::create_directory(root_ + "/run");
        fs::create_directory(root_ + "/state");
        fs::create_directory(root_ + "/home");
        writeFile(root_ + "/empty", "");
        makeCertificates();
        users_.emplace_back(options_.user, options_.password);
        writeUsers();
        for (int attempt = 0; attempt < 3; ++attempt) {
            writeConfig();
            if (start()) return;
            stop();
        }
        throw std::runtime_error("dovecot did not start:\n" + log() +
                                 readFile(root_ + "/dovecot.err"));
    } catch (...) {
        std::error_code ignored;
        fs::remove_all(root_, ignored);
        throw;
    }
}

DovecotServer::~DovecotServer() {
    stop();
    std::error_code ignored;
    fs::remove_all(root_, ignored);
}

std::string DovecotServer::log() const { return readFile(root_ + "/dovecot.log"); }

ServerEndpoint DovecotServer::imapTLSEndpoint() const {
    return {host, imapTLSPort_, TransportSecurity::implicitTLS};
}
ServerEndpoint DovecotServer::imapStartTLSEndpoint() const {
    return {host, imapStartTLSPort_, TransportSecurity::startTLS};
}
ServerEndpoint DovecotServer::submissionTLSEndpoint() const {
    return {host, submissionTLSPort_, TransportSecurity::implicitTLS};
}
ServerEndpoint DovecotServer::submissionStartTLSEndpoint() const {
    return {host, submissionStartTLSPort_, TransportSecurity::startTLS};
}

std::string DovecotServer::caPEM() const { return readFile(caPath()); }

std::vector<Certificate> DovecotServer::trustAnchors() const {
    return Certificate::fromPEM(caPEM());
}

void DovecotServer::makeCertificates() {
    writeFile(root_ + "/server.ext",
              "basicConstraints=CA:FALSE\n"
              "keyUsage=critical,digitalSignature\n"
              "extendedKeyUsage=serverAuth\n"
              "subjectAltName=DNS:localhost,IP:127.0.0.1\n");
    const std::string key = "-newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes ";
    openssl(root_, "req -x509 " + key +
                       "-keyout ca.key -out ca.pem -days 30 -subj '/CN=Kestrune Dovecot Test CA' "
                       "-addext basicConstraints=critical,CA:TRUE "
                       "-addext keyUsage=critical,keyCertSign,cRLSign");
    openssl(root_, "req " + key + "-keyout server.key -out server.csr -subj '/CN=localhost'");
    openssl(root_,
            "x509 -req -in server.csr -CA ca.pem -CAkey ca.key -CAcreateserial -days 30 "
            "-extfile server.ext -out server.pem");
    // Read by the master as root only.
    fs::permissions(root_ + "/server.key", fs::perms(0600));
    fs::permissions(root_ + "/ca.key", fs::perms(0600));
}

void DovecotServer::writeUsers() {
    std::string text;
    for (const auto& [name, password] : users_) {
        const std::string home = root_ + "/home/" + name;
        if (!fs::exists(home)) {
            fs::create_directory(home);
            chownMail(home);
        }
        text += name + ":{PLAIN}" + password + ":" + std::to_string(mailUID) + ":" +
                std::to_string(mailUID) + "::" + home + "::\n";
    }
    const std::string path = root_ + "/users";
    writeFile(path + ".new", text);
    // The auth process runs as the dovecot user: the file is its alone.
    ::chmod((path + ".new").c_str(), 0600);
    if (const passwd* account = ::getpwnam("dovecot")) {
        if (::chown((path + ".new").c_str(), account->pw_uid, account->pw_gid) != 0) {
            throw std::runtime_error("cannot give the users file to dovecot");
        }
    }
    fs::rename(path + ".new", path);
}

void DovecotServer::addUser(const std::string& name, const std::string& password) {
    auto known = std::find_if(users_.begin(), users_.end(),
                              [&](const auto& user) { return user.first == name; });
    const bool change = known != users_.end();
    if (change) {
        known->second = password;
    } else {
        users_.emplace_back(name, password);
    }
    writeUsers();
    if (!change) return;
    // The auth process looks at the users file at most once a second: a
    // changed password holds only once it has looked again.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (doveadm({"auth", "test", name, password}).status != 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            throw std::runtime_error("dovecot did not take the new password of " + name);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
}

void DovecotServer::writeConfig() {
    imapTLSPort_ = unusedPort();
    imapStartTLSPort_ = unusedPort();
    const bool submission = options_.submissionRelayPort.has_value();
    submissionTLSPort_ = submission ? unusedPort() : 0;
    submissionStartTLSPort_ = submission ? unusedPort() : 0;

    std::ostringstream c;
    c << "base_dir = " << root_ << "/run\n"
      << "state_dir = " << root_ << "/state\n"
      << "instance_name = " << fs::path(root_).filename().string() << "\n"
      << "protocols = imap" << (submission ? " submission" : "") << "\n"
      << "listen = 127.0.0.1\n"
      << "log_path = " << root_ << "/dovecot.log\n"
      << "ssl = yes\n"
      << "ssl_cert = <" << root_ << "/server.pem\n"
      << "ssl_key = <" << root_ << "/server.key\n"
      << "ssl_min_protocol = TLSv1.2\n"
      << "auth_mechanisms = plain login\n"
      << "first_valid_uid = 1\n"
      << "mail_max_userip_connections = 100\n"
      << "passdb {\n  driver = passwd-file\n  args = scheme=PLAIN username_format=%u " << root_
      << "/users\n}\n"
      << "userdb {\n  driver = passwd-file\n  args = username_format=%u " << root_ << "/users\n}\n"
      << "mail_location = maildir:~/Maildir\n"
      << "namespace inbox {\n  inbox = yes\n  separator = /\n";
    for (const char* special : {"Drafts", "Sent", "Trash", "Junk", "Archive"}) {
        c << "  mailbox " << special << " {\n    special_use = \\" << special
          << "\n    auto = subscribe\n  }\n";
    }
    c << "}\n"
      << "service imap-login {\n"
      << "  inet_listener imap {\n    address = 127.0.0.1\n    port = " << imapStartTLSPort_
      << "\n  }\n"
      << "  inet_listener imaps {\n    address = 127.0.0.1\n    port = " << imapTLSPort_
      << "\n    ssl = yes\n  }\n}\n";
    if (!options_.move) c << "imap_capability = " << capabilitiesWithoutMove << "\n";
    if (submission) {
        c << "hostname = localhost\n"
          << "submission_relay_host = 127.0.0.1\n"
          << "submission_relay_port = " << *options_.submissionRelayPort << "\n"
          << "submission_relay_trusted = yes\n"
          << "submission_relay_ssl = no\n"
          << "service submission-login {\n"
          << "  inet_listener submission {\n    address = 127.0.0.1\n    port = "
          << submissionStartTLSPort_ << "\n  }\n"
          << "  inet_listener submissions {\n    address = 127.0.0.1\n    port = "
          << submissionTLSPort_ << "\n    ssl = yes\n  }\n}\n";
    }
    c << options_.extraConfig << "\n";
    writeFile(configPath_, c.str());
}

bool DovecotServer::start() {
    childPid_ = spawn({program("dovecot"), "-F", "-c", configPath_}, root_ + "/empty",
                      root_ + "/dovecot.out", root_ + "/dovecot.err");
    if (childPid_ < 0) return false;
    std::vector<std::uint16_t> ports = {imapTLSPort_, imapStartTLSPort_};
    if (submissionTLSPort_ != 0)
        ports.insert(ports.end(), {submissionTLSPort_, submissionStartTLSPort_});
    const auto deadline = std::chrono::steady_clock::now() + 15s;
    while (std::chrono::steady_clock::now() < deadline) {
        int status = 0;
        if (::waitpid(childPid_, &status, WNOHANG) == childPid_) {
            childPid_ = -1;
            return false;
        }
        if (fs::exists(root_ + "/run/master.pid") &&
            std::all_of(ports.begin(), ports.end(), accepting)) {
            return true;
        }
        std::this_thread::sleep_for(20ms);
    }
    return false;
}

void DovecotServer::stop() {
    if (childPid_ < 0) return;
    // The master's own record of its pid; with -F it is the child we started.
    pid_t pid = childPid_;
    const std::string recorded = readFile(root_ + "/run/master.pid");
    if (!recorded.empty()) pid = static_cast<pid_t>(std::stol(recorded));
    ::kill(pid, SIGTERM);
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    int status = 0;
    while (::waitpid(childPid_, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            ::kill(childPid_, SIGKILL);
            ::waitpid(childPid_, &status, 0);
            break;
        }
        std::this_thread::sleep_for(10ms);
    }
    childPid_ = -1;
    std::error_code ignored;
    fs::remove(root_ + "/run/master.pid", ignored);
}

std::string DovecotServer::maildirPath(const std::string& user, const std::string& folder) const {
    std::string path = root_ + "/home/" + user + "/Maildir";
    std::string upper = folder;
    std::transform(upper.begin(), upper.end(), upper.begin(), ::toupper);
    if (upper == "INBOX") return path;
    // Maildir++ keeps each folder in one directory: ".Parent.Child", with
    // every level in modified UTF-7.
    std::string onDisk;
    std::istringstream levels(folder);
    for (std::string level; std::getline(levels, level, '/');) {
        onDisk += "." + ModifiedUTF7::encode(level);
    }
    return path + "/" + onDisk;
}

std::string DovecotServer::writeMessage(const std::string& user, const std::string& folder,
                                        const std::string& message, const std::string& flags,
                                        std::optional<Date> internalDate) {
    const fs::path home = root_ + "/home/" + user;
    const fs::path dir = maildirPath(user, folder);
    if (!fs::exists(dir / "cur")) {
        for (const char* sub : {"cur", "new", "tmp"}) makeMailDirectories(home, dir / sub);
        if (dir.filename() != "Maildir") {
            writeFile(dir / "maildirfolder", "");
            chownMail((dir / "maildirfolder").string());
        }
    }
    std::string sortedFlags = flags;
    std::sort(sortedFlags.begin(), sortedFlags.end());
    const Date date = internalDate.value_or(std::chrono::system_clock::now());
    const auto seconds =
        std::chrono::duration_cast<std::chrono::seconds>(date.time_since_epoch()).count();
    const std::string base = std::to_string(seconds) + ".M" + std::to_string(++messageCounter_) +
                             "P" + std::to_string(::getpid()) +
                             ".kestrune,S=" + std::to_string(message.size());
    const fs::path temporary = dir / "tmp" / base;
    const fs::path final = dir / "cur" / (base + ":2," + sortedFlags);
    writeFile(temporary, message);
    chownMail(temporary.string());
    const timespec times[2] = {{seconds, 0}, {seconds, 0}};
    ::utimensat(AT_FDCWD, temporary.c_str(), times, 0);
    fs::rename(temporary, final);
    return final.string();
}

DoveadmOutcome DovecotServer::doveadm(const std::vector<std::string>& args,
                                      const std::string& input) const {
    std::vector<std::string> argv = {program("doveadm"), "-c", configPath_};
    argv.insert(argv.end(), args.begin(), args.end());
    const std::string in = root_ + "/doveadm.in";
    const std::string out = root_ + "/doveadm.out";
    const std::string err = root_ + "/doveadm.err";
    writeFile(in, input);
    DoveadmOutcome outcome;
    const pid_t pid = spawn(argv, in, out, err);
    if (pid < 0) {
        outcome.err = "doveadm could not be started";
        return outcome;
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    outcome.out = readFile(out);
    outcome.err = readFile(err);
    return outcome;
}

std::string DovecotServer::doveadmOK(const std::vector<std::string>& args,
                                     const std::string& input) const {
    DoveadmOutcome outcome = doveadm(args, input);
    if (outcome.status != 0) {
        std::string command = "doveadm";
        for (const auto& a : args) command += " " + a;
        throw std::runtime_error(command + " failed (" + std::to_string(outcome.status) + "):\n" +
                                 outcome.out + outcome.err);
    }
    return outcome.out;
}

}  // namespace mailcore::testing
