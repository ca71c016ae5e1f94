// WorkflowPolicy: what an agent may propose. problems() lists every reason a
// specification cannot be saved, in the order of its fields (name, note,
// trigger, accounts, match, conditions, actions); an empty list means valid.
// Pure functions over their arguments; thread-safe.
//
// Problems name their place with the JSON path an agent wrote
// ("conditions[0].values", "actions[2]"), counting from 0.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "MailCore/Workflow/WorkflowLimits.h"
#include "MailCore/Workflow/WorkflowSpec.h"

namespace mailcore {

namespace WorkflowPolicy {

// `grantedTools`: the permissions of the calling harness (an action that
// labels, stars, marks read or saves a draft needs the matching one).
// `knownAccounts`: the account keys the harness may use; none skips the
// account check. Account keys compare without regard to ASCII case.
std::vector<std::string> problems(const WorkflowSpec& spec,
                                  const std::vector<std::string>& grantedTools,
                                  const std::optional<std::vector<std::string>>& knownAccounts,
                                  const WorkflowLimits& limits = {});

// The permission an action kind needs, or none for kinds that only act
// inside the app (remind, notify, show_notice, add_to_collection, extract).
std::optional<std::string> permissionForAction(const std::string& actionType);

// True for kinds that would send, forward, move or delete mail ("send",
// "forward_message", "move_to_folder", "trash", "archive", "auto_reply", ...).
bool isForbiddenActionType(const std::string& actionType);

// The placeholder names a template uses ("{{ sender_name }}" gives
// "sender_name"), in order of appearance, with repeats.
std::vector<std::string> placeholderNames(std::string_view text);

// The six placeholder names templates may use.
const std::vector<std::string>& knownPlaceholders();

}  // namespace WorkflowPolicy

}  // namespace mailcore
