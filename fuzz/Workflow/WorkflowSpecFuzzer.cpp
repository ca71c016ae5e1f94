// Feeds arbitrary bytes to the workflow validator and the preview tool: as
// JSON when they parse, otherwise as the text of every string field (which
// exercises invalid UTF-8). Checks that reading never fails other than with
// WorkflowSpecReadError, that the canonical form of a readable spec reads
// back to the same canonical form and the same problems, and that the
// preview answers every input.
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "MailCore/Workflow/WorkflowDescription.h"
#include "MailCore/Workflow/WorkflowPolicy.h"
#include "MailCore/Workflow/WorkflowToolHandler.h"

namespace {

using namespace mailcore;

class FixedMail : public WorkflowMailSource {
public:
    std::vector<WorkflowMailMessage> recentMessages(const std::vector<std::string>&, int) override {
        WorkflowMailMessage a;
        a.id = "1";
        a.account = "anna@example.com";
        a.from = "Shop <billing@shop.example>";
        a.to = {"anna@example.com"};
        a.subject = "Re: Invoice 7";
        a.bodyText = "Amount due";
        a.unread = true;
        a.attachments = {{"bill.pdf", "application/pdf"}};
        WorkflowMailMessage b = a;
        b.id = "2";
        b.from = "anna@example.com";
        b.sentAt = dateFromSeconds(1000);
        return {a, b};
    }
};

struct Harness {
    std::filesystem::path dir = std::filesystem::temp_directory_path() /
                                ("kestrune-fuzz-workflow-" + std::to_string(::getpid()));
    WorkflowStore store{dir};
    FixedMail mail;
    WorkflowToolHandler handler{store, &mail, [] { return dateFromSeconds(1795255200); },
                                WorkflowLimits{}, [](Date) { return 3600L; }};
    ~Harness() {
        std::error_code ignored;
        std::filesystem::remove_all(dir, ignored);
    }
};

const std::vector<std::string> granted = {"search_messages", "apply_label", "mark_read"};
const std::vector<std::string> known = {"anna@example.com", "work@example.org"};

void check(const Json& value, Harness& harness) {
    WorkflowSpec spec;
    try {
        spec = WorkflowSpec::fromJson(value);
    } catch (const WorkflowSpecReadError&) {
        return;
    }
    const auto problems = WorkflowPolicy::problems(spec, granted, known);
    (void)WorkflowPolicy::problems(spec, {}, std::nullopt);
    (void)describeWorkflow(spec);
    (void)assessRisk(spec);

    const Json canonical = spec.toJson();
    const WorkflowSpec again = WorkflowSpec::fromJson(canonical);
    if (encodeJson(again.toJson()) != encodeJson(canonical)) std::abort();
    // The canonical form drops members the kind does not use; the problems
    // stay the same except where such members were judged (flag conditions
    // with values), so only a valid spec must stay valid.
    if (problems.empty() && !WorkflowPolicy::problems(again, granted, known).empty()) std::abort();

    Json arguments = Json::object();
    arguments["spec"] = canonical;
    const auto answer =
        harness.handler.handle({"fuzz", "Fuzz", granted, known}, "preview_workflow", arguments);
    if (answer.text.empty()) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Harness harness;
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    Json value;
    if (tryParseJson(text, value)) {
        check(value, harness);
        return 0;
    }
    // Not JSON: use the bytes as every text of an otherwise valid spec.
    const std::string raw(text);
    Json spec = parseJson(R"({"trigger":{"type":"no_reply","after_hours":4},
        "conditions":[{"type":"subject","values":[]},{"type":"classified"}],
        "actions":[{"type":"draft_reply"},{"type":"show_notice"},{"type":"extract","fields":[]}]})");
    spec["name"] = raw;
    spec["note"] = raw;
    spec["accounts"] = Json::array({raw});
    spec["conditions"][0]["values"].push_back(raw);
    spec["conditions"][1]["category"] = raw;
    spec["actions"][0]["template"] = raw;
    spec["actions"][1]["title"] = raw;
    spec["actions"][1]["body"] = raw;
    spec["actions"][2]["fields"].push_back(raw);
    spec["actions"][2]["file"] = raw;
    check(spec, harness);
    return 0;
}
