#include "KestruneMCPKit/Policy/MCPState.h"

#include <cmath>
#include <nlohmann/json.hpp>

namespace mcpkit {

using Json = nlohmann::ordered_json;

namespace {

std::int64_t integerOr(const Json& object, const char* key, MCPLimitRange range,
                       std::int64_t fallback) {
    auto it = object.find(key);
    if (it == object.end()) return fallback;
    std::int64_t value;
    if (it->is_number_integer()) {
        value = it->get<std::int64_t>();
    } else if (it->is_number_unsigned()) {
        return fallback;  // beyond int64: out of every range
    } else if (it->is_number_float()) {
        double d = it->get<double>();
        if (!std::isfinite(d) || d != std::floor(d) || std::fabs(d) > 1e15) return fallback;
        value = static_cast<std::int64_t>(d);
    } else {
        return fallback;
    }
    if (value < range.min || value > range.max) return fallback;
    return value;
}

bool booleanOr(const Json& object, const char* key, bool fallback) {
    auto it = object.find(key);
    if (it == object.end() || !it->is_boolean()) return fallback;
    return it->get<bool>();
}

// The text elements of an array; none when the value is not an array.
std::optional<std::vector<std::string>> texts(const Json& object, const char* key) {
    auto it = object.find(key);
    if (it == object.end() || !it->is_array()) return std::nullopt;
    std::vector<std::string> out;
    for (const auto& element : *it) {
        if (element.is_string()) out.push_back(element.get<std::string>());
    }
    return out;
}

std::optional<mailcore::Date> dateValue(const Json& value) {
    if (!value.is_number()) return std::nullopt;
    double seconds = value.get<double>();
    // Beyond about ±292 years the clock cannot represent the date.
    if (!std::isfinite(seconds) || std::fabs(seconds) > 8e9) return std::nullopt;
    return mailcore::dateFromSeconds(std::floor(seconds));
}

Json dateJson(mailcore::Date date) {
    return static_cast<std::int64_t>(std::floor(mailcore::secondsSince1970(date)));
}

Json textArray(const auto& values) {
    Json array = Json::array();
    for (const auto& v : values) array.push_back(v);
    return array;
}

}  // namespace

mailcore::Date wholeSeconds(mailcore::Date date) {
    return std::chrono::floor<std::chrono::seconds>(date);
}

const MCPHarnessRecord* MCPState::harness(const std::string& id) const {
    for (const auto& h : harnesses) {
        if (h.id == id) return &h;
    }
    return nullptr;
}

MCPHarnessRecord* MCPState::harness(const std::string& id) {
    for (auto& h : harnesses) {
        if (h.id == id) return &h;
    }
    return nullptr;
}

Json toJson(const MCPLimits& limits) {
    Json json = Json::object();
    json["requestsPerMinute"] = limits.requestsPerMinute;
    json["maxSearchLimit"] = limits.maxSearchLimit;
    json["maxBodyCharacters"] = limits.maxBodyCharacters;
    json["maxResultBytes"] = limits.maxResultBytes;
    json["maxArgumentBytes"] = limits.maxArgumentBytes;
    return json;
}

Json toJson(const MCPSettings& settings) {
    Json json = Json::object();
    json["masterEnabled"] = settings.masterEnabled;
    json["enabledPermissions"] = textArray(settings.enabledPermissions);
    json["excludedAccounts"] = textArray(settings.excludedAccounts);
    json["limits"] = toJson(settings.limits);
    json["logSearchText"] = settings.logSearchText;
    json["retentionDays"] = settings.retentionDays ? Json(*settings.retentionDays) : Json(nullptr);
    json["confirmTimeoutSeconds"] = settings.confirmTimeoutSeconds;
    return json;
}

Json toJson(const MCPHarnessRecord& record) {
    Json json = Json::object();
    json["id"] = record.id;
    json["name"] = record.name;
    json["allowed"] = record.allowed;
    json["createdAt"] = dateJson(record.createdAt);
    if (record.lastSeen) json["lastSeen"] = dateJson(*record.lastSeen);
    json["clientHints"] = textArray(record.clientHints);
    if (record.boundClientName) json["boundClientName"] = *record.boundClientName;
    return json;
}

Json toJson(const MCPState& state) {
    Json json = Json::object();
    json["settings"] = toJson(state.settings);
    Json harnesses = Json::array();
    for (const auto& h : state.harnesses) harnesses.push_back(toJson(h));
    json["harnesses"] = std::move(harnesses);
    return json;
}

MCPLimits limitsFromJson(const Json& json) {
    MCPLimits limits;
    if (!json.is_object()) return limits;
    limits.requestsPerMinute =
        integerOr(json, "requestsPerMinute", requestsPerMinuteRange, limits.requestsPerMinute);
    limits.maxSearchLimit =
        integerOr(json, "maxSearchLimit", maxSearchLimitRange, limits.maxSearchLimit);
    limits.maxBodyCharacters =
        integerOr(json, "maxBodyCharacters", maxBodyCharactersRange, limits.maxBodyCharacters);
    limits.maxResultBytes =
        integerOr(json, "maxResultBytes", maxResultBytesRange, limits.maxResultBytes);
    limits.maxArgumentBytes =
        integerOr(json, "maxArgumentBytes", maxArgumentBytesRange, limits.maxArgumentBytes);
    return limits;
}

MCPSettings settingsFromJson(const Json& json) {
    MCPSettings settings;
    if (!json.is_object()) return settings;
    settings.masterEnabled = booleanOr(json, "masterEnabled", false);
    if (auto enabled = texts(json, "enabledPermissions")) {
        // Only known permission ids count; an unknown id enables nothing.
        const auto& ids = MCPTools::permissionIDs();
        std::set<std::string> known(ids.begin(), ids.end());
        settings.enabledPermissions.clear();
        for (const auto& id : *enabled) {
            if (known.count(id)) settings.enabledPermissions.insert(id);
        }
    }
    if (auto excluded = texts(json, "excludedAccounts")) {
        settings.excludedAccounts = std::set<std::string>(excluded->begin(), excluded->end());
    }
    if (auto it = json.find("limits"); it != json.end()) settings.limits = limitsFromJson(*it);
    settings.logSearchText = booleanOr(json, "logSearchText", false);
    if (auto it = json.find("retentionDays"); it != json.end() && it->is_null()) {
        settings.retentionDays = std::nullopt;
    } else {
        settings.retentionDays =
            integerOr(json, "retentionDays", retentionDaysRange, *settings.retentionDays);
    }
    settings.confirmTimeoutSeconds = integerOr(
        json, "confirmTimeoutSeconds", confirmTimeoutSecondsRange, settings.confirmTimeoutSeconds);
    return settings;
}

std::optional<MCPHarnessRecord> harnessFromJson(const Json& json) {
    if (!json.is_object()) return std::nullopt;
    auto id = json.find("id");
    if (id == json.end() || !id->is_string() || id->get<std::string>().empty()) {
        return std::nullopt;
    }
    MCPHarnessRecord record;
    record.id = id->get<std::string>();
    auto name = json.find("name");
    record.name = name != json.end() && name->is_string() ? name->get<std::string>() : record.id;
    record.allowed = booleanOr(json, "allowed", false);
    if (auto it = json.find("createdAt"); it != json.end()) {
        record.createdAt = dateValue(*it).value_or(mailcore::Date{});
    }
    if (auto it = json.find("lastSeen"); it != json.end()) record.lastSeen = dateValue(*it);
    record.clientHints = texts(json, "clientHints").value_or(std::vector<std::string>{});
    if (auto it = json.find("boundClientName"); it != json.end() && !it->is_null()) {
        // A binding that cannot be read must not turn into "any client".
        if (!it->is_string()) return std::nullopt;
        record.boundClientName = it->get<std::string>();
    }
    return record;
}

MCPState stateFromJson(const Json& json) {
    MCPState state;
    if (!json.is_object()) return state;
    if (auto it = json.find("settings"); it != json.end()) {
        state.settings = settingsFromJson(*it);
    }
    if (auto it = json.find("harnesses"); it != json.end() && it->is_array()) {
        for (const auto& element : *it) {
            auto record = harnessFromJson(element);
            if (record && !state.harness(record->id)) state.harnesses.push_back(*record);
        }
    }
    return state;
}

}  // namespace mcpkit
