// MCPTaintTracker: which agent sessions have read mail ("mail-influenced"),
// what they read, and how often they write. Mail text is untrusted, so the
// service makes writes from such sessions stricter and shows the user what
// the session read. Memory only. Thread-safe: all state is guarded by lock_;
// time comes only from the injected clock.
#pragma once

#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "MailCore/Common/Clock.h"

namespace mcpkit {

// One message a session has read, as the user is shown it.
struct MCPMailRead {
    std::string id;
    std::string from;
    std::string subject;
};

enum class LabelDecision { allow, confirm, refuse };

class MCPTaintTracker {
public:
    static constexpr double idleExpirySeconds = 43200;  // 12 hours without activity
    static constexpr std::size_t maxSessions = 256;
    static constexpr std::size_t snapshotMailLimit = 20;

    struct Snapshot {
        bool mailInfluenced = false;
        std::vector<MCPMailRead> mailRead;  // the most recent entries, oldest first
        int mailReadTotal = 0;
    };

    explicit MCPTaintTracker(mailcore::Clock clock);

    // The harness id and the session text joined; the session keeps only
    // ASCII letters, digits and "-", and an empty result becomes "default".
    static std::string key(const std::string& harness, const std::string& session);

    // Adds the messages just read; the session becomes mail-influenced.
    void recordRead(const std::string& key, const std::vector<MCPMailRead>& mails);

    Snapshot snapshot(const std::string& key);

    // Any request of the session counts as activity: a known session's idle
    // time starts again (an unknown or expired one is not created).
    void touch(const std::string& key);

    // The label-write gate: refuse at 30 writes in the past hour in a
    // mail-influenced session (300 otherwise), confirm when a mail-influenced
    // session made 3 or more writes in the past 10 minutes, else allow.
    // Allowed and confirmed writes are recorded; refused ones are not.
    LabelDecision labelWrite(const std::string& key, bool tainted);

    // Forgets the session (the agent said goodbye).
    void forget(const std::string& key);

    // Drops the sessions of one harness, or of every harness.
    void clear(const std::optional<std::string>& harness);

    int taintedSessionCount();

private:
    struct Session {
        std::deque<MCPMailRead> mailRead;
        int mailReadTotal = 0;
        mailcore::Date lastActivity;
        std::deque<mailcore::Date> writes;
    };

    void expireLocked(mailcore::Date now);
    Session& touchLocked(const std::string& key, mailcore::Date now);

    mailcore::Clock clock_;
    std::mutex lock_;
    std::unordered_map<std::string, Session> sessions_;  // guarded by lock_
};

}  // namespace mcpkit
