#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "KestruneMCPKit/Policy/MCPState.h"
#include "MailCore/Common/Json.h"

namespace mcpkit {
namespace {

using mailcore::Json;
using mailcore::parseJson;

MCPSettings decodeSettings(const std::string& text) { return settingsFromJson(parseJson(text)); }

TEST(MCPStateTest, DefaultsAllowEverythingButSendingAndStayOff) {
    MCPSettings s;
    EXPECT_FALSE(s.masterEnabled);
    std::set<std::string> expected = {"list_accounts", "list_folders",    "search_messages",
                                      "read_message",  "mark_read",       "create_draft",
                                      "apply_label",   "manage_workflows"};
    EXPECT_EQ(s.enabledPermissions, expected);
    EXPECT_TRUE(s.excludedAccounts.empty());
    EXPECT_EQ(s.limits, (MCPLimits{60, 25, 20000, 200000, 262144}));
    EXPECT_FALSE(s.logSearchText);
    EXPECT_EQ(s.retentionDays, 90);
    EXPECT_EQ(s.confirmTimeoutSeconds, 120);
    EXPECT_EQ(stateFromJson(parseJson("{}")), MCPState{});
}

TEST(MCPStateTest, EncodesKeysInOrderAndRoundTrips) {
    MCPState state;
    state.settings.masterEnabled = true;
    state.settings.enabledPermissions = {"send_message", "read_message"};
    state.settings.excludedAccounts = {"work@example.com"};
    state.settings.limits.requestsPerMinute = 10;
    state.settings.logSearchText = true;
    state.settings.retentionDays = std::nullopt;
    state.settings.confirmTimeoutSeconds = 30;
    MCPHarnessRecord record;
    record.id = "claude-code";
    record.name = "Claude Code";
    record.createdAt = mailcore::dateFromSeconds(1767225600);
    record.lastSeen = mailcore::dateFromSeconds(1767225700);
    record.clientHints = {"claude-code"};
    record.boundClientName = "claude-code";
    state.harnesses.push_back(record);
    record.id = "zed";
    record.allowed = false;
    record.lastSeen.reset();
    record.boundClientName.reset();
    state.harnesses.push_back(record);

    Json json = toJson(state);
    std::vector<std::string> keys;
    for (const auto& [key, value] : json["settings"].items()) keys.push_back(key);
    EXPECT_EQ(keys, (std::vector<std::string>{"masterEnabled", "enabledPermissions",
                                              "excludedAccounts", "limits", "logSearchText",
                                              "retentionDays", "confirmTimeoutSeconds"}));
    EXPECT_EQ(json["harnesses"][0]["createdAt"], 1767225600);
    EXPECT_TRUE(json["settings"]["retentionDays"].is_null());
    EXPECT_FALSE(json["harnesses"][1].contains("boundClientName"));
    EXPECT_EQ(stateFromJson(parseJson(mailcore::encodeJson(json))), state);
}

TEST(MCPStateTest, MissingKeysOfAnOlderFileTakeTheirDefaults) {
    MCPState state = stateFromJson(parseJson(
        R"({"settings":{"masterEnabled":true,"limits":{"maxSearchLimit":10}},"harnesses":[{"id":"x","name":"X","allowed":true}]})"));
    MCPSettings expected;
    expected.masterEnabled = true;
    expected.limits.maxSearchLimit = 10;
    EXPECT_EQ(state.settings, expected);
    ASSERT_EQ(state.harnesses.size(), 1u);
    EXPECT_TRUE(state.harnesses[0].allowed);
    EXPECT_TRUE(state.harnesses[0].clientHints.empty());
    EXPECT_EQ(state.harnesses[0].lastSeen, std::nullopt);
}

// Each row: a settings object and how what it decodes to differs from the
// defaults. Nothing in a damaged file may allow more than a fresh
// installation does.
TEST(MCPStateTest, DamagedSettingsFailClosed) {
    using Change = std::function<void(MCPSettings&)>;
    const Change same = [](MCPSettings&) {};
    const std::pair<const char*, Change> rows[] = {
        {R"({"masterEnabled":"yes"})", same},
        {R"({"masterEnabled":1})", same},
        {R"({"masterEnabled":"true"})", same},
        {R"({"masterEnabled":null})", same},
        {R"({"masterEnabled":true})", [](auto& s) { s.masterEnabled = true; }},
        {R"({"enabledPermissions":"all"})", same},
        {R"({"enabledPermissions":{"send_message":true}})", same},
        {R"({"enabledPermissions":["send_message",5,"everything",null]})",
         [](auto& s) { s.enabledPermissions = {"send_message"}; }},
        {R"({"enabledPermissions":[]})", [](auto& s) { s.enabledPermissions.clear(); }},
        {R"({"excludedAccounts":"a@example.com"})", same},
        {R"({"excludedAccounts":["a@example.com",7]})",
         [](auto& s) { s.excludedAccounts = {"a@example.com"}; }},
        {R"({"limits":{"requestsPerMinute":-1}})", same},
        {R"({"limits":{"requestsPerMinute":"1000"}})", same},
        {R"({"limits":{"requestsPerMinute":1e12}})", same},
        {R"({"limits":{"requestsPerMinute":18446744073709551615}})", same},
        {R"({"limits":{"requestsPerMinute":60.5}})", same},
        {R"({"limits":{"requestsPerMinute":true}})", same},
        {R"({"limits":{"requestsPerMinute":0}})", [](auto& s) { s.limits.requestsPerMinute = 0; }},
        {R"({"limits":{"requestsPerMinute":120.0}})",
         [](auto& s) { s.limits.requestsPerMinute = 120; }},
        {R"({"limits":{"maxSearchLimit":0,"maxBodyCharacters":-20000,"maxResultBytes":null,)"
         R"("maxArgumentBytes":999999999}})",
         same},
        {R"({"limits":{"maxSearchLimit":51}})", same},
        {R"({"limits":[1,2,3]})", same},
        {R"({"logSearchText":"yes"})", same},
        {R"({"retentionDays":null})", [](auto& s) { s.retentionDays.reset(); }},
        {R"({"retentionDays":-5})", same},
        {R"({"retentionDays":"forever"})", same},
        {R"({"retentionDays":7})", [](auto& s) { s.retentionDays = 7; }},
        {R"({"confirmTimeoutSeconds":0})", same},
        {R"({"confirmTimeoutSeconds":-1})", same},
        {"{}", same},
    };
    for (const auto& [json, change] : rows) {
        MCPSettings expected;
        change(expected);
        EXPECT_EQ(decodeSettings(json), expected) << json;
    }
    // A settings value that is not an object is the defaults.
    for (const char* settings : {"null", "[]", "\"on\"", "true"}) {
        MCPState state = stateFromJson(
            parseJson(std::string(R"({"settings":)") + settings + R"(,"harnesses":[]})"));
        EXPECT_EQ(state.settings, MCPSettings{}) << settings;
    }
}

TEST(MCPStateTest, DamagedHarnessRecordsAreDroppedOrBlocked) {
    MCPState state = stateFromJson(parseJson(R"({"harnesses":[
        {"id":"a","name":"A","allowed":true,"boundClientName":"a-cli"},
        {"id":"a","name":"Second A","allowed":true},
        {"name":"no id","allowed":true},
        {"id":"","allowed":true},
        {"id":7,"allowed":true},
        "text",
        {"id":"b","allowed":"yes","createdAt":"yesterday","lastSeen":"now","clientHints":"b"},
        {"id":"c","allowed":true,"boundClientName":42},
        {"id":"d","allowed":true,"boundClientName":null,"clientHints":["d",3],"createdAt":1767225600.75},
        {"id":"e","createdAt":1e300,"lastSeen":-9e18}
    ]})"));
    std::vector<std::string> ids;
    for (const auto& h : state.harnesses) ids.push_back(h.id);
    EXPECT_EQ(ids, (std::vector<std::string>{"a", "b", "d", "e"}));
    EXPECT_EQ(state.harnesses[0].name, "A");
    EXPECT_EQ(state.harnesses[0].boundClientName, "a-cli");
    EXPECT_FALSE(state.harnesses[1].allowed);
    EXPECT_EQ(state.harnesses[1].name, "b");
    EXPECT_EQ(state.harnesses[1].lastSeen, std::nullopt);
    EXPECT_TRUE(state.harnesses[1].clientHints.empty());
    EXPECT_TRUE(state.harnesses[2].allowed);
    EXPECT_EQ(state.harnesses[2].boundClientName, std::nullopt);
    EXPECT_EQ(state.harnesses[2].clientHints, std::vector<std::string>{"d"});
    EXPECT_EQ(state.harnesses[2].createdAt, mailcore::dateFromSeconds(1767225600));
    EXPECT_FALSE(state.harnesses[3].allowed);                   // "allowed" missing: not allowed
    EXPECT_EQ(state.harnesses[3].createdAt, mailcore::Date{});  // out of the clock's range
    EXPECT_EQ(state.harnesses[3].lastSeen, std::nullopt);

    EXPECT_TRUE(stateFromJson(parseJson(R"({"harnesses":{"a":{}}})")).harnesses.empty());
}

}  // namespace
}  // namespace mcpkit
