// WorkflowToolHandler: the six workflow tools an agent may call
// (create_workflow, update_workflow, pause_workflow, delete_workflow,
// list_workflows, preview_workflow) over a WorkflowStore.
//
// Every answer is a value: bad arguments, invalid specifications, unknown
// ids, another harness's workflow and the per-harness maximum become error
// answers with fixed texts; any JSON value as arguments is safe. Only a
// failure to save (MailError from the store) is thrown. Nothing here can
// approve or resume a workflow: those are WorkflowStore operations for the
// application.
//
// Thread-safe: the handler keeps no state of its own; the store has its lock
// and the mail source must be thread-safe.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "MailCore/Common/Clock.h"
#include "MailCore/Common/Json.h"
#include "MailCore/Workflow/WorkflowLimits.h"
#include "MailCore/Workflow/WorkflowMailSource.h"
#include "MailCore/Workflow/WorkflowMatcher.h"
#include "MailCore/Workflow/WorkflowStore.h"

namespace mailcore {

// Who is calling: the harness is the author of the workflows it creates.
struct WorkflowCaller {
    std::string harnessID;
    std::string harnessName;
    std::vector<std::string> grantedTools;  // the permissions enabled for the harness
    // The account keys the harness may use. None skips the account check;
    // a preview then reads only the accounts its spec names.
    std::optional<std::vector<std::string>> knownAccounts;
};

struct WorkflowToolAnswer {
    std::string text;  // JSON text, or the error message when isError
    bool isError = false;
    std::string summary;  // short audit summary: counts and outcomes, no mail content
};

class WorkflowToolHandler {
public:
    // Answer texts and tool errors, exactly as agents see them.
    static constexpr const char* createdText =
        "Saved. It will not run until the user reviews and approves it in the app.";
    static constexpr const char* updatedText =
        "Saved. The workflow is stopped until the user approves the changes in the app.";
    static constexpr const char* pausedText = "Paused. Only the user can resume it.";
    static constexpr const char* deletedText = "Deleted.";
    static constexpr const char* unreadableText = "The arguments could not be read.";
    static constexpr const char* notValidText = "The workflow is not valid.";
    static constexpr const char* encodeFailureText = R"({"error":"Could not encode the result."})";

    // Preview bounds: how many recent messages it checks and shows.
    static constexpr int previewScanLimit = 50;
    static constexpr std::size_t previewSampleSize = 5;

    // `mail` may be null (the preview then says that mail is unavailable);
    // `store` and `mail` must outlive the handler.
    WorkflowToolHandler(WorkflowStore& store, WorkflowMailSource* mail, Clock clock,
                        WorkflowLimits limits = {},
                        WorkflowMatcher::UTCOffset utcOffset = WorkflowMatcher::localUTCOffset());

    WorkflowToolAnswer handle(const WorkflowCaller& caller, const std::string& tool,
                              const Json& arguments) const;

    // The six tool names, in catalog order (WorkflowTools::all()).
    static const std::vector<std::string>& toolNames();

    const WorkflowLimits& limits() const { return limits_; }

    // Whether the person has an AI provider (previews say what follows from
    // its absence). Unset: none.
    void setAIAvailable(std::function<bool()> available) { aiAvailable_ = std::move(available); }

private:
    WorkflowToolAnswer create(const WorkflowCaller& caller, const Json& arguments) const;
    WorkflowToolAnswer update(const WorkflowCaller& caller, const Json& arguments) const;
    WorkflowToolAnswer pause(const WorkflowCaller& caller, const Json& arguments) const;
    WorkflowToolAnswer remove(const WorkflowCaller& caller, const Json& arguments) const;
    WorkflowToolAnswer list(const WorkflowCaller& caller) const;
    WorkflowToolAnswer preview(const WorkflowCaller& caller, const Json& arguments) const;

    WorkflowStore& store_;
    WorkflowMailSource* mail_;
    Clock clock_;
    WorkflowLimits limits_;
    WorkflowMatcher::UTCOffset utcOffset_;
    std::function<bool()> aiAvailable_;
};

}  // namespace mailcore
