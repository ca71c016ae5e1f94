// Condition meanings and the next run of scheduled workflows.
#include <gtest/gtest.h>

#include "MailCore/Workflow/WorkflowMatcher.h"

namespace mailcore {
namespace {

WorkflowMailMessage message() {
    WorkflowMailMessage m;
    m.id = "m1";
    m.account = "anna@example.com";
    m.from = "Billing Team <Billing@Mail.Shop.example>";
    m.to = {"anna@example.com", "team@client.com"};
    m.subject = "Re: FWD: Invoice March";
    m.snippet = "Your invoice is attached";
    m.unread = true;
    m.attachments = {{"March.PDF", "application/pdf"}, {"logo", "image/png"}};
    return m;
}

WorkflowCondition condition(const std::string& type, std::vector<std::string> values = {}) {
    WorkflowCondition c;
    c.type = type;
    c.values = std::move(values);
    return c;
}

TEST(WorkflowMatcher, ConditionMeanings) {
    struct Row {
        const char* type;
        std::vector<std::string> values;
        std::optional<bool> expected;
    };
    const Row rows[] = {
        {"from", {"billing@"}, true},
        {"from", {"  billing team  "}, true},
        {"from", {"sales"}, false},
        {"from_domain", {"shop.example"}, true},
        {"from_domain", {"@mail.shop.example"}, true},
        {"from_domain", {"op.example"}, false},
        {"from_domain", {"x@shop.example"}, true},
        {"sender_outside", {"example.com"}, true},
        {"sender_outside", {"shop.example", "other.org"}, false},
        {"to", {"client.com"}, true},
        {"to", {"bob"}, false},
        {"subject", {"march"}, true},
        {"body", {"ATTACHED"}, true},
        {"body", {"march"}, false},
        {"text", {"march"}, true},
        {"attachment_kind", {"pdf"}, true},
        {"attachment_kind", {".pdf"}, true},
        {"attachment_kind", {"image"}, true},
        {"attachment_kind", {"application/pdf"}, true},
        {"attachment_kind", {"zip", "calendar"}, false},
        {"in_thread", {"invoice march"}, true},
        {"in_thread", {"re:"}, false},
        {"has_attachment", {}, true},
        {"unread", {}, true},
        {"subject", {" "}, false},
        {"classified", {}, std::nullopt},
        {"mystery", {"x"}, std::nullopt},
    };
    const auto m = message();
    for (const Row& row : rows) {
        EXPECT_EQ(WorkflowMatcher::conditionMatches(condition(row.type, row.values), m),
                  row.expected)
            << row.type << " " << (row.values.empty() ? "" : row.values[0]);
    }
}

TEST(WorkflowMatcher, MatchCombinesJudgedConditions) {
    WorkflowSpec spec;
    spec.conditions = {condition("unread"), condition("subject", {"nothing"})};
    EXPECT_FALSE(WorkflowMatcher::matches(spec, message()));
    spec.match = "any";
    EXPECT_TRUE(WorkflowMatcher::matches(spec, message()));
    spec.conditions = {condition("classified")};
    EXPECT_TRUE(WorkflowMatcher::matches(spec, message()));
    spec.conditions = {};
    EXPECT_TRUE(WorkflowMatcher::matches(spec, message()));
}

TEST(WorkflowMatcher, SenderAddress) {
    EXPECT_EQ(WorkflowMatcher::senderAddress("Anna <ANNA@x.org>"), "anna@x.org");
    EXPECT_EQ(WorkflowMatcher::senderAddress(" bob@y.org "), "bob@y.org");
    EXPECT_EQ(WorkflowMatcher::senderAddress(""), "");
}

Date at(std::int64_t seconds) { return Date(std::chrono::seconds(seconds)); }

TEST(WorkflowMatcher, NextRunOfSchedules) {
    // 2026-11-21 is a Saturday; 1795255200 is 10:00:00 UTC that day.
    const Date now = at(1795255200);
    const WorkflowMatcher::UTCOffset utc = [](Date) { return 0L; };
    const WorkflowMatcher::UTCOffset plusOne = [](Date) { return 3600L; };
    const WorkflowMatcher::UTCOffset minusFive = [](Date) { return -5 * 3600L; };
    struct Row {
        std::int64_t hour;
        std::int64_t minute;
        std::vector<std::int64_t> weekdays;
        WorkflowMatcher::UTCOffset offset;
        const char* expected;
    };
    const Row rows[] = {
        {11, 0, {}, utc, "2026-11-21T11:00:00+00:00"},
        {10, 0, {}, utc, "2026-11-22T10:00:00+00:00"},  // exactly now: the next day
        {9, 59, {}, utc, "2026-11-22T09:59:00+00:00"},
        {8, 0, {2}, utc, "2026-11-23T08:00:00+00:00"},      // next Monday
        {12, 0, {7}, utc, "2026-11-21T12:00:00+00:00"},     // today is Saturday
        {9, 0, {7}, utc, "2026-11-28T09:00:00+00:00"},      // Saturday, already past
        {11, 0, {}, plusOne, "2026-11-22T11:00:00+01:00"},  // 11:00 local is now
        {5, 30, {}, minusFive, "2026-11-21T05:30:00-05:00"},
        {23, 0, {1}, minusFive, "2026-11-22T23:00:00-05:00"},
    };
    for (const Row& row : rows) {
        WorkflowTrigger trigger;
        trigger.type = "schedule";
        trigger.hour = row.hour;
        trigger.minute = row.minute;
        trigger.weekdays = row.weekdays;
        const auto next = WorkflowMatcher::nextRun(trigger, now, row.offset);
        ASSERT_TRUE(next.has_value());
        EXPECT_EQ(WorkflowMatcher::localTimestamp(*next, row.offset), row.expected) << row.hour;
        EXPECT_GT(*next, now);
    }
}

TEST(WorkflowMatcher, NoNextRunForOtherTriggersOrBadSchedules) {
    const WorkflowMatcher::UTCOffset utc = [](Date) { return 0L; };
    WorkflowTrigger trigger;
    trigger.type = "new_message";
    EXPECT_FALSE(WorkflowMatcher::nextRun(trigger, at(0), utc));
    trigger.type = "schedule";
    EXPECT_FALSE(WorkflowMatcher::nextRun(trigger, at(0), utc));  // no hour
    trigger.hour = 5;
    trigger.weekdays = {9};
    EXPECT_FALSE(WorkflowMatcher::nextRun(trigger, at(0), utc));
}

TEST(WorkflowMatcher, LocalTimestampBeforeTheEpochAndInLeapYears) {
    const WorkflowMatcher::UTCOffset utc = [](Date) { return 0L; };
    EXPECT_EQ(WorkflowMatcher::localTimestamp(at(-1), utc), "1969-12-31T23:59:59+00:00");
    EXPECT_EQ(WorkflowMatcher::localTimestamp(at(951782400), utc), "2000-02-29T00:00:00+00:00");
    const WorkflowMatcher::UTCOffset india = [](Date) { return 19800L; };
    EXPECT_EQ(WorkflowMatcher::localTimestamp(at(0), india), "1970-01-01T05:30:00+05:30");
}

}  // namespace
}  // namespace mailcore
