// FakeMailBackend: an in-memory mail backend with realistic mail for
// agent-service tests. Thread-safe. Records every write so that tests can
// check exactly what reached the mail, and can be told to fail or stall.
#pragma once

#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "KestruneMCPKit/Tools/MCPMailBackend.h"

namespace mcpkit::testing {

struct FakeStoredMessage {
    MCPMessage message;  // bodyText holds the raw body (HTML or plain)
    std::string folder = "inbox";
    bool unread = true;
    std::set<std::string> labels;
    bool starred = false;
};

struct FakeSent {
    MCPOutgoing message;
    std::optional<std::string> draftID;
};

class FakeMailBackend : public MCPMailBackend {
public:
    // Two accounts (me@example.com "Personal", work@example.org "Work") with
    // a newsletter full of trackers, a password-reset mail, a mail carrying
    // an instruction aimed at agents, a thread and a mail with an attachment.
    static std::shared_ptr<FakeMailBackend> withSampleMail();

    void addAccount(const MCPAccount& account);
    void addMessage(const FakeStoredMessage& message);

    // Every call fails (throws) while set.
    std::atomic<bool> failing{false};
    // Each search waits this long first (to test concurrency).
    std::atomic<int> searchDelayMilliseconds{0};
    // What send() answers.
    std::atomic<MCPSendDelivery> deliveryResult{MCPSendDelivery::sent};

    // Inspection.
    std::vector<FakeSent> sent();
    std::map<std::string, MCPOutgoing> drafts();
    FakeStoredMessage stored(const std::string& id);
    int writeCount();  // setRead + applyLabel + saveDraft + send calls that went through
    int searchCount();

    std::vector<MCPAccount> accounts() override;
    std::vector<MCPFolder> folders(const std::string& account) override;
    MCPSearchPage search(const MCPSearchQuery& query) override;
    std::optional<MCPMessage> message(const std::string& id,
                                      const std::optional<std::string>& account) override;
    void setRead(const std::string& id, const std::string& account, bool read) override;
    void applyLabel(const std::string& id, const std::string& account,
                    const std::optional<std::string>& label,
                    const std::optional<bool>& star) override;
    std::string saveDraft(const MCPOutgoing& outgoing,
                          const std::optional<std::string>& inReplyTo) override;
    std::optional<MCPOutgoing> draft(const std::string& id) override;
    MCPSendDelivery send(const MCPOutgoing& message,
                         const std::optional<std::string>& draftID) override;

private:
    void checkFailing();

    std::mutex lock_;
    std::vector<MCPAccount> accounts_;
    std::vector<FakeStoredMessage> messages_;  // oldest first
    std::map<std::string, MCPOutgoing> drafts_;
    std::vector<FakeSent> sent_;
    int writes_ = 0;
    int searches_ = 0;
    int nextDraft_ = 1;
};

}  // namespace mcpkit::testing
