// MCPDisplayText: the shaping of untrusted text (subjects, addresses, bodies
// an agent wrote) for display in a confirmation. It is the engine's one
// display-text rule, shared with everything else a person reads.
#pragma once

#include "MailCore/Common/DisplayText.h"

namespace mcpkit {
namespace MCPDisplayText = mailcore::DisplayText;
}  // namespace mcpkit
