// IMAPSession: the interface of the IMAP client, and the values it takes and
// gives. The account engine obtains sessions from the ConnectionFactory (not
// yet connected) and may implement this interface with a fake in tests.
//
// One session is one connection, used by one thread at a time; only the
// stop token given to idle() may be triggered from another thread.
//
// Typical use:
//   session->connect();                        // greeting, STARTTLS, CAPABILITY
//   session->authenticate({user, password});   // PLAIN, LOGIN, OAUTHBEARER or XOAUTH2
//   session->enable({"QRESYNC"});              // when capabilities().has("QRESYNC")
//   auto folders = session->list();            // with special-use roles
//   auto selected = session->select("INBOX", options);  // QRESYNC state in options
//   session->fetch(uids, request, onMessage);         // request: flags, sections...
//   session->logout();
// The send path appends to Sent with append() (APPENDUID gives the new UID)
// and checks for an earlier copy with
//   search(IMAPSearchCriteria().header("Message-ID", id)) on the selected Sent.
//
// Failures (every one a MailError):
// - the stream's own network and TLS failures, unchanged; a STARTTLS
//   endpoint whose server does not offer STARTTLS: tls(startTLSUnavailable);
// - authentication refused: auth(invalidCredentials, "authentication failed:
//   <server text>"), auth(temporaryFailure, ...) for [UNAVAILABLE];
// - a command the server answers with NO or BAD: protocolViolation(
//   commandRejected, "<COMMAND> failed: <server text>"), the session stays
//   usable;
// - a server that ends the session (BYE, or closing after BYE):
//   protocolViolation(serverClosed, "server closed the session: <text>");
// - a command whose extension the server lacks: unsupportedCapability;
// - responses beyond ProtocolLimits or outside the grammar: protocolViolation
//   (responseTooLarge / malformedResponse);
// - a command running past its deadline: network(timeout, "command timed out").
// After any failure other than a NO/BAD answer the session is dead: every
// later call fails with the same error, and a new session must be made.
//
// Untagged data the running command did not ask for (EXISTS, RECENT,
// EXPUNGE, VANISHED, FETCH flag changes, alerts) goes to the untagged
// handler, whichever command is running, so that nothing is lost.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>
#include <vector>

#include "MailCore/Common/Clock.h"
#include "MailCore/IMAP/IMAPCommand.h"
#include "MailCore/IMAP/IMAPResponse.h"
#include "MailCore/IMAP/UIDSet.h"

namespace mailcore {

using UIDValidityValue = std::uint32_t;

struct IMAPCredentials {
    std::string user;
    // A password, or an OAuth access token obtained by the caller.
    std::string secret;
    bool isOAuthToken = false;
};

// What the server offers, refreshed after STARTTLS and after login.
struct IMAPCapabilities {
    std::vector<std::string> items;  // upper case

    // `name` without regard to case ("IDLE", "AUTH=PLAIN").
    bool has(std::string_view name) const;
};

// One folder of LIST.
struct IMAPMailbox {
    std::string name;     // decoded, "/"-separated as the server separates
    std::string rawName;  // as the server sent it
    std::optional<char> delimiter;
    std::vector<std::string> attributes;
    // "\Sent", "\Drafts", "\Trash", "\Junk", "\Archive", "\All", "\Flagged",
    // or nothing.
    std::optional<std::string> specialUse;
    // With LIST-STATUS: the folder's STATUS values.
    std::map<std::string, std::uint64_t> status;

    // False for \Noselect and \NonExistent folders.
    bool isSelectable() const;
};

// STATUS values of a folder; absent when the server did not say.
struct IMAPFolderStatus {
    std::optional<std::uint32_t> messages;
    std::optional<UIDValue> uidNext;
    std::optional<UIDValidityValue> uidValidity;
    std::optional<std::uint32_t> unseen;
    std::optional<ModSeqValue> highestModSeq;
};

// What the client knows of a folder from an earlier session, for QRESYNC.
struct IMAPQResyncState {
    UIDValidityValue uidValidity = 0;
    ModSeqValue modSeq = 0;
    UIDSet knownUIDs;  // may be empty
};

struct IMAPSelectOptions {
    bool readOnly = false;  // EXAMINE
    bool condstore = false;
    // Needs QRESYNC enabled (enable({"QRESYNC"})).
    std::optional<IMAPQResyncState> qresync;
};

struct IMAPSelectedFolder {
    std::string name;
    bool readOnly = false;
    std::uint32_t exists = 0;
    std::uint32_t recent = 0;
    UIDValidityValue uidValidity = 0;
    std::optional<UIDValue> uidNext;
    std::optional<ModSeqValue> highestModSeq;  // none with NOMODSEQ
    std::optional<std::uint32_t> firstUnseen;
    std::vector<std::string> flags;
    std::vector<std::string> permanentFlags;
    // QRESYNC: UIDs expunged since the known state, and messages whose
    // flags changed since then.
    UIDSet vanished;
    std::vector<IMAPFetchData> changed;
};

// What UID FETCH asks for; the UID always comes back.
struct IMAPFetchRequest {
    bool flags = false;
    bool internalDate = false;
    bool size = false;
    bool envelope = false;
    bool bodyStructure = false;
    bool modSeq = false;
    // BODY.PEEK[section] for each: "" the whole message, "HEADER", "TEXT",
    // "1.2", "HEADER.FIELDS (SUBJECT FROM)".
    std::vector<std::string> sections;
    // CONDSTORE: only messages changed after this modification sequence;
    // with QRESYNC enabled, the expunged ones come as VANISHED (EARLIER) to
    // the untagged handler.
    std::optional<ModSeqValue> changedSince;
    bool vanished = false;
};

enum class IMAPFlagOperation { add, remove, replace };

struct IMAPStoreResult {
    // The messages' FETCH answers (new flags, and MODSEQ with CONDSTORE).
    std::vector<IMAPFetchData> updated;
    // UIDs not changed because they were modified after UNCHANGEDSINCE.
    UIDSet conflicts;
};

// COPYUID of a move or copy, when the server sent it.
struct IMAPCopyResult {
    std::optional<UIDValidityValue> uidValidity;
    UIDSet sourceUIDs;
    UIDSet destinationUIDs;
};

// APPENDUID, when the server sent it.
struct IMAPAppendResult {
    std::optional<UIDValidityValue> uidValidity;
    std::optional<UIDValue> uid;
};

class IMAPSession {
public:
    using UntaggedHandler = std::function<void(const IMAPResponse&)>;
    // Called for each message of a FETCH, in the order of arrival.
    using FetchHandler = std::function<void(const IMAPFetchData&)>;
    // Called for each untagged response during IDLE; returning false ends
    // the IDLE.
    using IdleHandler = std::function<bool(const IMAPResponse&)>;

    virtual ~IMAPSession() = default;

    virtual void setUntaggedHandler(UntaggedHandler handler) = 0;

    // Opens the connection: greeting, STARTTLS on a STARTTLS endpoint, and
    // the capabilities. A PREAUTH greeting leaves the session authenticated.
    virtual void connect() = 0;
    virtual const IMAPCapabilities& capabilities() const = 0;
    virtual bool isAuthenticated() const = 0;

    // A password goes with AUTHENTICATE PLAIN, or LOGIN when PLAIN is not
    // offered and LOGINDISABLED is not announced; a token with OAUTHBEARER,
    // else XOAUTH2. unsupportedCapability when none fits.
    virtual void authenticate(const IMAPCredentials& credentials) = 0;
    // The extensions the server enabled (CONDSTORE, QRESYNC, UTF8=ACCEPT).
    virtual std::vector<std::string> enable(const std::vector<std::string>& extensions) = 0;
    virtual bool isEnabled(std::string_view extension) const = 0;
    // ID with the client's fields; the server's fields.
    virtual IMAPIDData id(const std::vector<std::pair<std::string, std::string>>& fields) = 0;

    // Every folder, with special-use roles (and STATUS values when
    // `withStatus` and the server offers LIST-STATUS).
    virtual std::vector<IMAPMailbox> list(bool withStatus = false) = 0;
    virtual IMAPFolderStatus status(const std::string& mailbox) = 0;
    virtual void create(const std::string& mailbox) = 0;

    virtual IMAPSelectedFolder select(const std::string& mailbox,
                                      const IMAPSelectOptions& options = {}) = 0;
    // UID FETCH over the selected folder, in chunks of at most
    // ProtocolLimits.maxUIDsPerCommand UIDs.
    virtual void fetch(const UIDSet& uids, const IMAPFetchRequest& request,
                       const FetchHandler& onMessage) = 0;
    // UID SEARCH (with ESEARCH when offered) over the selected folder.
    virtual UIDSet search(const IMAPSearchCriteria& criteria) = 0;
    // UID STORE FLAGS; with `unchangedSince`, messages modified after it are
    // left alone and reported as conflicts.
    virtual IMAPStoreResult store(const UIDSet& uids, IMAPFlagOperation operation,
                                  const std::vector<std::string>& flags,
                                  std::optional<ModSeqValue> unchangedSince = std::nullopt) = 0;
    // UID MOVE, or without MOVE: UID COPY, UID STORE +FLAGS (\Deleted) and
    // UID EXPUNGE (needs UIDPLUS; unsupportedCapability without it).
    virtual IMAPCopyResult move(const UIDSet& uids, const std::string& destination) = 0;
    // UID EXPUNGE of messages marked \Deleted (needs UIDPLUS).
    virtual void expunge(const UIDSet& uids) = 0;
    // APPEND of an RFC 5322 message (no NUL bytes).
    virtual IMAPAppendResult append(const std::string& mailbox, const std::string& message,
                                    const std::vector<std::string>& flags = {},
                                    std::optional<Date> internalDate = std::nullopt) = 0;

    // IDLE until `onEvent` returns false or `stop` is requested; renewed
    // (DONE and IDLE again) every ConnectionTimeouts.idleRenewal seconds,
    // and never later than 29 minutes. Returns normally in both cases.
    virtual void idle(const IdleHandler& onEvent, std::stop_token stop) = 0;
    virtual void noop() = 0;
    // LOGOUT and close; never throws.
    virtual void logout() = 0;
};

}  // namespace mailcore
