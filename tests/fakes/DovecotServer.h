// DovecotServer: a private Dovecot for tests that need a real IMAP (and
// submission) server. Each instance owns a temporary root (mode 0755, so that
// Dovecot's unprivileged processes can traverse it) holding its
// configuration, its own base_dir, a test CA with a server certificate for
// "localhost" and 127.0.0.1, a passwd-file of users and their Maildir homes.
// It listens only on free 127.0.0.1 ports: IMAP with implicit TLS, IMAP with
// STARTTLS and, when asked, submission with implicit TLS and with STARTTLS.
//
// Every user has the special-use folders Drafts, Sent, Trash, Junk and
// Archive (created at first login), CONDSTORE and QRESYNC are offered, and
// the hierarchy separator is "/". Mail files belong to uid/gid 65534, so the
// fixture must run as root (as the tests do on this machine and in CI).
//
// The server is started by the constructor (which throws std::runtime_error
// with Dovecot's log when it does not come up) and stopped by the destructor
// through the pid in its base_dir's master.pid; the root is then removed.
// Not thread-safe: one test drives one instance.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "MailCore/Common/Clock.h"
#include "MailCore/Transport/Certificate.h"
#include "MailCore/Transport/TransportTypes.h"

namespace mailcore::testing {

struct DovecotOptions {
    // The first user, created before the server starts.
    std::string user = "alice";
    std::string password = "secret";
    // false: MOVE is left out of the capabilities offered after login, so a
    // client has to fall back to COPY, STORE and UID EXPUNGE.
    bool move = true;
    // When set, the submission service runs as well and relays every message
    // it accepts to this plain SMTP server on 127.0.0.1 (no TLS, no
    // authentication, trusted).
    std::optional<std::uint16_t> submissionRelayPort;
    // Appended to the generated configuration as it is.
    std::string extraConfig;
};

// What a doveadm run gave.
struct DoveadmOutcome {
    int status = -1;
    std::string out;
    std::string err;
};

class DovecotServer {
public:
    static constexpr const char* host = "127.0.0.1";
    // The uid and gid that own every mail file.
    static constexpr unsigned mailUID = 65534;

    explicit DovecotServer(DovecotOptions options = {});
    ~DovecotServer();
    DovecotServer(const DovecotServer&) = delete;
    DovecotServer& operator=(const DovecotServer&) = delete;

    const DovecotOptions& options() const { return options_; }
    const std::string& root() const { return root_; }
    const std::string& configPath() const { return configPath_; }
    // Dovecot's own log (every process logs there).
    std::string log() const;

    std::uint16_t imapTLSPort() const { return imapTLSPort_; }
    std::uint16_t imapStartTLSPort() const { return imapStartTLSPort_; }
    // 0 unless the submission service was asked for.
    std::uint16_t submissionTLSPort() const { return submissionTLSPort_; }
    std::uint16_t submissionStartTLSPort() const { return submissionStartTLSPort_; }

    // Endpoints for 127.0.0.1 (the certificate names it).
    ServerEndpoint imapTLSEndpoint() const;
    ServerEndpoint imapStartTLSEndpoint() const;
    ServerEndpoint submissionTLSEndpoint() const;
    ServerEndpoint submissionStartTLSEndpoint() const;

    // The test CA that issued the server certificate: its file, its PEM text
    // and the anchors a client must trust to accept the server.
    std::string caPath() const { return root_ + "/ca.pem"; }
    std::string caPEM() const;
    std::vector<Certificate> trustAnchors() const;

    // Adds a user (or changes a user's password); Dovecot sees it at the
    // next login.
    void addUser(const std::string& name, const std::string& password);

    // The Maildir directory of `folder` ("INBOX", "Sent", "Projects/2026",
    // non-ASCII names included) on disk.
    std::string maildirPath(const std::string& user, const std::string& folder) const;
    // Writes one message straight into the folder's Maildir (creating the
    // folder when missing), with Maildir flag letters (`flags`: "S" seen,
    // "F" flagged, "R" answered, "D" draft, "T" deleted) and the internal
    // date (now when absent). Dovecot assigns its UID at its next look at
    // the folder. Fast enough to fill folders of many thousand messages;
    // returns the file's path.
    std::string writeMessage(const std::string& user, const std::string& folder,
                             const std::string& message, const std::string& flags = "",
                             std::optional<Date> internalDate = std::nullopt);

    // Runs `doveadm -c <config> args...` with `input` on its standard input.
    DoveadmOutcome doveadm(const std::vector<std::string>& args,
                           const std::string& input = "") const;
    // doveadm that must succeed; throws std::runtime_error with its output
    // otherwise. Examples: {"save", "-u", "alice", "-m", "INBOX"} with the
    // message as input, {"flags", "add", "-u", "alice", "\\Seen", "mailbox",
    // "INBOX", "uid", "3"}, {"mailbox", "create", "-u", "alice", "Projects"}.
    std::string doveadmOK(const std::vector<std::string>& args,
                          const std::string& input = "") const;

private:
    void writeConfig();
    bool start();
    void stop();
    void makeCertificates();
    void writeUsers();

    DovecotOptions options_;
    std::string root_;
    std::string configPath_;
    std::vector<std::pair<std::string, std::string>> users_;
    std::uint16_t imapTLSPort_ = 0;
    std::uint16_t imapStartTLSPort_ = 0;
    std::uint16_t submissionTLSPort_ = 0;
    std::uint16_t submissionStartTLSPort_ = 0;
    int childPid_ = -1;
    unsigned messageCounter_ = 0;
};

}  // namespace mailcore::testing
