// Writes, checks and removes the "kestrune" entry in a harness's
// configuration file, touching nothing else in it. Every change is preceded
// by a timestamped backup next to the file (the newest five are kept) and
// made by an atomic replacement; a file that is a symbolic link is edited at
// its target and stays a link. Registering the harness with the application
// is the caller's business.
//
// MCPInstaller holds only its configuration; its operations may run on any
// thread, but concurrent edits of one file are not coordinated.
#pragma once

#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "KestruneMCPKit/Installer/MCPHarnessSpec.h"
#include "KestruneMCPKit/Installer/MCPInstallError.h"
#include "KestruneMCPKit/Installer/MCPServerEntry.h"
#include "MailCore/Common/Clock.h"

namespace mcpkit {

// What to paste, where, and a command that does the same when the harness
// has one.
struct MCPSnippet {
    std::filesystem::path file;
    std::string text;
    std::optional<std::string> cliCommand;
    std::string note;
};

struct MCPInstallResult {
    std::filesystem::path file;                   // the configuration file as configured
    std::optional<std::filesystem::path> backup;  // taken before the change
    bool changed = false;  // false: the entry was already there as is, or nothing to remove
};

class MCPInstallStatus {
public:
    enum class Kind { installed, notInstalled, notDetected, snippetOnly, drift, unreadable };

    static MCPInstallStatus installed() { return {Kind::installed, {}}; }
    static MCPInstallStatus notInstalled() { return {Kind::notInstalled, {}}; }
    static MCPInstallStatus notDetected() { return {Kind::notDetected, {}}; }
    static MCPInstallStatus snippetOnly() { return {Kind::snippetOnly, {}}; }
    static MCPInstallStatus drift(std::string how) { return {Kind::drift, std::move(how)}; }
    static MCPInstallStatus unreadable(std::string why) {
        return {Kind::unreadable, std::move(why)};
    }

    Kind kind() const { return kind_; }
    const std::string& text() const { return text_; }  // drift, unreadable

    // The plain textual form: "installed", "notInstalled", "notDetected",
    // "snippetOnly", "drift(<text>)", "unreadable(<text>)".
    std::string description() const;

    bool operator==(const MCPInstallStatus&) const = default;

private:
    MCPInstallStatus(Kind kind, std::string text) : kind_(kind), text_(std::move(text)) {}

    Kind kind_;
    std::string text_;
};

class MCPInstaller {
public:
    // How many backups of one file are kept.
    static constexpr std::size_t keptBackups = 5;

    // `applicationDirectories` are searched for the harnesses' application
    // bundles (on Linux there are none to search); `now` names the backups.
    MCPInstaller(std::filesystem::path home,
                 std::vector<std::filesystem::path> applicationDirectories, mailcore::Clock now);

    const std::filesystem::path& home() const { return home_; }

    // The harness's configuration file below the home.
    std::filesystem::path configFile(const MCPHarnessSpec& spec) const;

    // Whether any detection path exists below the home, or any detection
    // application in an application directory.
    bool detected(const MCPHarnessSpec& spec) const;

    // JSON formats: the entry object as it stands under "kestrune"
    // (pretty-printed); TOML: the block; snippet-only rows: the typed entry
    // object. Claude Code also gets its own command line.
    MCPSnippet snippet(const MCPHarnessSpec& spec, const MCPServerEntry& entry) const;

    // Never throws; failures to read are answered as unreadable.
    MCPInstallStatus status(const MCPHarnessSpec& spec, const MCPServerEntry& expected) const;

    // Throws MCPInstallError; the file is then as it was.
    MCPInstallResult install(const MCPHarnessSpec& spec, const MCPServerEntry& entry) const;
    MCPInstallResult remove(const MCPHarnessSpec& spec) const;

    // Deletes the oldest backups of `file` beyond the newest `keep`.
    void pruneBackups(const std::filesystem::path& file, std::size_t keep) const;

private:
    std::filesystem::path home_;
    std::vector<std::filesystem::path> applicationDirectories_;
    mailcore::Clock now_;
};

// Finds the helper inside the application's bundle: "Contents/Helpers/
// kestrune-mcp" first, then "Contents/MacOS/kestrune-mcp"; nothing when
// neither is an executable file.
namespace MCPHelperLocator {
std::optional<std::filesystem::path> helper(const std::filesystem::path& applicationBundle);
}

}  // namespace mcpkit
