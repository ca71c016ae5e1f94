// `kestrune sync [EMAIL] [--once]`: the accounts' server mail brought into
// the store in the foreground. With --once every folder is synced once and
// the command ends; without it the sync repeats until the stop flag is set.
//
// On a terminal one progress line is rewritten in place (account, folder,
// messages done of total, rate, time left); otherwise progress comes as
// plain lines, at most one every few seconds per folder.
#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <vector>

#include "kestrune_app/Host/HostError.h"
#include "kestrune_app/Host/HostPaths.h"

namespace kestrune {

struct SyncCommandIO {
    std::function<void(const std::string&)> out;  // whole lines
    // Rewrites the progress line in place; unset when output is not a terminal.
    std::function<void(const std::string&)> progressLine;
    const std::atomic<bool>* stop = nullptr;
};

// Runs `sync` with the arguments after the command word. Returns the exit
// status (1 when an account could not be synced); throws HostError usage
// for a mistake on the command line, failed when there is nothing to sync.
int runSyncCommand(std::vector<std::string> args, const HostPaths& paths, const SyncCommandIO& io);

// "INBOX  1,250 of 20,000  850/s  0:22 left": one progress report as shown.
std::string progressText(const std::string& folder, std::int64_t done, std::int64_t total,
                         double seconds);

}  // namespace kestrune
