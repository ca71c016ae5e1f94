// WorkflowAI: the prompts a workflow sends to the person's AI provider, and
// the reading of its answers.
//
// Every text taken from mail (sender, subject, body) goes through
// AIContentSanitizer with the standard options (secrets redacted, quotes and
// long signatures dropped, cut to budget) before it is placed in a prompt,
// and sits between <mail> and </mail> markers that the system message
// declares to be data, never instructions. Marker-like text inside the mail
// is defused so that it cannot close the block early.
//
// Stateless; thread-safe as far as the provider is.
#pragma once

#include <string>

#include "MailCore/AI/AIProvider.h"
#include "MailCore/Workflow/WorkflowMailSource.h"
#include "MailCore/Workflow/WorkflowSpec.h"

namespace mailcore::WorkflowAI {

// Characters of mail text a prompt carries at most.
inline constexpr std::int64_t mailBudget = 6000;

struct Judgement {
    bool matches = false;
    std::string reason;  // the model's short reason, at most 200 characters
};

// The mail block of a prompt: sanitized sender, subject and body.
std::string mailBlock(const WorkflowMailMessage& message);

AIChatRequest classifyRequest(const WorkflowCondition& condition,
                              const WorkflowMailMessage& message);
// "YES: reason" / "NO - reason" / "yes" ... Throws AIProviderError when the
// answer starts with neither.
Judgement readJudgement(const std::string& answer);
// Asks and reads; throws AIProviderError.
Judgement classify(AIProvider& provider, const WorkflowCondition& condition,
                   const WorkflowMailMessage& message);

AIChatRequest replyRequest(const std::string& instruction, const WorkflowMailMessage& message,
                           const std::string& myName);
// The reply body the model wrote for `instruction`, trimmed, at most 5000
// characters. Throws AIProviderError (also for an empty answer).
std::string writeReply(AIProvider& provider, const std::string& instruction,
                       const WorkflowMailMessage& message, const std::string& myName);

// The cache key of a classified condition: its category and description.
std::string conditionKey(const WorkflowCondition& condition);

}  // namespace mailcore::WorkflowAI
