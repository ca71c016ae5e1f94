// The harnesses that kestrune-mcp knows, in the order of the usage text and
// of --list-harnesses. Paths are those of the platform the program was built
// for (Linux keeps desktop applications' files under ~/.config).
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "KestruneMCPKit/Installer/MCPHarnessSpec.h"

namespace mcpkit::MCPHarnessCatalog {

// Every row, in catalog order.
const std::vector<MCPHarnessSpec>& all();

// The row whose id is exactly `id`; nothing for an unknown id.
std::optional<MCPHarnessSpec> spec(std::string_view id);

// The ids in catalog order.
std::vector<std::string> ids();

}  // namespace mcpkit::MCPHarnessCatalog
