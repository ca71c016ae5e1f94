// Risk grades and plain-language summaries.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "MailCore/Workflow/WorkflowDescription.h"

namespace mailcore {
namespace {

WorkflowSpec specOf(const char* text) { return WorkflowSpec::fromJson(parseJson(text)); }

TEST(WorkflowRisk, GradeFollowsTheMostConsequentialPart) {
    struct Row {
        const char* actions;
        const char* conditions;
        const char* risk;
    };
    const Row rows[] = {
        {R"([{"type":"notify"},{"type":"remind"},{"type":"show_notice","title":"t"},{"type":"add_to_collection","collection":"c"}])",
         R"([{"type":"unread"}])", "low"},
        {R"([{"type":"notify"}])", R"([{"type":"classified","category":"bills"}])", "medium"},
        {R"([{"type":"apply_label","label":"l"}])", "[]", "medium"},
        {R"([{"type":"star"}])", "[]", "medium"},
        {R"([{"type":"digest","title":"d"}])", "[]", "medium"},
        {R"([{"type":"extract","fields":["a"],"file":"f"}])", "[]", "medium"},
        {R"([{"type":"notify"},{"type":"mark_read"}])", "[]", "high"},
        {R"([{"type":"draft_reply","template":"t"}])", "[]", "high"},
        {R"([{"type":"send"}])", "[]", "high"},
    };
    for (const Row& row : rows) {
        const std::string text =
            std::string(R"({"name":"n","trigger":{"type":"new_message"},"actions":)") +
            row.actions + R"(,"conditions":)" + row.conditions + "}";
        EXPECT_EQ(riskName(assessRisk(specOf(text.c_str()))), row.risk) << text;
    }
}

TEST(WorkflowSummary, ReadsAsOneSentence) {
    struct Row {
        const char* spec;
        const char* summary;
    };
    const Row rows[] = {
        {R"({"name":"n","trigger":{"type":"new_message"},"accounts":["anna@example.com"],
             "conditions":[{"type":"from","values":["billing@shop.example"]},{"type":"subject","values":["invoice"]}],
             "actions":[{"type":"apply_label","label":"Invoices"},{"type":"star"}]})",
         "When a new message arrives in anna@example.com that is from \"billing@shop.example\" and "
         "has "
         "\"invoice\" in the subject: label it \"Invoices\" and star it."},
        {R"({"name":"n","trigger":{"type":"new_message"},"match":"any",
             "conditions":[{"type":"from_domain","values":["a.com","b.com","c.com","d.com","e.com"]},
                           {"type":"has_attachment"},{"type":"classified","category":"receipt"}],
             "actions":[{"type":"mark_read"},{"type":"notify","message":"Receipt"},{"type":"add_to_collection","collection":"Receipts"}]})",
         "When a new message arrives that is from someone at \"a.com\", \"b.com\", \"c.com\" or 2 "
         "others, has an attachment or looks like \"receipt\" to your AI provider: mark it read, "
         "notify you with \"Receipt\" and add it to the collection \"Receipts\"."},
        {R"({"name":"n","trigger":{"type":"schedule","hour":7,"minute":5,"weekdays":[2,3,4,5,6]},
             "conditions":[{"type":"sender_outside","values":["example.com"]}],
             "actions":[{"type":"digest","title":"Outside mail"}]})",
         "Every weekday at 07:05: save a digest draft \"Outside mail\" of recent mail that is from "
         "someone outside \"example.com\"."},
        {R"({"name":"n","trigger":{"type":"schedule","hour":18,"weekdays":[6,2,2]},"actions":[{"type":"digest","title":"D"}]})",
         "Every Monday and Friday at 18:00: save a digest draft \"D\" of recent mail."},
        {R"({"name":"n","trigger":{"type":"schedule","hour":9,"weekdays":[1,2,3,4,5,6,7]},"actions":[{"type":"digest","title":"D"}]})",
         "Every day at 09:00: save a digest draft \"D\" of recent mail."},
        {R"({"name":"n","trigger":{"type":"no_reply","after_hours":72},"accounts":["a@x.org","b@y.org"],
             "conditions":[{"type":"to","values":["client.com"]}],
             "actions":[{"type":"draft_reply","instruction":"Ask politely"},{"type":"remind"}]})",
         "When a message you sent from a@x.org or b@y.org that is addressed to \"client.com\" gets "
         "no "
         "reply within 3 days: have your AI provider write a reply draft for you to review (never "
         "sent automatically) and remind you about it."},
        {R"({"name":"n","trigger":{"type":"no_reply","after_hours":1},
             "actions":[{"type":"extract","fields":["amount","due"],"file":"Bills"}]})",
         "When a message you sent gets no reply within 1 hour: copy amount and due into the file "
         "\"Bills.jsonl\" in the app's folder."},
    };
    for (const Row& row : rows) EXPECT_EQ(describeWorkflow(specOf(row.spec)), row.summary);
}

TEST(WorkflowSummary, AgentTextIsCutAndCleaned) {
    const std::string label = std::string(50, 'L') + "\n";
    Json spec = parseJson(
        R"({"name":"n","trigger":{"type":"new_message"},"conditions":[{"type":"body","values":["a\u0000b"]}]})");
    spec["actions"] = Json::array();
    spec["actions"].push_back(parseJson(R"({"type":"apply_label"})"));
    spec["actions"][0]["label"] = label;
    EXPECT_EQ(describeWorkflow(WorkflowSpec::fromJson(spec)),
              "When a new message arrives that has \"a\u00B7"
              "b\" in the message text: label it \"" +
                  std::string(40, 'L') + " \u2026 " + std::to_string(label.size() - 40) +
                  " more characters\".");
}

}  // namespace
}  // namespace mailcore
