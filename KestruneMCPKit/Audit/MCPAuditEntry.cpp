#include "KestruneMCPKit/Audit/MCPAuditEntry.h"

#include <cmath>
#include <nlohmann/json.hpp>

namespace mcpkit {

using Json = nlohmann::ordered_json;

mailcore::Date auditTime(mailcore::Date date) {
    return std::chrono::floor<std::chrono::milliseconds>(date);
}

Json toJson(const MCPAuditEntry& entry) {
    using namespace std::chrono;
    Json json = Json::object();
    json["id"] = entry.id;
    const auto ms = duration_cast<milliseconds>(auditTime(entry.time).time_since_epoch()).count();
    if (ms % 1000 == 0) {
        json["time"] = ms / 1000;
    } else {
        json["time"] = static_cast<double>(ms) / 1000.0;
    }
    json["harness"] = entry.harness;
    json["tool"] = entry.tool;
    json["account"] = entry.account;
    json["result"] = std::string(rawValue(entry.result));
    json["summary"] = entry.summary;
    if (entry.mailInfluenced) json["mailInfluenced"] = *entry.mailInfluenced;
    return json;
}

std::optional<MCPAuditEntry> auditEntryFromJson(const Json& json) {
    using namespace std::chrono;
    if (!json.is_object()) return std::nullopt;
    auto text = [&](const char* key) -> const std::string* {
        auto it = json.find(key);
        if (it == json.end() || !it->is_string()) return nullptr;
        return it->get_ptr<const std::string*>();
    };
    const std::string* id = text("id");
    const std::string* harness = text("harness");
    const std::string* tool = text("tool");
    const std::string* account = text("account");
    const std::string* result = text("result");
    const std::string* summary = text("summary");
    auto time = json.find("time");
    if (!id || !harness || !tool || !account || !result || !summary || time == json.end() ||
        !time->is_number()) {
        return std::nullopt;
    }
    const double seconds = time->get<double>();
    // Beyond about ±292 years the clock cannot represent the date.
    if (!std::isfinite(seconds) || std::fabs(seconds) > 8e9) return std::nullopt;
    auto resultValue = mcpResultFromRawValue(*result);
    if (!resultValue) return std::nullopt;

    MCPAuditEntry entry;
    entry.id = *id;
    entry.time = mailcore::Date(duration_cast<system_clock::duration>(
        milliseconds(static_cast<long long>(std::llround(seconds * 1000.0)))));
    entry.harness = *harness;
    entry.tool = *tool;
    entry.account = *account;
    entry.result = *resultValue;
    entry.summary = *summary;
    if (auto it = json.find("mailInfluenced"); it != json.end() && !it->is_null()) {
        if (!it->is_boolean()) return std::nullopt;
        entry.mailInfluenced = it->get<bool>();
    }
    return entry;
}

bool MCPAuditFilter::matches(const MCPAuditEntry& entry) const {
    if (harness && entry.harness != *harness) return false;
    if (account && entry.account != *account) return false;
    if (tool && entry.tool != *tool) return false;
    if (result && entry.result != *result) return false;
    if (since && entry.time < *since) return false;
    return true;
}

}  // namespace mcpkit
