// The six workflow tools that agents use to propose and manage workflows:
// their names, descriptions and input schemas. The agent service turns each
// descriptor into a tool spec gated by the single permission
// "manage_workflows". Static data, built once on first use; thread-safe.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace mailcore {

struct WorkflowToolDescriptor {
    std::string name;
    std::string description;
    std::string inputSchema;  // compact JSON Schema text, handed to agents unchanged
    bool writes = false;
};

namespace WorkflowTools {

// The permission id that gates every workflow tool.
inline constexpr std::string_view managePermission = "manage_workflows";

inline constexpr std::string_view createWorkflow = "create_workflow";
inline constexpr std::string_view listWorkflows = "list_workflows";
inline constexpr std::string_view updateWorkflow = "update_workflow";
inline constexpr std::string_view pauseWorkflow = "pause_workflow";
inline constexpr std::string_view deleteWorkflow = "delete_workflow";
inline constexpr std::string_view previewWorkflow = "preview_workflow";

// create_workflow, list_workflows, update_workflow, pause_workflow,
// delete_workflow, preview_workflow, in that order.
const std::vector<WorkflowToolDescriptor>& all();

// The JSON Schema text of the workflow specification object (the `spec`
// argument of create_workflow, update_workflow and preview_workflow).
const std::string& specSchema();

}  // namespace WorkflowTools

}  // namespace mailcore
