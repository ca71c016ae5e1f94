// WorkflowMatcher: whether a message meets a workflow's conditions, and when
// a scheduled workflow runs next. Used by the preview; the meanings are the
// ones the workflow engine applies. Pure functions; thread-safe.
//
// Value conditions compare without regard to ASCII case: "from" is a part of
// the sender text; "from_domain" the sender's domain or a parent of it;
// "sender_outside" a sender whose domain is none of the values (an address
// counts by its domain); "to" a part of a recipient; "subject", "body" and
// "text" (subject or body) a part of that text; "attachment_kind" a file
// extension ("pdf"), a MIME type ("application/pdf") or its main type
// ("image"); "in_thread" a part of the conversation's subject without
// "Re:"/"Fwd:" prefixes (any subject of the thread, when known).
// "classified" needs the user's AI provider and is judged through the
// context's callback.
#pragma once

#include <functional>
#include <optional>

#include "MailCore/Common/Clock.h"
#include "MailCore/Workflow/WorkflowMailSource.h"
#include "MailCore/Workflow/WorkflowSpec.h"

namespace mailcore::WorkflowMatcher {

// A message's texts under the case fold, each made at its first use and
// kept for every condition and workflow judged against the same message.
// Refers to the message, which must outlive it. Not thread-safe.
class FoldedMessage {
public:
    explicit FoldedMessage(const WorkflowMailMessage& message) : message_(message) {}
    const WorkflowMailMessage& message() const { return message_; }
    const std::string& from();
    const std::string& subject();
    const std::string& body();  // the body text, or the snippet without one
    const std::vector<std::string>& to();
    // The message's subject and those of its thread, without Re:/Fwd:.
    const std::vector<std::string>& threadSubjects();

private:
    const WorkflowMailMessage& message_;
    std::optional<std::string> from_, subject_, body_;
    std::optional<std::vector<std::string>> to_, threadSubjects_;
};

// None for conditions that cannot be judged without the AI provider
// (classified) and for unknown kinds.
std::optional<bool> conditionMatches(const WorkflowCondition& condition,
                                     const WorkflowMailMessage& message);
std::optional<bool> conditionMatches(const WorkflowCondition& condition, FoldedMessage& message);

// The conditions combined by `match`; conditions that cannot be judged are
// left out (so the answer is an upper bound when there are some). No
// judgeable condition at all matches every message.
bool matches(const WorkflowSpec& spec, const WorkflowMailMessage& message);

// What the engine knows beyond the message: the person's own addresses
// (lower-case; a sender among them is never "outside") and the judge of
// classified conditions (none: they never match).
struct MatchContext {
    std::vector<std::string> ownAddresses;
    std::function<bool(const WorkflowCondition&)> classified;
};

// The conditions combined by `match` as the engine applies them: every
// condition is judged, classified ones last and only when the others leave
// the outcome open.
bool matches(const WorkflowSpec& spec, FoldedMessage& message, const MatchContext& context);

// The bare, lower-case sender address of a "Name <address>" text.
std::string senderAddress(const std::string& from);

// Seconds east of UTC at a given moment (the user's local time zone).
using UTCOffset = std::function<long(Date)>;
UTCOffset localUTCOffset();

// The next time strictly after `now` when a schedule trigger fires, in the
// local time of `offset`; none for other triggers or an invalid schedule.
std::optional<Date> nextRun(const WorkflowTrigger& trigger, Date now, const UTCOffset& offset);

// "2026-11-23T08:00:00+01:00": `date` in local time with its offset.
std::string localTimestamp(Date date, const UTCOffset& offset);

}  // namespace mailcore::WorkflowMatcher
