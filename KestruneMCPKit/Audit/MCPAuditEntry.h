// One line of the audit log, and the filter the user applies when reading or
// exporting it. Plain values.
//
// JSON form of an entry (one line of "audit.jsonl"), keys in this order:
//   {"id": UUID text, "time": seconds since 1970 (millisecond precision),
//    "harness", "tool", "account": text, "result": raw value, "summary": text,
//    "mailInfluenced": boolean, left out when unknown}
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "KestruneMCPKit/Audit/MCPResult.h"
#include "MailCore/Common/Clock.h"

namespace mcpkit {

struct MCPAuditEntry {
    std::string id;
    mailcore::Date time{};
    std::string harness;
    std::string tool;
    std::string account;
    MCPResult result = MCPResult::ok;
    std::string summary;
    std::optional<bool> mailInfluenced;

    bool operator==(const MCPAuditEntry&) const = default;
};

// Audit times are kept to the millisecond, as they are stored.
mailcore::Date auditTime(mailcore::Date date);

nlohmann::ordered_json toJson(const MCPAuditEntry& entry);

// The entry of one JSON object, or none when a field is missing, of the wrong
// type, or the result is not a known raw value.
std::optional<MCPAuditEntry> auditEntryFromJson(const nlohmann::ordered_json& json);

struct MCPAuditFilter {
    std::optional<std::string> harness;
    std::optional<std::string> account;
    std::optional<std::string> tool;
    std::optional<MCPResult> result;
    std::optional<mailcore::Date> since;

    // Every field that is set holds: texts and result equal, time at or after
    // `since`.
    bool matches(const MCPAuditEntry& entry) const;
};

}  // namespace mcpkit
