// How a workflow is presented to the user: its risk grade and a one-sentence
// summary in plain language. Pure functions; thread-safe.
//
// Risk grades, by the most consequential thing a workflow can do:
//  - "high": it can hide mail from the user or put words in the user's name:
//    mark_read (new mail may go unnoticed) or draft_reply (a reply draft
//    written from a fixed text or by the AI provider from mail that may
//    carry instructions; it is never sent, but the user could send it
//    without reading it closely).
//  - "medium": it changes how messages look in the mailbox or copies mail
//    content elsewhere: apply_label, star, digest (a draft in Drafts),
//    extract (fields written to a local file), or any "classified"
//    condition (message text goes to the user's AI provider).
//  - "low": it only tells the user something inside the app: notify,
//    show_notice, remind, add_to_collection.
// A workflow never sends, forwards, moves or deletes mail, at any grade.
#pragma once

#include <string>
#include <string_view>

#include "MailCore/Workflow/WorkflowSpec.h"

namespace mailcore {

enum class WorkflowRisk { low, medium, high };

// "low", "medium", "high".
std::string_view riskName(WorkflowRisk risk);

WorkflowRisk assessRisk(const WorkflowSpec& spec);

// For example: `When a new message arrives in anna@example.com that is from
// "billing@shop.example" and has "invoice" in the subject: label it
// "Invoices" and star it.` Agent-written texts are quoted, cut and cleaned
// of control characters.
std::string describeWorkflow(const WorkflowSpec& spec);

}  // namespace mailcore
