#include "KestruneMCPKit/Audit/MCPResult.h"

#include <array>
#include <utility>

namespace mcpkit {

namespace {

constexpr std::array<std::pair<MCPResult, std::string_view>, 7> kRawValues = {{
    {MCPResult::ok, "ok"},
    {MCPResult::error, "error"},
    {MCPResult::denied, "denied"},
    {MCPResult::refused, "refused"},
    {MCPResult::rateLimited, "rate_limited"},
    {MCPResult::declined, "declined"},
    {MCPResult::timedOut, "timed_out"},
}};

}  // namespace

std::string_view rawValue(MCPResult result) {
    for (const auto& [value, text] : kRawValues) {
        if (value == result) return text;
    }
    return "error";
}

std::optional<MCPResult> mcpResultFromRawValue(std::string_view text) {
    for (const auto& [value, raw] : kRawValues) {
        if (raw == text) return value;
    }
    return std::nullopt;
}

}  // namespace mcpkit
