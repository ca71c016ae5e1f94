#include "MailCore/IMAP/IMAPClient.h"

#include <algorithm>
#include <exception>

#include "MailCore/Common/Base64.h"
#include "MailCore/Common/MailError.h"
#include "MailCore/IMAP/IMAPDate.h"
#include "MailCore/Transport/Cancellation.h"

namespace mailcore {
namespace {

using PIK = ProtocolIssueKind;

constexpr int readChunkBytes = 65536;
// Servers may end an IDLE after 30 minutes; renew well before.
constexpr double longestIdleSeconds = 29 * 60 - 30;
constexpr double defaultIdleSeconds = 25 * 60;
constexpr int maxSASLRounds = 4;

std::string upper(std::string_view text) {
    std::string out(text);
    for (char& c : out) {
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    }
    return out;
}

std::string lower(std::string_view text) {
    std::string out(text);
    for (char& c : out) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return out;
}

// The server's words for a failure detail: "[CODE] text".
std::string serverText(const IMAPStatusResponse& answer) {
    std::string text = answer.text;
    if (answer.code) text = "[" + answer.code->name + "] " + text;
    return text;
}

bool isFlag(const std::string& flag) {
    if (flag.empty()) return false;
    for (std::size_t i = 0; i < flag.size(); ++i) {
        const auto c = static_cast<unsigned char>(flag[i]);
        if (c <= 0x20 || c >= 0x7f) return false;
        if (std::string_view("(){%*\"]").find(static_cast<char>(c)) != std::string_view::npos) {
            return false;
        }
        if (c == '\\' && i != 0) return false;
    }
    return true;
}

std::string flagList(const std::vector<std::string>& flags) {
    std::string text = "(";
    for (const auto& flag : flags) {
        if (!isFlag(flag)) {
            throw MailError::protocolViolation(PIK::invalidInput, "invalid flag");
        }
        if (text.size() > 1) text += ' ';
        text += flag;
    }
    return text + ")";
}

void mergeInto(UIDSet& target, const UIDSet& more) {
    target.ranges.insert(target.ranges.end(), more.ranges.begin(), more.ranges.end());
}

}  // namespace

bool IMAPCapabilities::has(std::string_view name) const {
    const std::string wanted = upper(name);
    return std::find(items.begin(), items.end(), wanted) != items.end();
}

bool IMAPMailbox::isSelectable() const {
    for (const auto& a : attributes) {
        const std::string u = upper(a);
        if (u == "\\NOSELECT" || u == "\\NONEXISTENT") return false;
    }
    return true;
}

IMAPClient::IMAPClient(std::unique_ptr<ByteStream> stream, ServerEndpoint endpoint,
                       ProtocolLimits limits, ConnectionTimeouts timeouts, IMAPTrace trace)
    : stream_(std::move(stream)),
      endpoint_(std::move(endpoint)),
      limits_(boundedProtocolLimits(limits)),
      timeouts_(timeouts),
      trace_(std::move(trace)),
      parser_(limits_) {}

IMAPClient::~IMAPClient() { stream_->close(); }

void IMAPClient::setUntaggedHandler(UntaggedHandler handler) { untagged_ = std::move(handler); }

MailError IMAPClient::kill(const MailError& error) {
    if (!failure_) failure_ = error;
    stream_->close();
    return *failure_;
}

void IMAPClient::requireAlive() const {
    if (failure_) throw *failure_;
    if (!connected_) {
        throw MailError::protocolViolation(PIK::invalidInput, "session not connected");
    }
}

std::string IMAPClient::nextTag() { return "K" + std::to_string(++tagCounter_); }

IMAPCommandOptions IMAPClient::commandOptions() const {
    IMAPCommandOptions options;
    if (capabilities_.has("LITERAL+")) {
        options.literals = IMAPLiteralMode::literalPlus;
    } else if (capabilities_.has("LITERAL-")) {
        options.literals = IMAPLiteralMode::literalMinus;
    }
    options.utf8 = isEnabled("UTF8=ACCEPT");
    return options;
}

void IMAPClient::send(const std::string& bytes, std::string_view traceText) {
    try {
        stream_->write(toBytes(bytes));
    } catch (const MailError& error) {
        throw kill(error);
    }
    if (trace_) trace_(true, traceText);
}

IMAPResponse IMAPClient::readResponse(std::optional<Clock::time_point> deadline,
                                      bool interruptible) {
    for (;;) {
        std::optional<IMAPResponse> response;
        try {
            response = parser_.next();
        } catch (const MailError& error) {
            throw kill(error);
        }
        if (response) return std::move(*response);
        if (deadline && Clock::now() > *deadline) {
            throw kill(MailError::network(NetworkFailureKind::timeout, "command timed out"));
        }
        Bytes bytes;
        try {
            bytes = stream_->read(readChunkBytes);
        } catch (const MailError& error) {
            // An IDLE wait may be interrupted without harm: nothing was lost.
            const bool interruption = error.errorCase() == MailError::Case::cancelled ||
                                      (error.errorCase() == MailError::Case::network &&
                                       error.networkKind() == NetworkFailureKind::timeout);
            if (interruption && interruptible) throw;
            throw kill(error);
        }
        if (bytes.empty()) {
            if (byeSeen_) {
                throw kill(MailError::protocolViolation(PIK::serverClosed,
                                                        "server closed the session: " + byeText_));
            }
            throw kill(MailError::network(NetworkFailureKind::connectionLost,
                                          "connection closed by server"));
        }
        if (trace_)
            trace_(false,
                   std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
        try {
            parser_.feed(bytes.data(), bytes.size());
        } catch (const MailError& error) {
            throw kill(error);
        }
    }
}

void IMAPClient::noteUntagged(const IMAPResponse& response) {
    if (const auto* status = response.as<IMAPStatusResponse>()) {
        if (status->status == IMAPStatus::bye) {
            byeSeen_ = true;
            byeText_ = status->text;
        }
        if (status->code && status->code->name == "CAPABILITY") {
            capabilities_.items.clear();
            for (const auto& c : status->code->list) capabilities_.items.push_back(upper(c));
        }
    } else if (const auto* capability = response.as<IMAPCapabilityData>()) {
        capabilities_.items.clear();
        for (const auto& c : capability->capabilities) capabilities_.items.push_back(upper(c));
    }
}

void IMAPClient::deliverUntagged(const IMAPResponse& response) {
    if (untagged_) untagged_(response);
}

IMAPStatusResponse IMAPClient::exchange(const Command& command, const Collector& collect,
                                        const ContinuationAnswer& answer) {
    requireAlive();
    const std::string tag = nextTag();
    std::vector<IMAPArgument> arguments;
    std::size_t start = 0;
    while (start < command.name.size()) {
        std::size_t end = command.name.find(' ', start);
        if (end == std::string::npos) end = command.name.size();
        arguments.push_back(IMAPArgument::atom(command.name.substr(start, end - start)));
        start = end + 1;
    }
    arguments.insert(arguments.end(), command.arguments.begin(), command.arguments.end());
    IMAPWireCommand wire = IMAPCommand::build(tag, arguments, commandOptions());
    if (command.sensitive) wire.traceText = tag + " " + command.name + " ***";

    const double seconds = command.bulk ? timeouts_.bulkCommand : timeouts_.command;
    std::optional<Clock::time_point> deadline;
    if (seconds > 0) {
        deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                      std::chrono::duration<double>(seconds));
    }
    send(wire.segments[0], wire.traceText);
    std::size_t nextSegment = 1;
    std::int64_t untaggedCount = 0;
    int answers = 0;
    std::exception_ptr callerFailure;
    for (;;) {
        IMAPResponse response = readResponse(deadline);
        if (const auto* continuation = response.as<IMAPContinuation>()) {
            if (nextSegment < wire.segments.size()) {
                send(wire.segments[nextSegment++], "(literal)");
            } else if (answer && ++answers <= maxSASLRounds) {
                send(answer(*continuation) + "\r\n", command.sensitive ? "***" : "(answer)");
            } else if (answer) {
                send("*\r\n", "*");
            } else {
                throw kill(MailError::protocolViolation(PIK::unexpectedResponse,
                                                        "unexpected continuation request"));
            }
            continue;
        }
        const auto* status = response.as<IMAPStatusResponse>();
        if (status && !status->tag.empty()) {
            if (status->tag != tag) {
                throw kill(MailError::protocolViolation(PIK::unexpectedResponse,
                                                        "answer to an unknown command"));
            }
            if (status->status == IMAPStatus::ok && nextSegment < wire.segments.size()) {
                throw kill(MailError::protocolViolation(PIK::unexpectedResponse,
                                                        "command ended before its literal"));
            }
            if (callerFailure) std::rethrow_exception(callerFailure);
            return *status;
        }
        if (limits_.maxUntaggedResponses > 0 && ++untaggedCount > limits_.maxUntaggedResponses) {
            throw kill(
                MailError::protocolViolation(PIK::responseTooLarge, "too many untagged responses"));
        }
        noteUntagged(response);
        bool taken = false;
        if (collect && !callerFailure) {
            // A failing caller's handler must not leave the command half
            // read: the answer is read to its end and the failure rethrown.
            try {
                taken = collect(response);
            } catch (...) {
                callerFailure = std::current_exception();
                taken = true;
            }
        }
        if (!taken) deliverUntagged(response);
    }
}

void IMAPClient::rejected(const std::string& command, const IMAPStatusResponse& answer) {
    throw MailError::protocolViolation(PIK::commandRejected,
                                       lower(command) + " failed: " + serverText(answer));
}

IMAPStatusResponse IMAPClient::run(const Command& command, const Collector& collect,
                                   const ContinuationAnswer& answer) {
    IMAPStatusResponse result = exchange(command, collect, answer);
    if (result.status != IMAPStatus::ok) rejected(command.name, result);
    return result;
}

void IMAPClient::refreshCapabilities(const std::optional<IMAPResponseCode>& code) {
    if (code && code->name == "CAPABILITY") {
        capabilities_.items.clear();
        for (const auto& c : code->list) capabilities_.items.push_back(upper(c));
        return;
    }
    capabilities_.items.clear();
    run({"CAPABILITY"},
        [](const IMAPResponse& r) { return r.as<IMAPCapabilityData>() != nullptr; });
}

void IMAPClient::connect() {
    if (failure_) throw *failure_;
    if (connected_) return;
    try {
        stream_->open();
    } catch (const MailError& error) {
        throw kill(error);
    }
    std::optional<Clock::time_point> deadline;
    if (timeouts_.command > 0) {
        deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                      std::chrono::duration<double>(timeouts_.command));
    }
    const IMAPResponse greeting = readResponse(deadline);
    const auto* status = greeting.as<IMAPStatusResponse>();
    if (!status || !status->tag.empty()) {
        throw kill(MailError::protocolViolation(PIK::unexpectedResponse, "unexpected greeting"));
    }
    if (status->status == IMAPStatus::bye) {
        throw kill(MailError::protocolViolation(PIK::serverClosed,
                                                "server refused the connection: " + status->text));
    }
    if (status->status != IMAPStatus::ok && status->status != IMAPStatus::preauth) {
        throw kill(MailError::protocolViolation(PIK::unexpectedResponse, "unexpected greeting"));
    }
    connected_ = true;
    authenticated_ = status->status == IMAPStatus::preauth;
    refreshCapabilities(status->code);
    if (endpoint_.security != TransportSecurity::startTLS) return;

    if (authenticated_) {
        throw kill(MailError::tls(TLSFailureKind::startTLSUnavailable,
                                  "server skipped STARTTLS with PREAUTH"));
    }
    if (!capabilities_.has("STARTTLS")) {
        throw kill(
            MailError::tls(TLSFailureKind::startTLSUnavailable, "server does not offer STARTTLS"));
    }
    if (exchange({"STARTTLS"}, {}, {}).status != IMAPStatus::ok) {
        throw kill(MailError::tls(TLSFailureKind::startTLSUnavailable, "server refused STARTTLS"));
    }
    // Bytes sent before the handshake could only have been injected.
    if (parser_.pendingBytes() != 0) {
        throw kill(MailError::protocolViolation(PIK::unexpectedResponse, "data after STARTTLS"));
    }
    try {
        stream_->upgradeToTLS(endpoint_.host);
    } catch (const MailError& error) {
        throw kill(error);
    }
    refreshCapabilities(std::nullopt);
}

void IMAPClient::authenticateSASL(const std::string& mechanism, const std::string& initial,
                                  const std::string& onError) {
    const bool initialResponse = capabilities_.has("SASL-IR");
    Command command{"AUTHENTICATE", {IMAPArgument::atom(mechanism)}, false, true};
    if (initialResponse) {
        const std::string encoded = base64Encode(initial);
        command.arguments.push_back(IMAPArgument::atom(encoded.empty() ? "=" : encoded));
    }
    bool sentInitial = initialResponse;
    const IMAPStatusResponse answer = exchange(command, {}, [&](const IMAPContinuation&) {
        if (!sentInitial) {
            sentInitial = true;
            return base64Encode(initial);
        }
        // A challenge after the response carries the server's error.
        return base64Encode(onError);
    });
    if (answer.status == IMAPStatus::ok) {
        authenticated_ = true;
        refreshCapabilities(answer.code);
        return;
    }
    if (answer.status == IMAPStatus::no) {
        const bool temporary = answer.code && answer.code->name == "UNAVAILABLE";
        throw MailError::auth(
            temporary ? AuthFailureKind::temporaryFailure : AuthFailureKind::invalidCredentials,
            "authentication failed: " + serverText(answer));
    }
    rejected("AUTHENTICATE", answer);
}

void IMAPClient::authenticate(const IMAPCredentials& credentials) {
    requireAlive();
    if (authenticated_) return;
    if (credentials.isOAuthToken) {
        const std::string bearer = "auth=Bearer " + credentials.secret + "\x01\x01";
        if (capabilities_.has("AUTH=OAUTHBEARER")) {
            authenticateSASL("OAUTHBEARER",
                             "n,a=" + credentials.user + ",\x01host=" + endpoint_.host +
                                 "\x01port=" + std::to_string(endpoint_.port) + "\x01" + bearer,
                             "\x01");
        } else if (capabilities_.has("AUTH=XOAUTH2")) {
            authenticateSASL("XOAUTH2", "user=" + credentials.user + "\x01" + bearer, "");
        } else {
            throw MailError::unsupportedCapability("server offers no OAuth sign-in");
        }
        return;
    }
    if (capabilities_.has("AUTH=PLAIN")) {
        authenticateSASL("PLAIN",
                         std::string(1, '\0') + credentials.user + '\0' + credentials.secret, "");
        return;
    }
    if (capabilities_.has("LOGINDISABLED")) {
        throw MailError::unsupportedCapability("server offers no password sign-in");
    }
    const IMAPStatusResponse answer = exchange(
        {"LOGIN",
         {IMAPArgument::string(credentials.user), IMAPArgument::string(credentials.secret)},
         false,
         true},
        {}, {});
    if (answer.status == IMAPStatus::ok) {
        authenticated_ = true;
        refreshCapabilities(answer.code);
        return;
    }
    if (answer.status == IMAPStatus::no) {
        const bool temporary = answer.code && answer.code->name == "UNAVAILABLE";
        throw MailError::auth(
            temporary ? AuthFailureKind::temporaryFailure : AuthFailureKind::invalidCredentials,
            "authentication failed: " + serverText(answer));
    }
    rejected("LOGIN", answer);
}

std::vector<std::string> IMAPClient::enable(const std::vector<std::string>& extensions) {
    requireAlive();
    if (!capabilities_.has("ENABLE")) throw MailError::unsupportedCapability("ENABLE not offered");
    Command command{"ENABLE", {}};
    for (const auto& e : extensions) command.arguments.push_back(IMAPArgument::atom(e));
    std::vector<std::string> result;
    run(command, [&](const IMAPResponse& r) {
        const auto* enabled = r.as<IMAPEnabledData>();
        if (!enabled) return false;
        for (const auto& c : enabled->capabilities) {
            result.push_back(upper(c));
            enabled_.insert(upper(c));
        }
        return true;
    });
    parser_.setUTF8(isEnabled("UTF8=ACCEPT"));
    return result;
}

bool IMAPClient::isEnabled(std::string_view extension) const {
    return enabled_.count(upper(extension)) != 0;
}

IMAPIDData IMAPClient::id(const std::vector<std::pair<std::string, std::string>>& fields) {
    requireAlive();
    if (!capabilities_.has("ID")) throw MailError::unsupportedCapability("ID not offered");
    Command command{"ID", {}};
    if (fields.empty()) {
        command.arguments.push_back(IMAPArgument::atom("NIL"));
    } else {
        command.arguments.push_back(IMAPArgument::atom("("));
        for (const auto& [name, value] : fields) {
            command.arguments.push_back(IMAPArgument::string(name));
            command.arguments.push_back(IMAPArgument::string(value));
        }
        command.arguments.push_back(IMAPArgument::atom(")"));
    }
    IMAPIDData result;
    run(command, [&](const IMAPResponse& r) {
        const auto* data = r.as<IMAPIDData>();
        if (data) result = *data;
        return data != nullptr;
    });
    return result;
}

std::vector<IMAPMailbox> IMAPClient::list(bool withStatus) {
    requireAlive();
    Command command{"LIST", {IMAPArgument::string(""), IMAPArgument::atom("*")}};
    const bool extended = capabilities_.has("LIST-EXTENDED");
    const bool status = withStatus && capabilities_.has("LIST-STATUS");
    if (extended || status) {
        std::string options;
        if (extended && capabilities_.has("SPECIAL-USE")) options = "SPECIAL-USE";
        if (status) {
            if (!options.empty()) options += ' ';
            options += "STATUS (MESSAGES UIDNEXT UIDVALIDITY UNSEEN";
            options += capabilities_.has("CONDSTORE") ? " HIGHESTMODSEQ)" : ")";
        }
        if (!options.empty()) {
            command.arguments.push_back(IMAPArgument::atom("RETURN"));
            command.arguments.push_back(IMAPArgument::atom("(" + options + ")"));
        }
    }
    std::vector<IMAPMailbox> mailboxes;
    std::map<std::string, std::map<std::string, std::uint64_t>> statuses;
    run(command, [&](const IMAPResponse& r) {
        if (const auto* s = r.as<IMAPMailboxStatusData>()) {
            statuses[s->rawName] = s->attributes;
            return true;
        }
        const auto* entry = r.as<IMAPListData>();
        if (!entry || entry->lsub) return false;
        IMAPMailbox m;
        m.name = entry->name;
        m.rawName = entry->rawName;
        m.delimiter = entry->delimiter;
        m.attributes = entry->attributes;
        for (const auto& a : entry->attributes) {
            const std::string u = upper(a);
            for (const char* role :
                 {"\\SENT", "\\DRAFTS", "\\TRASH", "\\JUNK", "\\ARCHIVE", "\\ALL", "\\FLAGGED"}) {
                if (u == role) m.specialUse = "\\" + u.substr(1, 1) + lower(u.substr(2));
            }
        }
        mailboxes.push_back(std::move(m));
        return true;
    });
    for (auto& m : mailboxes) {
        auto found = statuses.find(m.rawName);
        if (found != statuses.end()) m.status = found->second;
    }
    return mailboxes;
}

IMAPFolderStatus IMAPClient::status(const std::string& mailbox) {
    requireAlive();
    std::string items = "(MESSAGES UIDNEXT UIDVALIDITY UNSEEN";
    items += capabilities_.has("CONDSTORE") ? " HIGHESTMODSEQ)" : ")";
    IMAPFolderStatus result;
    run({"STATUS", {IMAPArgument::mailbox(mailbox), IMAPArgument::atom(items)}},
        [&](const IMAPResponse& r) {
            const auto* s = r.as<IMAPMailboxStatusData>();
            if (!s) return false;
            auto value = [&](const char* name) -> std::optional<std::uint64_t> {
                auto found = s->attributes.find(name);
                if (found == s->attributes.end()) return std::nullopt;
                return found->second;
            };
            auto narrow = [](std::optional<std::uint64_t> v) -> std::optional<std::uint32_t> {
                if (!v || *v > UINT32_MAX) return std::nullopt;
                return static_cast<std::uint32_t>(*v);
            };
            result.messages = narrow(value("MESSAGES"));
            result.uidNext = narrow(value("UIDNEXT"));
            result.uidValidity = narrow(value("UIDVALIDITY"));
            result.unseen = narrow(value("UNSEEN"));
            result.highestModSeq = value("HIGHESTMODSEQ");
            return true;
        });
    return result;
}

void IMAPClient::create(const std::string& mailbox) {
    requireAlive();
    const Command command{"CREATE", {IMAPArgument::mailbox(mailbox)}};
    const IMAPStatusResponse answer = exchange(command, {}, {});
    if (answer.status == IMAPStatus::ok) return;
    if (answer.code && answer.code->name == "ALREADYEXISTS") return;
    rejected(command.name, answer);
}

IMAPSelectedFolder IMAPClient::select(const std::string& mailbox,
                                      const IMAPSelectOptions& options) {
    requireAlive();
    Command command{options.readOnly ? "EXAMINE" : "SELECT", {IMAPArgument::mailbox(mailbox)}};
    if (options.qresync) {
        if (!isEnabled("QRESYNC")) {
            throw MailError::unsupportedCapability("QRESYNC is not enabled");
        }
        std::string parameters = "(QRESYNC (" + std::to_string(options.qresync->uidValidity) + " " +
                                 std::to_string(options.qresync->modSeq);
        if (!options.qresync->knownUIDs.isEmpty()) {
            parameters += " " + options.qresync->knownUIDs.imapString();
        }
        command.arguments.push_back(IMAPArgument::atom(parameters + "))"));
    } else if (options.condstore) {
        if (!capabilities_.has("CONDSTORE")) {
            throw MailError::unsupportedCapability("CONDSTORE not offered");
        }
        command.arguments.push_back(IMAPArgument::atom("(CONDSTORE)"));
    }
    IMAPSelectedFolder folder;
    folder.name = mailbox;
    std::optional<UIDValidityValue> uidValidity;
    selected_.clear();
    const IMAPStatusResponse answer = run(command, [&](const IMAPResponse& r) {
        if (const auto* flags = r.as<IMAPFlagsData>()) {
            folder.flags = flags->flags;
        } else if (const auto* count = r.as<IMAPMessageCountData>()) {
            if (count->kind == IMAPMessageCountData::Kind::exists) {
                folder.exists = count->number;
            } else if (count->kind == IMAPMessageCountData::Kind::recent) {
                folder.recent = count->number;
            } else {
                return false;
            }
        } else if (const auto* status = r.as<IMAPStatusResponse>()) {
            if (!status->code || status->status != IMAPStatus::ok) return false;
            const IMAPResponseCode& code = *status->code;
            if (code.name == "UIDVALIDITY" && code.number) {
                uidValidity = static_cast<UIDValidityValue>(*code.number);
            } else if (code.name == "UIDNEXT" && code.number) {
                folder.uidNext = static_cast<UIDValue>(*code.number);
            } else if (code.name == "HIGHESTMODSEQ") {
                folder.highestModSeq = code.number;
            } else if (code.name == "NOMODSEQ") {
                folder.highestModSeq.reset();
            } else if (code.name == "UNSEEN" && code.number) {
                folder.firstUnseen = static_cast<std::uint32_t>(*code.number);
            } else if (code.name == "PERMANENTFLAGS") {
                folder.permanentFlags = code.list;
            } else if (code.name != "CLOSED") {
                return false;
            }
        } else if (const auto* vanished = r.as<IMAPVanishedData>()) {
            if (!vanished->earlier) return false;
            mergeInto(folder.vanished, vanished->uids);
        } else if (const auto* fetch = r.as<IMAPFetchData>()) {
            folder.changed.push_back(*fetch);
        } else {
            return false;
        }
        return true;
    });
    if (!uidValidity) {
        throw MailError::protocolViolation(PIK::missingRequiredData, "no UIDVALIDITY in SELECT");
    }
    folder.uidValidity = *uidValidity;
    folder.readOnly = options.readOnly || (answer.code && answer.code->name == "READ-ONLY");
    selected_ = mailbox;
    return folder;
}

void IMAPClient::fetch(const UIDSet& uids, const IMAPFetchRequest& request,
                       const FetchHandler& onMessage) {
    requireAlive();
    if (request.changedSince && !capabilities_.has("CONDSTORE")) {
        throw MailError::unsupportedCapability("CONDSTORE not offered");
    }
    if (request.vanished && !isEnabled("QRESYNC")) {
        throw MailError::unsupportedCapability("QRESYNC is not enabled");
    }
    std::string items = "(UID";
    if (request.flags) items += " FLAGS";
    if (request.internalDate) items += " INTERNALDATE";
    if (request.size) items += " RFC822.SIZE";
    if (request.envelope) items += " ENVELOPE";
    if (request.bodyStructure) items += " BODYSTRUCTURE";
    if (request.modSeq) items += " MODSEQ";
    for (const auto& section : request.sections) {
        if (section.find_first_of("\r\n[]") != std::string::npos) {
            throw MailError::protocolViolation(PIK::invalidInput, "invalid body section");
        }
        items += " BODY.PEEK[" + section + "]";
    }
    items += ")";
    for (const UIDSet& chunk : uids.chunked(limits_.maxUIDsPerCommand)) {
        Command command{
            "UID FETCH", {IMAPArgument::atom(chunk.imapString()), IMAPArgument::atom(items)}, true};
        if (request.changedSince) {
            command.arguments.push_back(
                IMAPArgument::atom("(CHANGEDSINCE " + std::to_string(*request.changedSince) +
                                   (request.vanished ? " VANISHED)" : ")")));
        }
        run(command, [&](const IMAPResponse& r) {
            const auto* data = r.as<IMAPFetchData>();
            if (!data || !data->uid) return false;
            onMessage(*data);
            return true;
        });
    }
}

UIDSet IMAPClient::search(const IMAPSearchCriteria& criteria) {
    requireAlive();
    Command command{"UID SEARCH", {}, true};
    const bool extended = capabilities_.has("ESEARCH");
    if (extended) command.arguments.push_back(IMAPArgument::atom("RETURN (ALL)"));
    if (criteria.needsCharset() && !isEnabled("UTF8=ACCEPT")) {
        command.arguments.push_back(IMAPArgument::atom("CHARSET UTF-8"));
    }
    const auto& keys = criteria.arguments();
    if (keys.empty()) {
        command.arguments.push_back(IMAPArgument::atom("ALL"));
    } else {
        command.arguments.insert(command.arguments.end(), keys.begin(), keys.end());
    }
    UIDSet result;
    std::vector<UIDValue> numbers;
    run(command, [&](const IMAPResponse& r) {
        if (const auto* e = r.as<IMAPESearchData>()) {
            mergeInto(result, e->all);
            return true;
        }
        if (const auto* s = r.as<IMAPSearchData>()) {
            numbers.insert(numbers.end(), s->numbers.begin(), s->numbers.end());
            return true;
        }
        return false;
    });
    if (!numbers.empty()) mergeInto(result, UIDSet::fromUIDs(numbers));
    return result;
}

IMAPStoreResult IMAPClient::store(const UIDSet& uids, IMAPFlagOperation operation,
                                  const std::vector<std::string>& flags,
                                  std::optional<ModSeqValue> unchangedSince) {
    requireAlive();
    if (unchangedSince && !capabilities_.has("CONDSTORE")) {
        throw MailError::unsupportedCapability("CONDSTORE not offered");
    }
    const std::string item = operation == IMAPFlagOperation::add      ? "+FLAGS"
                             : operation == IMAPFlagOperation::remove ? "-FLAGS"
                                                                      : "FLAGS";
    const std::string list = flagList(flags);
    IMAPStoreResult result;
    for (const UIDSet& chunk : uids.chunked(limits_.maxUIDsPerCommand)) {
        Command command{"UID STORE", {IMAPArgument::atom(chunk.imapString())}};
        if (unchangedSince) {
            command.arguments.push_back(
                IMAPArgument::atom("(UNCHANGEDSINCE " + std::to_string(*unchangedSince) + ")"));
        }
        command.arguments.push_back(IMAPArgument::atom(item));
        command.arguments.push_back(IMAPArgument::atom(list));
        const IMAPStatusResponse answer = run(command, [&](const IMAPResponse& r) {
            if (const auto* data = r.as<IMAPFetchData>()) {
                result.updated.push_back(*data);
                return true;
            }
            const auto* status = r.as<IMAPStatusResponse>();
            if (status && status->code && status->code->name == "MODIFIED") {
                mergeInto(result.conflicts, status->code->modified);
                return true;
            }
            return false;
        });
        if (answer.code && answer.code->name == "MODIFIED") {
            mergeInto(result.conflicts, answer.code->modified);
        }
    }
    return result;
}

IMAPCopyResult IMAPClient::move(const UIDSet& uids, const std::string& destination) {
    requireAlive();
    const bool native = capabilities_.has("MOVE");
    if (!native && !capabilities_.has("UIDPLUS")) {
        throw MailError::unsupportedCapability("server can neither move nor expunge by UID");
    }
    IMAPCopyResult result;
    auto noteCopy = [&](const IMAPResponseCode& code) {
        if (code.name != "COPYUID") return false;
        if (code.number) result.uidValidity = static_cast<UIDValidityValue>(*code.number);
        mergeInto(result.sourceUIDs, code.sourceUIDs);
        mergeInto(result.destinationUIDs, code.destinationUIDs);
        return true;
    };
    for (const UIDSet& chunk : uids.chunked(limits_.maxUIDsPerCommand)) {
        const auto set = IMAPArgument::atom(chunk.imapString());
        const auto collect = [&](const IMAPResponse& r) {
            const auto* status = r.as<IMAPStatusResponse>();
            return status && status->code && noteCopy(*status->code);
        };
        const IMAPStatusResponse copied = run(
            {native ? "UID MOVE" : "UID COPY", {set, IMAPArgument::mailbox(destination)}}, collect);
        if (copied.code) noteCopy(*copied.code);
        if (native) continue;
        run({"UID STORE",
             {set, IMAPArgument::atom("+FLAGS.SILENT"), IMAPArgument::atom("(\\Deleted)")}});
        run({"UID EXPUNGE", {set}});
    }
    return result;
}

void IMAPClient::expunge(const UIDSet& uids) {
    requireAlive();
    if (!capabilities_.has("UIDPLUS"))
        throw MailError::unsupportedCapability("UIDPLUS not offered");
    for (const UIDSet& chunk : uids.chunked(limits_.maxUIDsPerCommand)) {
        run({"UID EXPUNGE", {IMAPArgument::atom(chunk.imapString())}});
    }
}

IMAPAppendResult IMAPClient::append(const std::string& mailbox, const std::string& message,
                                    const std::vector<std::string>& flags,
                                    std::optional<Date> internalDate) {
    requireAlive();
    if (message.find('\0') != std::string::npos) {
        throw MailError::protocolViolation(PIK::invalidInput, "message contains a NUL byte");
    }
    Command command{"APPEND", {IMAPArgument::mailbox(mailbox)}, true};
    if (!flags.empty()) command.arguments.push_back(IMAPArgument::atom(flagList(flags)));
    if (internalDate) {
        command.arguments.push_back(IMAPArgument::string(IMAPDate::appendDateTime(*internalDate)));
    }
    command.arguments.push_back(IMAPArgument::literal(message));
    const IMAPStatusResponse answer = run(command);
    IMAPAppendResult result;
    if (answer.code && answer.code->name == "APPENDUID" && answer.code->number) {
        result.uidValidity = static_cast<UIDValidityValue>(*answer.code->number);
        const auto& ranges = answer.code->destinationUIDs.ranges;
        if (ranges.size() == 1 && ranges[0].upper == ranges[0].lower) result.uid = ranges[0].lower;
    }
    return result;
}

void IMAPClient::idle(const IdleHandler& onEvent, std::stop_token stop) {
    requireAlive();
    if (!capabilities_.has("IDLE")) throw MailError::unsupportedCapability("IDLE not offered");
    const double renewal = std::min(
        timeouts_.idleRenewal > 0 ? timeouts_.idleRenewal : defaultIdleSeconds, longestIdleSeconds);
    std::optional<Clock::time_point> commandDeadline;
    auto deadline = [&]() -> std::optional<Clock::time_point> {
        if (timeouts_.command <= 0) return std::nullopt;
        return Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                  std::chrono::duration<double>(timeouts_.command));
    };
    bool keepGoing = true;
    std::exception_ptr callerFailure;
    auto dispatch = [&](const IMAPResponse& r) {
        noteUntagged(r);
        deliverUntagged(r);
        if (!keepGoing || callerFailure) return;
        try {
            keepGoing = onEvent(r);
        } catch (...) {
            callerFailure = std::current_exception();
        }
    };
    while (keepGoing && !callerFailure && !stop.stop_requested()) {
        const std::string tag = nextTag();
        send(tag + " IDLE\r\n", tag + " IDLE");
        // Until the server agrees to idle.
        for (;;) {
            IMAPResponse r = readResponse(deadline());
            if (r.as<IMAPContinuation>()) break;
            if (r.tag() == tag) rejected("IDLE", *r.as<IMAPStatusResponse>());
            if (!r.tag().empty()) {
                throw kill(MailError::protocolViolation(PIK::unexpectedResponse,
                                                        "answer to an unknown command"));
            }
            dispatch(r);
        }
        const auto renewAt = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                                std::chrono::duration<double>(renewal));
        bool endedByServer = false;
        while (keepGoing && !callerFailure && !stop.stop_requested() && Clock::now() < renewAt) {
            std::optional<IMAPResponse> r;
            try {
                CancellationScope scope(stop);
                r = readResponse(std::nullopt, true);
            } catch (const MailError&) {
                if (failure_) throw;
                continue;  // a quiet read or a stop: look at the clock and the token again
            }
            if (r->tag() == tag) {
                // The server ended the IDLE itself.
                const auto* answer = r->as<IMAPStatusResponse>();
                if (answer->status != IMAPStatus::ok) rejected("IDLE", *answer);
                endedByServer = true;
                break;
            }
            dispatch(*r);
        }
        if (endedByServer) continue;
        send("DONE\r\n", "DONE");
        commandDeadline = deadline();
        for (;;) {
            IMAPResponse r = readResponse(commandDeadline);
            if (r.tag() == tag) {
                const auto* answer = r.as<IMAPStatusResponse>();
                if (answer->status != IMAPStatus::ok) rejected("IDLE", *answer);
                break;
            }
            if (!r.tag().empty() || r.as<IMAPContinuation>()) {
                throw kill(MailError::protocolViolation(PIK::unexpectedResponse,
                                                        "unexpected response to DONE"));
            }
            dispatch(r);
        }
    }
    if (callerFailure) std::rethrow_exception(callerFailure);
}

void IMAPClient::noop() { run({"NOOP"}); }

void IMAPClient::logout() {
    if (connected_ && !failure_) {
        try {
            exchange({"LOGOUT"}, [](const IMAPResponse&) { return true; }, {});
        } catch (const MailError&) {
            // The session ends either way.
        }
    }
    if (!failure_) {
        failure_ = MailError::protocolViolation(PIK::serverClosed, "session logged out");
    }
    stream_->close();
}

}  // namespace mailcore
