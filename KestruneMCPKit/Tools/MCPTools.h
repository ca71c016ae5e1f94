// MCPTools: the fixed catalog of tools that the agent service offers: the
// eight core mail tools, each gated by its own permission, then the six
// workflow tools, all gated by "manage_workflows". Built once on first use and
// never changed; every function here is thread-safe.
//
// The listing form of a tool (what "tools/list" shows a harness, both from the
// application and from the helper's offline fallback) is
//   {"name", "title", "description", "inputSchema": <schema parsed>,
//    "annotations": {"readOnlyHint", "destructiveHint", "idempotentHint",
//                    "openWorldHint"}}
// readOnlyHint is the negation of `writes`. The other three hints, per tool:
//   - read tools (list_accounts, list_folders, search_messages,
//     read_message, list_workflows, preview_workflow): not destructive,
//     idempotent, closed world (they only look at the user's local mail).
//   - mark_read, apply_label: not destructive (a flag or label can be set
//     back), idempotent (repeating the call changes nothing more), closed.
//   - create_draft: not destructive (it only adds a draft), not idempotent
//     (each call saves another draft), closed.
//   - send_message: destructive (a sent message cannot be called back), not
//     idempotent (each call may send again), open world (it reaches people
//     outside the user's mailbox).
//   - create_workflow: not destructive (the proposal waits for approval),
//     not idempotent (each call adds a workflow), closed.
//   - update_workflow: destructive (it replaces a definition), idempotent.
//   - pause_workflow: not destructive (the user can resume), idempotent.
//   - delete_workflow: destructive, idempotent.
//   - any other spec: the worst case (destructive, not idempotent, open).
#pragma once

#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "KestruneMCPKit/Tools/MCPToolSpec.h"
#include "MailCore/Common/Json.h"

namespace mcpkit::MCPTools {

inline constexpr std::string_view listAccounts = "list_accounts";
inline constexpr std::string_view listFolders = "list_folders";
inline constexpr std::string_view searchMessages = "search_messages";
inline constexpr std::string_view readMessage = "read_message";
inline constexpr std::string_view markRead = "mark_read";
inline constexpr std::string_view createDraft = "create_draft";
inline constexpr std::string_view applyLabel = "apply_label";
inline constexpr std::string_view sendMessage = "send_message";
inline constexpr std::string_view manageWorkflows = "manage_workflows";

// The eight core specs in catalog order.
const std::vector<MCPToolSpec>& core();

// The six workflow specs (title = name, permission = manage_workflows).
const std::vector<MCPToolSpec>& workflow();

// core() followed by workflow().
const std::vector<MCPToolSpec>& all();

// The permission of every core spec in catalog order, then
// "manage_workflows": nine ids, no duplicates.
const std::vector<std::string>& permissionIDs();

// permissionIDs() without "send_message".
const std::set<std::string>& defaultEnabledPermissions();

// The six workflow tool names.
const std::set<std::string>& workflowNames();

// The spec whose name equals `name` exactly (case-sensitive), core first.
std::optional<MCPToolSpec> spec(std::string_view name);

// The hints documented above.
MCPToolAnnotations annotations(const MCPToolSpec& spec);

// The listing form of one tool (see above).
mailcore::Json listingForm(const MCPToolSpec& spec);

// A JSON array with the listing form of each spec, in the given order.
mailcore::Json listing(const std::vector<MCPToolSpec>& specs);

// listing(all()): the whole static catalog, which the helper answers when the
// application cannot be reached.
mailcore::Json staticListing();

}  // namespace mcpkit::MCPTools
