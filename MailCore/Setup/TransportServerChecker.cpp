#include "MailCore/Setup/TransportServerChecker.h"

#include <openssl/evp.h>

#include <memory>

#include "MailCore/Transport/Certificate.h"
#include "MailCore/Transport/SocketTLSTransport.h"
#include "MailCore/Transport/StreamReader.h"

namespace mailcore {
namespace {

constexpr std::size_t maxLine = 8192;

MailError unexpected(const std::string& line) {
    return MailError::protocolViolation(ProtocolIssueKind::unexpectedResponse,
                                        "unexpected answer: " + line.substr(0, 80));
}

// A connected stream with its reader; closed when it goes away.
struct Connection {
    std::unique_ptr<ByteStream> stream;
    std::unique_ptr<StreamReader> reader;

    Connection(const AccountRecord& account, const ServerEndpoint& endpoint,
               const ConnectionTimeouts& timeouts) {
        SocketByteStreamFactory factory(extraAnchors(account));
        stream = factory.make(endpoint, timeouts);
        stream->open();
        reader = std::make_unique<StreamReader>(*stream);
    }
    ~Connection() { stream->close(); }
    std::string line() { return bytesToString(reader->readLine(maxLine)); }
    void send(const std::string& text) { stream->writeText(text + "\r\n"); }
    void upgrade() {
        reader = nullptr;  // nothing may stay buffered from before the handshake
        stream->upgradeToTLS(host);
        reader = std::make_unique<StreamReader>(*stream);
    }
    std::string host;
};

// The tagged answer to `tag`, skipping untagged lines and answering a
// continuation with an empty line (a failed XOAUTH2 sends its reason so).
std::string taggedAnswer(Connection& c, const std::string& tag) {
    for (int i = 0; i < 1000; ++i) {
        const std::string line = c.line();
        if (line.starts_with(tag + " ")) return line.substr(tag.size() + 1);
        if (line.starts_with("+")) c.send("");
    }
    throw MailError::protocolViolation(ProtocolIssueKind::responseTooLarge, "too many lines");
}

// An SMTP reply: its code and every line's text.
std::pair<int, std::vector<std::string>> smtpReply(Connection& c) {
    std::vector<std::string> lines;
    for (int i = 0; i < 200; ++i) {
        const std::string line = c.line();
        if (line.size() < 3 || !std::isdigit(static_cast<unsigned char>(line[0])) ||
            !std::isdigit(static_cast<unsigned char>(line[1])) ||
            !std::isdigit(static_cast<unsigned char>(line[2])))
            throw unexpected(line);
        lines.push_back(line.size() > 4 ? line.substr(4) : "");
        if (line.size() == 3 || line[3] == ' ') return {std::stoi(line.substr(0, 3)), lines};
    }
    throw MailError::protocolViolation(ProtocolIssueKind::responseTooLarge, "too many lines");
}

bool offers(const std::vector<std::string>& capabilities, const std::string& word) {
    for (auto line : capabilities) {
        for (auto& ch : line) ch = static_cast<char>(std::toupper(static_cast<unsigned char>(ch)));
        if (line == word || line.starts_with(word + " ") ||
            line.find(" " + word + " ") != std::string::npos || line.ends_with(" " + word))
            return true;
    }
    return false;
}

}  // namespace

std::string saslResponse(const LoginSecret& login) {
    std::string raw;
    if (login.method == AuthMethod::oauth)
        raw = "user=" + login.loginName + "\x01" + "auth=Bearer " + login.secret + "\x01\x01";
    else
        raw = std::string(1, '\0') + login.loginName + std::string(1, '\0') + login.secret;
    std::string out(4 * ((raw.size() + 2) / 3) + 1, '\0');
    const int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                                  reinterpret_cast<const unsigned char*>(raw.data()),
                                  static_cast<int>(raw.size()));
    out.resize(static_cast<std::size_t>(n));
    return out;
}

TransportServerChecker::TransportServerChecker(ConnectionTimeouts timeouts, std::string ehloName)
    : timeouts_(timeouts), ehloName_(std::move(ehloName)) {}

void TransportServerChecker::checkIMAP(const AccountRecord& account, const LoginSecret& login) {
    const ServerEndpoint& endpoint = *account.imap;
    Connection c(account, endpoint, timeouts_);
    c.host = endpoint.host;
    const std::string greeting = c.line();
    if (greeting.starts_with("* BYE"))
        throw MailError::protocolViolation(ProtocolIssueKind::serverClosed,
                                           "server said goodbye: " + greeting.substr(0, 80));
    if (!greeting.starts_with("* OK") && !greeting.starts_with("* PREAUTH"))
        throw unexpected(greeting);
    if (endpoint.security == TransportSecurity::startTLS) {
        c.send("k1 STARTTLS");
        if (!taggedAnswer(c, "k1").starts_with("OK"))
            throw MailError::tls(TLSFailureKind::startTLSUnavailable,
                                 "server does not offer STARTTLS");
        c.upgrade();
    }
    c.send(std::string("k2 AUTHENTICATE ") +
           (login.method == AuthMethod::oauth ? "XOAUTH2" : "PLAIN"));
    const std::string ready = c.line();
    if (ready.starts_with("k2 NO") || ready.starts_with("k2 BAD"))
        throw MailError::unsupportedCapability(
            login.method == AuthMethod::oauth ? "no OAuth sign-in" : "no password sign-in");
    if (!ready.starts_with("+")) throw unexpected(ready);
    c.send(saslResponse(login));
    const std::string result = taggedAnswer(c, "k2");
    if (result.starts_with("NO"))
        throw MailError::auth(AuthFailureKind::invalidCredentials, "login refused");
    if (!result.starts_with("OK")) throw unexpected(result);
    c.send("k3 LOGOUT");
}

void TransportServerChecker::checkSMTP(const AccountRecord& account, const LoginSecret& login) {
    const ServerEndpoint& endpoint = *account.smtp;
    Connection c(account, endpoint, timeouts_);
    c.host = endpoint.host;
    if (const auto [code, text] = smtpReply(c); code != 220)
        throw MailError::protocolViolation(ProtocolIssueKind::unexpectedResponse,
                                           "greeting " + std::to_string(code));
    c.send("EHLO " + ehloName_);
    auto [ehloCode, capabilities] = smtpReply(c);
    if (ehloCode != 250)
        throw MailError::protocolViolation(ProtocolIssueKind::unexpectedResponse,
                                           "EHLO " + std::to_string(ehloCode));
    if (endpoint.security == TransportSecurity::startTLS) {
        if (!offers(capabilities, "STARTTLS"))
            throw MailError::tls(TLSFailureKind::startTLSUnavailable,
                                 "server does not offer STARTTLS");
        c.send("STARTTLS");
        if (smtpReply(c).first != 220)
            throw MailError::tls(TLSFailureKind::startTLSUnavailable, "server refused STARTTLS");
        c.upgrade();
        c.send("EHLO " + ehloName_);
        std::tie(ehloCode, capabilities) = smtpReply(c);
    }
    const std::string mechanism = login.method == AuthMethod::oauth ? "XOAUTH2" : "PLAIN";
    if (!offers(capabilities, mechanism))
        throw MailError::unsupportedCapability("no " + mechanism + " sign-in");
    c.send("AUTH " + mechanism + " " + saslResponse(login));
    auto [code, text] = smtpReply(c);
    if (code == 334) {  // the reason a token was refused; the refusal follows
        c.send("");
        code = smtpReply(c).first;
    }
    if (code == 535 || code == 534)
        throw MailError::auth(AuthFailureKind::invalidCredentials, "login refused");
    if (code == 454) throw MailError::auth(AuthFailureKind::temporaryFailure, "temporary failure");
    if (code != 235)
        throw MailError::protocolViolation(ProtocolIssueKind::unexpectedResponse,
                                           "AUTH " + std::to_string(code));
    c.send("QUIT");
}

}  // namespace mailcore
