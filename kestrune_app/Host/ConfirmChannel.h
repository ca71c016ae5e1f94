// How `kestrune confirm` reaches the questions of the running `serve`: one
// JSON request per connection on a private Unix socket (same user only),
// answered from PendingQuestions' memory.
//
// Requests: {"op":"list"} gives the open questions (never their codes);
// {"op":"answer","id","answer","code"} answers one. A yes must carry the
// code shown by `serve`; on the command line that code is read from the
// controlling terminal, never from the arguments or standard input, so that
// it cannot be scripted by a process that merely runs commands.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "kestrune_app/Host/HostPaths.h"
#include "kestrune_app/Host/PendingQuestions.h"

namespace kestrune {

// The running host's side: one request frame in, one reply frame out.
std::string answerFrame(PendingQuestions& questions, const std::string& frame);

// Reads one line typed on the controlling terminal after showing `prompt`
// there. None when there is no terminal or nothing was typed.
using TerminalPrompt = std::function<std::optional<std::string>(const std::string& prompt)>;
std::optional<std::string> promptOnTerminal(const std::string& prompt);

// `kestrune confirm [list] | yes|no|undo ID`: the exit status (0, 1 or 64);
// lines for the user go to `out`, failures to `err`.
int confirmCommand(const std::vector<std::string>& args, const HostPaths& paths,
                   const std::function<void(const std::string&)>& out,
                   const std::function<void(const std::string&)>& err,
                   const TerminalPrompt& prompt = promptOnTerminal);

}  // namespace kestrune
