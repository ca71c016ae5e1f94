// The person's workflow and AI provider commands:
//
//   kestrune workflows [list]      each workflow with its last runs, its
//                                  effects this hour against the caps, and
//                                  why it was paused
//   kestrune workflows runs ID     the run history of one workflow
//   kestrune ai [show]             the AI provider in use
//   kestrune ai set --url URL --model NAME [--key-stdin]
//   kestrune ai clear
//
// and the workflow pass that follows `kestrune import`. Usage errors throw
// std::invalid_argument, failures HostError.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "MailCore/Common/Clock.h"
#include "MailCore/Store/SQLiteMailStore.h"
#include "MailCore/Workflow/WorkflowStore.h"
#include "kestrune_app/Host/HostPaths.h"
#include "kestrune_app/Host/HostWorkflows.h"

namespace kestrune::WorkflowCommands {

using Print = std::function<void(const std::string&)>;

void list(const HostPaths& paths, mailcore::Date now, const Print& out);
void runs(const HostPaths& paths, const std::string& id, const Print& out);
// `args` after the word "ai"; `readKey` reads the key from standard input.
void ai(std::vector<std::string> args, const HostPaths& paths,
        const std::function<std::string()>& readKey, const Print& out);

// Runs the approved new_message workflows on the mail an import files:
// construct before filing, call finish() after.
class ImportPass {
public:
    ImportPass(const HostPaths& paths, mailcore::SQLiteMailStore& store);
    // A sentence for the person, or empty when no workflow acted.
    std::string finish();

private:
    std::unique_ptr<mailcore::WorkflowStore> workflows_;
    std::unique_ptr<HostWorkflows> host_;
};

}  // namespace kestrune::WorkflowCommands
