#include "MailCore/SMTP/SMTPClient.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>

#include "MailCore/Common/Base64.h"

namespace mailcore {
namespace {

constexpr int readChunk = 16384;

std::string upper(std::string text) {
    for (auto& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return text;
}

bool hasNonASCII(const std::string& text) {
    return std::any_of(text.begin(), text.end(),
                       [](char c) { return static_cast<unsigned char>(c) >= 0x80; });
}

MailError invalidAddress(const std::string& address) {
    return MailError::protocolViolation(ProtocolIssueKind::invalidInput,
                                        "invalid address: " + address);
}

void checkAddress(const std::string& address, bool allowEmpty) {
    if (address.empty() && allowEmpty) return;
    if (address.empty() || address.size() > 320) throw invalidAddress(address);
    for (char c : address) {
        const auto u = static_cast<unsigned char>(c);
        if (u < 0x21 || u == 0x7f || c == '<' || c == '>') throw invalidAddress(address);
    }
}

// "740 kB", "12.5 MB": sizes as a person reads them (rounded up below 1 MB).
std::string readableSize(std::int64_t bytes) {
    if (bytes < 1'000'000) return std::to_string((bytes + 999) / 1000) + " kB";
    return fmt::format("{:.1f} MB", static_cast<double>(bytes) / 1'000'000.0);
}

MailError uncertain() {
    return MailError::network(NetworkFailureKind::outcomeUnknown, "the message may have been sent");
}

}  // namespace

// ---- values ----

bool SMTPCapabilities::offersAuth(const std::string& mechanism) const {
    return std::find(authMechanisms.begin(), authMechanisms.end(), upper(mechanism)) !=
           authMechanisms.end();
}

SMTPCapabilities SMTPCapabilities::fromEHLO(const SMTPReply& reply) {
    SMTPCapabilities caps;
    caps.extended = true;
    for (std::size_t i = 1; i < reply.lines.size(); ++i) {
        std::vector<std::string> words;
        std::string word;
        for (char c : reply.lines[i] + " ") {
            if (c == ' ' || c == '=') {
                if (!word.empty()) words.push_back(word);
                word.clear();
            } else {
                word += c;
            }
        }
        if (words.empty()) continue;
        const std::string key = upper(words[0]);
        if (key == "STARTTLS") caps.startTLS = true;
        if (key == "PIPELINING") caps.pipelining = true;
        if (key == "8BITMIME") caps.eightBitMIME = true;
        if (key == "SMTPUTF8") caps.smtpUTF8 = true;
        if (key == "ENHANCEDSTATUSCODES") caps.enhancedStatusCodes = true;
        if (key == "CHUNKING") caps.chunking = true;
        if (key == "SIZE" && words.size() > 1) {
            const auto& n = words[1];
            if (!n.empty() && n.size() < 16 &&
                std::all_of(n.begin(), n.end(), [](char c) { return c >= '0' && c <= '9'; })) {
                const auto size = std::stoll(n);
                if (size > 0) caps.maxSize = size;
            }
        }
        if (key == "AUTH") {
            for (std::size_t w = 1; w < words.size(); ++w) {
                auto m = upper(words[w]);
                if (std::find(caps.authMechanisms.begin(), caps.authMechanisms.end(), m) ==
                    caps.authMechanisms.end())
                    caps.authMechanisms.push_back(m);
            }
        }
    }
    return caps;
}

std::vector<std::string> SMTPSubmission::refused() const {
    std::vector<std::string> out;
    for (const auto& r : recipients) {
        if (!r.accepted) out.push_back(r.address);
    }
    return out;
}

MailError smtpReplyError(const SMTPReply& reply, bool toAuth) {
    const std::string text = reply.summary();
    if (toAuth) {
        if (reply.codeClass() == 4) return MailError::auth(AuthFailureKind::temporaryFailure, text);
        if (reply.codeClass() == 5)
            return MailError::auth(AuthFailureKind::invalidCredentials, text);
    }
    if (reply.code == 421)
        return MailError::protocolViolation(ProtocolIssueKind::serverClosed, text);
    if (reply.codeClass() == 4) return MailError::network(NetworkFailureKind::other, text);
    if (reply.codeClass() == 5)
        return MailError::protocolViolation(ProtocolIssueKind::commandRejected, text);
    return MailError::protocolViolation(ProtocolIssueKind::unexpectedResponse, text);
}

std::string smtpTransferForm(const std::string& message, bool dotStuff) {
    std::string out;
    out.reserve(message.size() + message.size() / 50 + 4);
    bool lineStart = true;
    for (std::size_t i = 0; i < message.size(); ++i) {
        const char c = message[i];
        if (c == '\r' || c == '\n') {
            if (c == '\r' && i + 1 < message.size() && message[i + 1] == '\n') ++i;
            out += "\r\n";
            lineStart = true;
            continue;
        }
        if (lineStart && dotStuff && c == '.') out += '.';
        out += c;
        lineStart = false;
    }
    if (!lineStart) out += "\r\n";
    return out;
}

// ---- client ----

SMTPClient::SMTPClient(std::unique_ptr<ByteStream> stream, ServerEndpoint endpoint,
                       ProtocolLimits limits, std::string ehloName)
    : stream_(std::move(stream)),
      endpoint_(std::move(endpoint)),
      parser_(limits),
      ehloName_(ehloName.empty() ? "localhost" : std::move(ehloName)) {}

SMTPClient::~SMTPClient() {
    if (stream_) stream_->close();
}

void SMTPClient::requireUsable() const {
    if (dead_)
        throw MailError::network(NetworkFailureKind::connectionLost, "smtp session is closed");
}

void SMTPClient::broke(const MailError& error) {
    dead_ = true;
    stream_->close();
    throw error;
}

SMTPReply SMTPClient::readReply() {
    try {
        while (true) {
            if (auto reply = parser_.next()) {
                if (reply->code == 421) dead_ = true;
                return *reply;
            }
            Bytes bytes = stream_->read(readChunk);
            if (bytes.empty())
                throw MailError::network(NetworkFailureKind::connectionLost,
                                         "connection closed by server");
            parser_.feed(
                std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
        }
    } catch (const MailError& error) {
        broke(error);
    }
}

void SMTPClient::writeText(const std::string& text) {
    try {
        stream_->writeText(text);
    } catch (const MailError& error) {
        broke(error);
    }
}

SMTPReply SMTPClient::command(const std::string& line) {
    writeText(line + "\r\n");
    return readReply();
}

void SMTPClient::connect() {
    requireUsable();
    if (connected_) return;
    try {
        stream_->open();
    } catch (const MailError& error) {
        broke(error);
    }
    const SMTPReply greeting = readReply();
    if (greeting.code != 220) broke(smtpReplyError(greeting));
    hello();
    if (endpoint_.security == TransportSecurity::startTLS) startTLS();
    connected_ = true;
}

void SMTPClient::hello() {
    SMTPReply reply = command("EHLO " + ehloName_);
    if (reply.code == 250) {
        capabilities_ = SMTPCapabilities::fromEHLO(reply);
        return;
    }
    if (dead_ || reply.codeClass() != 5) broke(smtpReplyError(reply));
    reply = command("HELO " + ehloName_);
    if (reply.code != 250) broke(smtpReplyError(reply));
    capabilities_ = SMTPCapabilities{};
}

void SMTPClient::startTLS() {
    if (!capabilities_.startTLS)
        broke(
            MailError::tls(TLSFailureKind::startTLSUnavailable, "server does not offer STARTTLS"));
    const SMTPReply reply = command("STARTTLS");
    if (reply.code != 220) broke(smtpReplyError(reply));
    // Bytes that came with the plain-text reply would be taken as if they
    // came over TLS.
    if (parser_.hasPendingInput())
        broke(MailError::protocolViolation(ProtocolIssueKind::unexpectedResponse,
                                           "data after the STARTTLS reply"));
    try {
        stream_->upgradeToTLS(endpoint_.host);
    } catch (const MailError& error) {
        broke(error);
    }
    hello();
}

void SMTPClient::authExchange(const std::string& mechanism, const std::string& initial,
                              const std::vector<std::string>& answers,
                              const std::string& onChallenge, bool oauth) {
    SMTPReply reply = command("AUTH " + mechanism + (initial.empty() ? "" : " " + initial));
    std::size_t next = 0;
    while (reply.code == 334) {
        if (next < answers.size()) {
            reply = command(answers[next++]);
            continue;
        }
        // An error challenge (XOAUTH2, OAUTHBEARER) or a prompt we have no
        // answer for: end the exchange and take the final reply.
        reply = command(onChallenge);
    }
    if (reply.code == 235) return;
    MailError error = smtpReplyError(reply, true);
    if (oauth && error.errorCase() == MailError::Case::auth &&
        error.authKind() == AuthFailureKind::invalidCredentials)
        error = MailError::auth(AuthFailureKind::reauthorizationRequired, error.detail());
    if (dead_) broke(error);
    throw error;
}

void SMTPClient::authenticate(const SMTPCredentials& credentials) {
    requireUsable();
    if (!connected_) connect();
    auto mechanism = credentials.mechanism;
    auto offered = [&](SMTPAuthMechanism m) {
        static const char* names[] = {"PLAIN", "LOGIN", "XOAUTH2", "OAUTHBEARER"};
        return capabilities_.offersAuth(names[static_cast<int>(m)]);
    };
    if (!mechanism) {
        const auto first =
            credentials.isOAuthToken ? SMTPAuthMechanism::oauthBearer : SMTPAuthMechanism::plain;
        const auto second =
            credentials.isOAuthToken ? SMTPAuthMechanism::xoauth2 : SMTPAuthMechanism::login;
        if (offered(first))
            mechanism = first;
        else if (offered(second))
            mechanism = second;
        else
            throw MailError::unsupportedCapability(credentials.isOAuthToken
                                                       ? "server offers no OAuth sign-in"
                                                       : "server offers no password sign-in");
    }
    const std::string& user = credentials.user;
    const std::string& secret = credentials.secret;
    switch (*mechanism) {
        case SMTPAuthMechanism::plain:
            authExchange("PLAIN", base64Encode(std::string(1, '\0') + user + '\0' + secret), {},
                         "*", false);
            break;
        case SMTPAuthMechanism::login:
            authExchange("LOGIN", "", {base64Encode(user), base64Encode(secret)}, "*", false);
            break;
        case SMTPAuthMechanism::xoauth2:
            authExchange(
                "XOAUTH2",
                base64Encode("user=" + user + "\x01" + "auth=Bearer " + secret + "\x01\x01"), {},
                "", true);
            break;
        case SMTPAuthMechanism::oauthBearer:
            authExchange(
                "OAUTHBEARER",
                base64Encode("n,a=" + user + ",\x01" + "auth=Bearer " + secret + "\x01\x01"), {},
                base64Encode("\x01"), true);
            break;
    }
}

void SMTPClient::reset() {
    if (dead_) return;
    const SMTPReply reply = command("RSET");
    if (reply.code != 250) broke(smtpReplyError(reply));
}

SMTPSubmission SMTPClient::send(const SMTPEnvelope& envelope, const std::string& message,
                                const std::function<void()>& beforeEnd) {
    requireUsable();
    if (!connected_) connect();
    if (envelope.recipients.empty())
        throw MailError::protocolViolation(ProtocolIssueKind::invalidInput, "no recipients");
    checkAddress(envelope.from, true);
    for (const auto& r : envelope.recipients) checkAddress(r, false);

    const bool chunked = capabilities_.chunking;
    std::string body = smtpTransferForm(message, !chunked);
    const auto size = static_cast<std::int64_t>(body.size());
    if (capabilities_.maxSize && size > *capabilities_.maxSize) {
        throw MailError::protocolViolation(
            ProtocolIssueKind::invalidInput,
            "The message is " + readableSize(size) + ", larger than the " +
                readableSize(*capabilities_.maxSize) +
                " the mail server accepts. Remove or shrink attachments and send it again.");
    }
    bool international = hasNonASCII(envelope.from);
    for (const auto& r : envelope.recipients) {
        if (hasNonASCII(r) && !capabilities_.smtpUTF8)
            throw MailError::unsupportedCapability(
                "The mail server cannot deliver to addresses with non-ASCII characters, such as " +
                r + ".");
        international = international || hasNonASCII(r);
    }
    if (international && !capabilities_.smtpUTF8)
        throw MailError::unsupportedCapability(
            "The mail server cannot send from an address with non-ASCII characters (" +
            envelope.from + ").");
    const bool eightBit = hasNonASCII(body);
    if (eightBit && !capabilities_.eightBitMIME && !capabilities_.smtpUTF8)
        throw MailError::unsupportedCapability(
            "The message contains 8-bit text that the mail server does not accept.");

    std::string mail = "MAIL FROM:<" + envelope.from + ">";
    if (capabilities_.maxSize) mail += " SIZE=" + std::to_string(size);
    if (eightBit && capabilities_.eightBitMIME) mail += " BODY=8BITMIME";
    if (international) mail += " SMTPUTF8";
    std::vector<std::string> commands{mail};
    for (const auto& r : envelope.recipients) commands.push_back("RCPT TO:<" + r + ">");
    if (!chunked) commands.push_back("DATA");

    std::vector<SMTPReply> replies;
    if (capabilities_.pipelining) {
        std::string batch;
        for (const auto& c : commands) batch += c + "\r\n";
        writeText(batch);
        for (std::size_t i = 0; i < commands.size(); ++i) replies.push_back(readReply());
    } else {
        for (std::size_t i = 0; i < commands.size(); ++i) {
            replies.push_back(command(commands[i]));
            // Without pipelining, nothing more is sent once MAIL is refused.
            if (i == 0 && replies[0].code != 250) break;
        }
    }
    if (replies[0].code != 250) {
        const MailError error = smtpReplyError(replies[0]);
        if (!chunked && replies.size() == commands.size() && replies.back().code == 354) {
            writeText(".\r\n");
            readReply();
        }
        reset();
        throw error;
    }
    SMTPSubmission result;
    std::optional<SMTPReply> firstRefusal;
    for (std::size_t i = 0; i < envelope.recipients.size(); ++i) {
        const SMTPReply& reply = replies[i + 1];
        const bool accepted = reply.code == 250 || reply.code == 251;
        result.recipients.push_back({envelope.recipients[i], accepted, reply});
        if (!accepted && !firstRefusal) firstRefusal = reply;
    }
    const bool anyAccepted = !firstRefusal || result.refused().size() < envelope.recipients.size();
    if (!chunked) {
        const SMTPReply& data = replies.back();
        if (data.code != 354) {
            const MailError error = smtpReplyError(anyAccepted ? data : *firstRefusal);
            reset();
            throw error;
        }
        if (!anyAccepted) {
            // The server took DATA although no recipient was accepted: end
            // the empty message at once.
            writeText(".\r\n");
            readReply();
            reset();
            throw smtpReplyError(*firstRefusal);
        }
    } else if (!anyAccepted) {
        reset();
        throw smtpReplyError(*firstRefusal);
    }

    // Everything but the message's last bytes; the end follows separately so
    // that a failure before it leaves nothing delivered.
    std::string end;
    if (chunked) {
        end = body.substr(body.size() - 1);
        body = "BDAT " + std::to_string(size) + " LAST\r\n" + body.substr(0, body.size() - 1);
    } else {
        end = ".\r\n";
    }
    writeText(body);
    if (beforeEnd) beforeEnd();
    try {
        stream_->writeText(end);
    } catch (const MailError&) {
        dead_ = true;
        stream_->close();
        throw uncertain();
    }
    SMTPReply final;
    try {
        final = readReply();
    } catch (const MailError&) {
        throw uncertain();
    }
    if (final.code == 421) {
        // The server is closing the connection: a submission server says so
        // when it lost its own relay after passing the message on, so this
        // is no proof that nothing was delivered.
        dead_ = true;
        stream_->close();
        throw MailError::network(NetworkFailureKind::outcomeUnknown,
                                 "the message may have been sent (" + final.summary() + ")");
    }
    if (final.code != 250) throw smtpReplyError(final);
    result.finalReply = final;
    return result;
}

void SMTPClient::quit() {
    if (!dead_ && connected_) {
        try {
            stream_->writeText("QUIT\r\n");
            readReply();
        } catch (const MailError&) {
        }
    }
    dead_ = true;
    stream_->close();
}

}  // namespace mailcore
