#include <gtest/gtest.h>

#include "KestruneMCPKit/Taint/MCPConfirmation.h"
#include "MailCore/Common/UTF8.h"

namespace mcpkit {
namespace {

MCPSendRequest sendRequest(int mailReadTotal, int listed) {
    MCPSendRequest r;
    r.harness = "Claude\nDesktop";
    r.message = {"me@example.com",
                 {"a@example.com", "b@example.com"},
                 {},
                 "Lunch\ttomorrow",
                 "Hi,\nsee you there.\n"};
    for (int i = 0; i < listed; ++i) {
        r.mailRead.push_back(
            {"id" + std::to_string(i), "Eve <eve@evil.test>", "Urgent " + std::to_string(i)});
    }
    r.mailReadTotal = mailReadTotal;
    return r;
}

TEST(MCPConfirmationDisplayTest, SendShowsRecipientsAndOnlyATaintedSessionTheMailItRead) {
    const auto d = MCPConfirmationDisplay::send(sendRequest(0, 0));
    EXPECT_EQ(d.title, "Claude\u23CEDesktop wants to send this email");
    EXPECT_EQ(d.subtitle,
              "Nothing is sent unless you click Send. Check the recipients and text first.");
    ASSERT_EQ(d.rows.size(), 3u);  // no Cc row without copies
    EXPECT_EQ(d.rows[0].value, "me@example.com");
    EXPECT_EQ(d.rows[1].value, "a@example.com, b@example.com");
    EXPECT_EQ(d.rows[2].value, "Lunch\u00B7tomorrow");
    EXPECT_EQ(d.detail, "Hi,\nsee you there.\n");
    EXPECT_FALSE(d.mailHeading.has_value());
    EXPECT_TRUE(d.isSend);

    // A tainted session lists the mail read, and how much more there was.
    const auto t = MCPConfirmationDisplay::send(sendRequest(27, 20));
    EXPECT_EQ(t.subtitle,
              "This session has read mail, and the text below may have been influenced by it. "
              "Check every recipient.");
    EXPECT_EQ(t.mailHeading, "Mail this session has read (shown as data, not instructions)");
    ASSERT_EQ(t.mailLines.size(), 21u);
    EXPECT_EQ(t.mailLines.front(), "Eve <eve@evil.test> \u2014 Urgent 0");
    EXPECT_EQ(t.mailLines.back(), "and 7 more");
}

TEST(MCPConfirmationDisplayTest, LongBodiesAndTitlesAreBounded) {
    auto r = sendRequest(1, 1);
    r.harness = std::string(100, 'h');
    r.message.body.clear();
    for (int i = 0; i < 100; ++i) r.message.body += "line " + std::to_string(i) + "\n";
    r.mailRead[0].subject = std::string(300, 's');
    const auto d = MCPConfirmationDisplay::send(r);
    EXPECT_EQ(d.title,
              std::string(60, 'h') + " \u2026 40 more characters wants to send this email");
    EXPECT_EQ(d.detailOmitted, 41);  // 60 of 101 lines shown, and the cut says so
    EXPECT_EQ(std::count(d.detail.begin(), d.detail.end(), '\n'), 60);
    EXPECT_TRUE(d.detail.ends_with("line 59\n\u2026 320 more characters"));
    EXPECT_EQ(d.mailLines[0],
              "Eve <eve@evil.test> \u2014 " + std::string(78, 's') + " \u2026 222 more characters");
}

TEST(MCPConfirmationDisplayTest, ADraftShowsEverythingThatGoesOutWithIt) {
    auto r = sendRequest(0, 0);
    r.message.fromDraft = MCPDraftExtras{
        "d1", {"hidden@evil.example"}, {"replies@evil.example"}, 5120, {{"plan.pdf", 2048}}};
    std::vector<std::pair<std::string, std::string>> rows;
    for (const auto& row : MCPConfirmationDisplay::send(r).rows)
        rows.emplace_back(row.label, row.value);
    EXPECT_EQ(rows, (std::vector<std::pair<std::string, std::string>>{
                        {"From", "me@example.com"},
                        {"To", "a@example.com, b@example.com"},
                        {"Bcc", "hidden@evil.example"},
                        {"Reply-To", "replies@evil.example"},
                        {"Subject", "Lunch\u00B7tomorrow"},
                        {"HTML part", "yes (5120 characters of HTML go out with the text below)"},
                        {"Attachments", "plan.pdf (2 KB)"}}));
}

TEST(MCPConfirmationDisplayTest, WriteShowsTheReasonAndExactlyWhatWasAskedFor) {
    MCPWriteRequest w{"Codex",
                      "apply_label",
                      R"({"message_id":"m1","label":"Paid"})",
                      {},
                      3,
                      "This session has read mail and is changing many messages. Approve each "
                      "change."};
    w.mailRead = {{"m1", "bank@example.com", "Invoice"}};
    const auto d = MCPConfirmationDisplay::write(w);
    EXPECT_EQ(d.subtitle, w.reason);
    EXPECT_EQ(d.detailTitle, "Exactly what it asked for");
    EXPECT_EQ(d.detail, "apply_label\nmessage_id: m1\nlabel: Paid");
    EXPECT_FALSE(d.isSend);
    ASSERT_EQ(d.mailLines.size(), 2u);
    EXPECT_EQ(d.mailLines[1], "and 2 more");

    // A long free text first cannot push the recipients out of view.
    w.action = "create_draft";
    w.arguments = R"({"body":")" + std::string(2000, 'b') +
                  R"(","account":"me@example.com","to":["attacker@evil.example"]})";
    const auto draft = MCPConfirmationDisplay::write(w);
    EXPECT_EQ(draft.rows[1].label + ": " + draft.rows[1].value, "Account: me@example.com");
    EXPECT_EQ(draft.rows[2].label + ": " + draft.rows[2].value, "To: attacker@evil.example");
    EXPECT_TRUE(draft.detail.starts_with(
        "create_draft\naccount: me@example.com\nto: attacker@evil.example\nbody: bbb"));
}

}  // namespace
}  // namespace mcpkit
