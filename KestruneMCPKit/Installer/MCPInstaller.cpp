#include "KestruneMCPKit/Installer/MCPInstaller.h"

#include <sys/stat.h>
#include <unistd.h>

#include <nlohmann/json.hpp>
#include <system_error>

#include "KestruneMCPKit/Installer/MCPConfigFile.h"
#include "KestruneMCPKit/Installer/MCPJSONConfig.h"
#include "KestruneMCPKit/Installer/TOMLBlock.h"

namespace fs = std::filesystem;

namespace mcpkit {

using mailcore::Json;

namespace {

const std::string entryName = kMCPEntryName;

bool pathExists(const fs::path& path) {
    std::error_code ec;
    return fs::exists(fs::symlink_status(path, ec));
}

std::string shellQuoted(const std::string& text) {
    std::string out = "'";
    for (char c : text) {
        if (c == '\'')
            out += "'\\''";
        else
            out += c;
    }
    return out + "'";
}

// The first difference between the entry found and the expected one, or
// nothing when they agree.
std::optional<std::string> difference(const std::optional<std::string>& command,
                                      const std::optional<std::vector<std::string>>& args,
                                      const std::optional<std::map<std::string, std::string>>& env,
                                      const MCPServerEntry& expected) {
    if (command != expected.command) return "The helper path changed.";
    if (args != expected.args) return "The arguments were edited.";
    if (env != expected.env)
        return "The token or environment differs from this app's registration.";
    return std::nullopt;
}

// The fields of a JSON entry; a field of the wrong type is empty. Missing
// "args" and "env" count as empty.
MCPInstallStatus compareJSONEntry(const Json& found, const MCPServerEntry& expected) {
    std::optional<std::string> command;
    std::optional<std::vector<std::string>> args = std::vector<std::string>{};
    std::optional<std::map<std::string, std::string>> env = std::map<std::string, std::string>{};
    if (!found.is_object()) {
        args.reset();
        env.reset();
    } else {
        if (auto it = found.find("command"); it != found.end() && it->is_string()) {
            command = it->get<std::string>();
        }
        if (auto it = found.find("args"); it != found.end()) {
            if (!it->is_array()) args.reset();
            for (const Json& item : *it) {
                if (!args) break;
                if (!item.is_string())
                    args.reset();
                else
                    args->push_back(item.get<std::string>());
            }
        }
        if (auto it = found.find("env"); it != found.end()) {
            if (!it->is_object()) env.reset();
            for (auto member = it->begin(); env && member != it->end(); ++member) {
                if (!member->is_string())
                    env.reset();
                else
                    (*env)[member.key()] = member->get<std::string>();
            }
        }
    }
    if (auto how = difference(command, args, env, expected)) return MCPInstallStatus::drift(*how);
    return MCPInstallStatus::installed();
}

}  // namespace

std::string MCPInstallStatus::description() const {
    switch (kind_) {
        case Kind::installed:
            return "installed";
        case Kind::notInstalled:
            return "notInstalled";
        case Kind::notDetected:
            return "notDetected";
        case Kind::snippetOnly:
            return "snippetOnly";
        case Kind::drift:
            return "drift(" + text_ + ")";
        case Kind::unreadable:
            return "unreadable(" + text_ + ")";
    }
    return "unknown";
}

MCPInstaller::MCPInstaller(fs::path home, std::vector<fs::path> applicationDirectories,
                           mailcore::Clock now)
    : home_(std::move(home)),
      applicationDirectories_(std::move(applicationDirectories)),
      now_(std::move(now)) {}

fs::path MCPInstaller::configFile(const MCPHarnessSpec& spec) const {
    return home_ / spec.configPath;
}

bool MCPInstaller::detected(const MCPHarnessSpec& spec) const {
    for (const auto& relative : spec.detectionPaths) {
        if (pathExists(home_ / relative)) return true;
    }
    for (const auto& directory : applicationDirectories_) {
        for (const auto& app : spec.detectionApps) {
            if (pathExists(directory / app)) return true;
        }
    }
    return false;
}

MCPSnippet MCPInstaller::snippet(const MCPHarnessSpec& spec, const MCPServerEntry& entry) const {
    MCPSnippet snippet;
    snippet.file = configFile(spec);
    snippet.note = spec.note;
    switch (spec.format.kind) {
        case MCPConfigFormat::Kind::toml:
            snippet.text = TOMLBlock::block(entryName, entry);
            break;
        case MCPConfigFormat::Kind::json:
        case MCPConfigFormat::Kind::snippetOnly: {
            bool typed =
                spec.format.kind == MCPConfigFormat::Kind::snippetOnly || spec.format.typed;
            snippet.text = entry.jsonObject(typed).dump(2, ' ', false,
                                                        nlohmann::json::error_handler_t::replace);
            break;
        }
    }
    if (spec.id == "claude-code") {
        snippet.cliCommand = "claude mcp add-json --scope user " + entryName + " " +
                             shellQuoted(mailcore::encodeJson(entry.jsonObject(true)));
    }
    return snippet;
}

MCPInstallStatus MCPInstaller::status(const MCPHarnessSpec& spec,
                                      const MCPServerEntry& expected) const {
    if (spec.format.kind == MCPConfigFormat::Kind::snippetOnly) {
        return MCPInstallStatus::snippetOnly();
    }
    if (!detected(spec)) return MCPInstallStatus::notDetected();
    try {
        MCPConfigFile::Snapshot file = MCPConfigFile::read(configFile(spec));
        if (!file.exists) return MCPInstallStatus::notInstalled();
        if (spec.format.kind == MCPConfigFormat::Kind::json) {
            Json root = MCPJSONConfig::parse(file.bytes);
            auto found = MCPJSONConfig::entry(root, spec.format.keyPath, entryName);
            if (!found) return MCPInstallStatus::notInstalled();
            return compareJSONEntry(*found, expected);
        }
        auto found = TOMLBlock::read(file.bytes, entryName);
        if (!found) return MCPInstallStatus::notInstalled();
        if (auto how = difference(found->command, found->args, found->env, expected)) {
            return MCPInstallStatus::drift(*how);
        }
        return MCPInstallStatus::installed();
    } catch (const MCPInstallError& error) {
        return MCPInstallStatus::unreadable(error.reason());
    }
}

namespace {

// Backs the old content up, replaces the file and prunes old backups. A file
// without write permission for its owner is left as it is: replacing it
// would also make it writable.
MCPInstallResult commitChange(const MCPConfigFile::Snapshot& file, const std::string& newText,
                              mailcore::Date now) {
    if (file.exists && (file.stamp.mode & S_IWUSR) == 0) {
        throw MCPInstallError::io(
            file.target.string() + " is read-only. Make it writable (chmod u+w '" +
            file.target.string() + "') and try again, or paste the entry from --print-config.");
    }
    MCPInstallResult result;
    result.file = file.path;
    result.changed = true;
    if (file.exists) result.backup = MCPConfigFile::writeBackup(file.path, file.bytes, now);
    try {
        MCPConfigFile::replace(file, newText);
    } catch (...) {
        // The file is untouched; a backup of it is of no use.
        if (result.backup) ::unlink(result.backup->c_str());
        throw;
    }
    MCPConfigFile::pruneBackups(file.path, MCPInstaller::keptBackups);
    return result;
}

}  // namespace

MCPInstallResult MCPInstaller::install(const MCPHarnessSpec& spec,
                                       const MCPServerEntry& entry) const {
    if (spec.format.kind == MCPConfigFormat::Kind::snippetOnly) {
        throw MCPInstallError::snippetOnly();
    }
    MCPConfigFile::Snapshot file = MCPConfigFile::read(configFile(spec));
    std::string newText;
    if (spec.format.kind == MCPConfigFormat::Kind::json) {
        Json root = file.exists ? MCPJSONConfig::parse(file.bytes) : Json::object();
        if (!MCPJSONConfig::install(root, spec.format.keyPath, entryName,
                                    entry.jsonObject(spec.format.typed))) {
            return {file.path, std::nullopt, false};
        }
        newText = MCPJSONConfig::serialize(root);
    } else {
        newText = TOMLBlock::install(file.bytes, entryName, TOMLBlock::block(entryName, entry));
        if (file.exists && newText == file.bytes) return {file.path, std::nullopt, false};
    }
    return commitChange(file, newText, now_());
}

MCPInstallResult MCPInstaller::remove(const MCPHarnessSpec& spec) const {
    if (spec.format.kind == MCPConfigFormat::Kind::snippetOnly) {
        throw MCPInstallError::snippetOnly();
    }
    MCPConfigFile::Snapshot file = MCPConfigFile::read(configFile(spec));
    if (!file.exists) return {file.path, std::nullopt, false};
    std::string newText;
    if (spec.format.kind == MCPConfigFormat::Kind::json) {
        Json root = MCPJSONConfig::parse(file.bytes);
        if (!MCPJSONConfig::remove(root, spec.format.keyPath, entryName)) {
            return {file.path, std::nullopt, false};
        }
        newText = MCPJSONConfig::serialize(root);
    } else {
        auto removed = TOMLBlock::remove(file.bytes, entryName);
        if (!removed) return {file.path, std::nullopt, false};
        newText = std::move(*removed);
    }
    return commitChange(file, newText, now_());
}

void MCPInstaller::pruneBackups(const fs::path& file, std::size_t keep) const {
    MCPConfigFile::pruneBackups(file, keep);
}

namespace MCPHelperLocator {

std::optional<fs::path> helper(const fs::path& applicationBundle) {
    for (const char* relative : {"Contents/Helpers/kestrune-mcp", "Contents/MacOS/kestrune-mcp"}) {
        fs::path candidate = applicationBundle / relative;
        struct stat st {};
        if (::stat(candidate.c_str(), &st) == 0 && S_ISREG(st.st_mode) &&
            ::access(candidate.c_str(), X_OK) == 0) {
            return candidate;
        }
    }
    return std::nullopt;
}

}  // namespace MCPHelperLocator

}  // namespace mcpkit
