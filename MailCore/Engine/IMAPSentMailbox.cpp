#include "MailCore/Engine/IMAPSentMailbox.h"

#include <optional>
#include <type_traits>

#include "MailCore/Common/MailError.h"
#include "MailCore/IMAP/IMAPSession.h"

namespace mailcore {
namespace {

constexpr const char* sentRole = "\\Sent";
constexpr const char* fallbackName = "Sent";

class IMAPSentMailbox final : public SentMailbox {
public:
    IMAPSentMailbox(std::shared_ptr<ConnectionFactory> connections, ServerEndpoint endpoint,
                    ServerLogin login, ProtocolLimits limits, ConnectionTimeouts timeouts)
        : connections_(std::move(connections)),
          endpoint_(std::move(endpoint)),
          login_(std::move(login)),
          limits_(limits),
          timeouts_(timeouts) {}
    ~IMAPSentMailbox() override {
        if (session_) session_->logout();
    }

    void append(const std::string& message) override {
        const std::string& name = folder();
        guarded([&] { session().append(name, message, {"\\Seen"}); });
    }

    bool contains(const InternetMessageID& messageID) override {
        const std::string& name = folder();
        return guarded([&] {
            IMAPSelectOptions readOnly;
            readOnly.readOnly = true;
            session().select(name, readOnly);
            const auto criteria =
                IMAPSearchCriteria().header("Message-ID", "<" + messageID.value() + ">");
            return !session().search(criteria).isEmpty();
        });
    }

private:
    IMAPSession& session() {
        if (!session_) {
            auto fresh = connections_->makeIMAPSession(endpoint_, limits_, timeouts_);
            fresh->connect();
            fresh->authenticate({login_.user, login_.secret, login_.isOAuthToken});
            session_ = std::move(fresh);
        }
        return *session_;
    }

    const std::string& folder() {
        if (folder_) return *folder_;
        guarded([&] {
            bool named = false;
            for (const auto& mailbox : session().list()) {
                if (!mailbox.isSelectable()) continue;
                if (mailbox.specialUse == std::string(sentRole)) {
                    folder_ = mailbox.name;
                    return;
                }
                named = named || mailbox.name == fallbackName;
            }
            if (!named) session().create(fallbackName);
            folder_ = fallbackName;
        });
        return *folder_;
    }

    // Runs `work`; a failure other than a refused command leaves the session
    // dead, so it is dropped and the next call starts over.
    template <typename Work>
    std::invoke_result_t<Work> guarded(Work work) {
        try {
            return work();
        } catch (const MailError& error) {
            const bool refused = error.errorCase() == MailError::Case::protocolViolation &&
                                 error.protocolKind() == ProtocolIssueKind::commandRejected;
            if (!refused && session_) {
                session_->logout();
                session_.reset();
            }
            throw;
        }
    }

    std::shared_ptr<ConnectionFactory> connections_;
    ServerEndpoint endpoint_;
    ServerLogin login_;
    ProtocolLimits limits_;
    ConnectionTimeouts timeouts_;
    std::unique_ptr<IMAPSession> session_;
    std::optional<std::string> folder_;
};

}  // namespace

std::unique_ptr<SentMailbox> makeIMAPSentMailbox(std::shared_ptr<ConnectionFactory> connections,
                                                 ServerEndpoint endpoint, ServerLogin login,
                                                 ProtocolLimits limits,
                                                 ConnectionTimeouts timeouts) {
    return std::make_unique<IMAPSentMailbox>(std::move(connections), std::move(endpoint),
                                             std::move(login), limits, timeouts);
}

}  // namespace mailcore
