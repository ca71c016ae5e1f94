// IMAPClient: the IMAPSession over a ByteStream. It owns the stream, the
// response parser and the command tags ("K1", "K2", ...). See IMAPSession.h
// for the contract; this header adds only construction and the trace.
//
// Deadlines: every wait for bytes is bounded by the stream's read timeout;
// a whole command by ConnectionTimeouts.command (bulkCommand for FETCH,
// SEARCH and APPEND); zero means no deadline of its own.
//
// Not thread-safe: one thread uses a session at a time.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <set>

#include "MailCore/IMAP/IMAPResponseParser.h"
#include "MailCore/IMAP/IMAPSession.h"
#include "MailCore/Transport/ByteStream.h"

namespace mailcore {

// Receives what goes over the wire, one line or command at a time:
// `sent` true for the client's commands. Credentials are already masked.
using IMAPTrace = std::function<void(bool sent, std::string_view text)>;

class IMAPClient final : public IMAPSession {
public:
    IMAPClient(std::unique_ptr<ByteStream> stream, ServerEndpoint endpoint, ProtocolLimits limits,
               ConnectionTimeouts timeouts, IMAPTrace trace = {});
    ~IMAPClient() override;

    void setUntaggedHandler(UntaggedHandler handler) override;
    void connect() override;
    const IMAPCapabilities& capabilities() const override { return capabilities_; }
    bool isAuthenticated() const override { return authenticated_; }
    void authenticate(const IMAPCredentials& credentials) override;
    std::vector<std::string> enable(const std::vector<std::string>& extensions) override;
    bool isEnabled(std::string_view extension) const override;
    IMAPIDData id(const std::vector<std::pair<std::string, std::string>>& fields) override;
    std::vector<IMAPMailbox> list(bool withStatus) override;
    IMAPFolderStatus status(const std::string& mailbox) override;
    void create(const std::string& mailbox) override;
    IMAPSelectedFolder select(const std::string& mailbox,
                              const IMAPSelectOptions& options) override;
    void fetch(const UIDSet& uids, const IMAPFetchRequest& request,
               const FetchHandler& onMessage) override;
    UIDSet search(const IMAPSearchCriteria& criteria) override;
    IMAPStoreResult store(const UIDSet& uids, IMAPFlagOperation operation,
                          const std::vector<std::string>& flags,
                          std::optional<ModSeqValue> unchangedSince) override;
    IMAPCopyResult move(const UIDSet& uids, const std::string& destination) override;
    void expunge(const UIDSet& uids) override;
    IMAPAppendResult append(const std::string& mailbox, const std::string& message,
                            const std::vector<std::string>& flags,
                            std::optional<Date> internalDate) override;
    void idle(const IdleHandler& onEvent, std::stop_token stop) override;
    void noop() override;
    void logout() override;

private:
    using Clock = std::chrono::steady_clock;
    // Returns true when the command took the response as its own answer;
    // anything else goes to the untagged handler.
    using Collector = std::function<bool(const IMAPResponse&)>;
    // Answers a continuation request ("+") during a command; returns the
    // bytes to send (a line end is added).
    using ContinuationAnswer = std::function<std::string(const IMAPContinuation&)>;

    struct Command {
        Command(std::string commandName, std::vector<IMAPArgument> commandArguments = {},
                bool isBulk = false, bool isSensitive = false)
            : name(std::move(commandName)),
              arguments(std::move(commandArguments)),
              bulk(isBulk),
              sensitive(isSensitive) {}

        std::string name;  // for failure details: "SELECT", "UID FETCH"
        std::vector<IMAPArgument> arguments;
        bool bulk = false;
        bool sensitive = false;  // the trace shows none of its arguments
    };

    // Sends `command`, feeds untagged responses to `collect` (then the
    // handler) until its tagged answer; returns that answer when OK, throws
    // the mapped failure for NO and BAD.
    IMAPStatusResponse run(const Command& command, const Collector& collect = {},
                           const ContinuationAnswer& answer = {});
    // The same, returning NO and BAD answers instead of throwing.
    IMAPStatusResponse exchange(const Command& command, const Collector& collect,
                                const ContinuationAnswer& answer);
    // The next response. A read timeout or cancellation fails the session
    // unless `interruptible` (an IDLE wait), when it is thrown as it is.
    IMAPResponse readResponse(std::optional<Clock::time_point> deadline,
                              bool interruptible = false);
    void send(const std::string& bytes, std::string_view traceText);
    void deliverUntagged(const IMAPResponse& response);
    void noteUntagged(const IMAPResponse& response);
    void refreshCapabilities(const std::optional<IMAPResponseCode>& code);
    IMAPCommandOptions commandOptions() const;
    std::string nextTag();
    void requireAlive() const;
    // Records a failure that ends the session and returns it.
    MailError kill(const MailError& error);
    [[noreturn]] void rejected(const std::string& command, const IMAPStatusResponse& answer);
    void authenticateSASL(const std::string& mechanism, const std::string& initial,
                          const std::string& onError);

    std::unique_ptr<ByteStream> stream_;
    const ServerEndpoint endpoint_;
    const ProtocolLimits limits_;
    const ConnectionTimeouts timeouts_;
    IMAPTrace trace_;
    IMAPResponseParser parser_;
    UntaggedHandler untagged_;
    IMAPCapabilities capabilities_;
    std::set<std::string> enabled_;
    bool connected_ = false;
    bool authenticated_ = false;
    bool byeSeen_ = false;
    std::string byeText_;
    std::optional<MailError> failure_;
    std::uint64_t tagCounter_ = 0;
    std::string selected_;
};

}  // namespace mailcore
