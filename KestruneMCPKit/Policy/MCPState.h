// The persisted agent-access state ("state.json"): the user's switches and
// limits (MCPSettings, MCPLimits) and the registered harnesses
// (MCPHarnessRecord). Plain values; JSON keys follow the field names, dates
// are seconds since 1970-01-01 UTC. Tokens are never part of this state.
//
// Decoding fails closed: a setting that is missing, of the wrong type or out
// of its range takes its default, so a damaged file never allows more than a
// fresh installation; a harness record whose identity or client binding
// cannot be read is dropped, and one whose `allowed` is not literally true is
// not allowed.
#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "KestruneMCPKit/Tools/MCPTools.h"
#include "MailCore/Common/Clock.h"

namespace mcpkit {

struct MCPLimits {
    std::int64_t requestsPerMinute = 60;
    std::int64_t maxSearchLimit = 25;
    std::int64_t maxBodyCharacters = 20000;
    std::int64_t maxResultBytes = 200000;
    std::int64_t maxArgumentBytes = 262144;

    bool operator==(const MCPLimits&) const = default;
};

// Accepted ranges of the limits (inclusive). A value outside its range, or
// not an integer, decodes as the default.
struct MCPLimitRange {
    std::int64_t min;
    std::int64_t max;
};
inline constexpr MCPLimitRange requestsPerMinuteRange{0, 6000};
inline constexpr MCPLimitRange maxSearchLimitRange{1, 50};
inline constexpr MCPLimitRange maxBodyCharactersRange{1, 1000000};
inline constexpr MCPLimitRange maxResultBytesRange{1, 4194304};
inline constexpr MCPLimitRange maxArgumentBytesRange{1, 1048576};
inline constexpr MCPLimitRange retentionDaysRange{1, 36500};
inline constexpr MCPLimitRange confirmTimeoutSecondsRange{1, 3600};

struct MCPSettings {
    bool masterEnabled = false;
    // A fresh installation allows every permission but "send_message".
    std::set<std::string> enabledPermissions = MCPTools::defaultEnabledPermissions();
    std::set<std::string> excludedAccounts;
    MCPLimits limits;
    bool logSearchText = false;
    // None keeps every audit entry.
    std::optional<std::int64_t> retentionDays = 90;
    std::int64_t confirmTimeoutSeconds = 120;

    bool operator==(const MCPSettings&) const = default;
};

// Dates in the state are kept in whole seconds, as they are stored.
mailcore::Date wholeSeconds(mailcore::Date date);

struct MCPHarnessRecord {
    std::string id;
    std::string name;
    bool allowed = true;
    mailcore::Date createdAt{};
    std::optional<mailcore::Date> lastSeen;
    std::vector<std::string> clientHints;
    std::optional<std::string> boundClientName;

    bool operator==(const MCPHarnessRecord&) const = default;
};

struct MCPState {
    MCPSettings settings;
    std::vector<MCPHarnessRecord> harnesses;

    bool operator==(const MCPState&) const = default;

    // The record with this id, or null.
    const MCPHarnessRecord* harness(const std::string& id) const;
    MCPHarnessRecord* harness(const std::string& id);
};

nlohmann::ordered_json toJson(const MCPLimits& limits);
nlohmann::ordered_json toJson(const MCPSettings& settings);
nlohmann::ordered_json toJson(const MCPHarnessRecord& record);
nlohmann::ordered_json toJson(const MCPState& state);

// Lenient, fail-closed decoding (see above); never throws. A value that is not
// an object decodes as the defaults.
MCPLimits limitsFromJson(const nlohmann::ordered_json& json);
MCPSettings settingsFromJson(const nlohmann::ordered_json& json);
std::optional<MCPHarnessRecord> harnessFromJson(const nlohmann::ordered_json& json);
// Harness records that cannot be decoded are skipped, as are later records
// repeating an id.
MCPState stateFromJson(const nlohmann::ordered_json& json);

}  // namespace mcpkit
