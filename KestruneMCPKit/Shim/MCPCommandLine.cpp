#include "KestruneMCPKit/Shim/MCPCommandLine.h"

#include <exception>
#include <filesystem>

#include "KestruneMCPKit/Installer/MCPHarnessCatalog.h"
#include "KestruneMCPKit/Installer/MCPInstaller.h"
#include "KestruneMCPKit/Link/MCP.h"
#include "KestruneMCPKit/Link/MCPPaths.h"
#include "KestruneMCPKit/Policy/MCPStorage.h"
#include "KestruneMCPKit/Tokens/MCPToken.h"

namespace fs = std::filesystem;

namespace mcpkit::MCPCommandLine {

namespace {

using Line = std::function<void(const std::string&)>;

constexpr int statusOK = 0;
constexpr int statusFailed = 1;
constexpr int statusSnippetOnly = 2;
constexpr int statusUsage = 64;

const char* const placeholderNote =
    "Note: the token is a placeholder. Use the app's Connect button, or --install, to create a "
    "real one.";

std::string joinedIDs() {
    std::string out;
    for (const auto& id : MCPHarnessCatalog::ids()) {
        if (!out.empty()) out += ", ";
        out += id;
    }
    return out;
}

// The value after the first argument equal to `name`; none when the option
// is absent or is the last argument.
std::optional<std::string> opt(const std::vector<std::string>& args, const std::string& name) {
    for (std::size_t k = 0; k < args.size(); ++k) {
        if (args[k] == name) {
            if (k + 1 < args.size()) return args[k + 1];
            return std::nullopt;
        }
    }
    return std::nullopt;
}

std::vector<fs::path> applicationDirectories([[maybe_unused]] const fs::path& home) {
#if defined(__APPLE__)
    return {"/Applications", home / "Applications"};
#else
    return {};  // no application bundles on this platform; detection uses paths
#endif
}

// Where a snippet goes inside its file, for the line above the text.
std::string placementLine(const MCPHarnessSpec& spec) {
    switch (spec.format.kind) {
        case MCPConfigFormat::Kind::json: {
            std::string path;
            for (const auto& key : spec.format.keyPath) {
                if (!path.empty()) path += '.';
                path += key;
            }
            return std::string("Entry \"") + kMCPEntryName + "\" in " + path + ":";
        }
        case MCPConfigFormat::Kind::toml:
            return "Tables:";
        case MCPConfigFormat::Kind::snippetOnly:
            return std::string("Entry \"") + kMCPEntryName + "\":";
    }
    return {};
}

std::string resultText(const std::string& lead, const MCPInstallResult& result) {
    std::string text = lead + result.file.string();
    if (result.backup) text += "\nBackup: " + result.backup->string();
    return text;
}

struct Context {
    const std::vector<std::string>& args;
    fs::path home;
    std::optional<fs::path> dataDir;
    std::string command;
    std::optional<std::string> socket;
    MCPInstaller installer;
    const Line& out;
    const Line& err;

    // The storage, or none after reporting why it cannot be opened.
    std::optional<MCPStorage> openStorage() const {
        std::optional<fs::path> socketPath;
        if (socket) socketPath = fs::path(*socket);
        try {
            return MCPStorage::open(dataDir, socketPath, home);
        } catch (const std::exception& error) {
            err(std::string("Could not open the app's data directory: ") + error.what());
            return std::nullopt;
        }
    }
};

int listHarnesses(const Context& context) {
    for (const auto& spec : MCPHarnessCatalog::all()) {
        context.out(spec.id + "\t" + spec.name + "\t" +
                    (context.installer.detected(spec) ? "detected" : "not detected") + "\t~/" +
                    spec.configPath);
    }
    return statusOK;
}

int printConfig(const Context& context, const MCPHarnessSpec& spec) {
    std::optional<std::string> token = opt(context.args, "--token");
    MCPServerEntry entry =
        MCPServerEntry::make(context.command, token.value_or(placeholderToken), context.socket);
    MCPSnippet snippet = context.installer.snippet(spec, entry);
    context.out("File: " + snippet.file.string());
    context.out(placementLine(spec));
    std::string text = snippet.text;
    if (!text.empty() && text.back() == '\n') text.pop_back();
    context.out(text);
    if (snippet.cliCommand) context.out("Command: " + *snippet.cliCommand);
    context.out("Note: " + snippet.note);
    if (!token) context.out(placeholderNote);
    return statusOK;
}

int status(const Context& context, const MCPHarnessSpec& spec) {
    auto storage = context.openStorage();
    if (!storage) return statusFailed;
    MCPState state = storage->policy->snapshot();
    if (!state.harness(spec.id)) {
        context.out(spec.id + ": not registered with the app");
        return statusOK;
    }
    std::string token = storage->policy->tokens().token(spec.id).value_or("");
    MCPServerEntry expected = MCPServerEntry::make(context.command, token, context.socket);
    context.out(context.installer.status(spec, expected).description());
    return statusOK;
}

// A harness's registration as it was before a command changed it, to put
// back when the command cannot finish.
class EarlierRegistration {
public:
    EarlierRegistration(MCPPolicyStore& policy, const std::string& id) : policy_(policy), id_(id) {
        const MCPState state = policy.snapshot();
        if (const MCPHarnessRecord* found = state.harness(id)) record_ = *found;
        token_ = policy.tokens().token(id);
    }

    // True when the state and the token are as they were before.
    bool restore() {
        if (!record_) return policy_.unregister(id_);
        const bool restored = policy_.mutate([&](MCPState& state) {
            if (MCPHarnessRecord* found = state.harness(id_))
                *found = *record_;
            else
                state.harnesses.push_back(*record_);
        });
        const auto tokenProblem =
            token_ ? policy_.tokens().set(*token_, id_) : policy_.tokens().remove(id_);
        return restored && !tokenProblem;
    }

private:
    MCPPolicyStore& policy_;
    std::string id_;
    std::optional<MCPHarnessRecord> record_;
    std::optional<std::string> token_;
};

// Reports a failed install or uninstall after putting the registration back.
int failed(const Context& context, const MCPHarnessSpec& spec, EarlierRegistration& earlier,
           const std::string& what) {
    std::string text = what;
    if (!earlier.restore()) {
        text += "\nThe app's registration of " + spec.id +
                " could not be put back as it was: run --uninstall " + spec.id +
                " once the app's files can be written.";
    }
    context.err(text);
    return statusFailed;
}

int install(const Context& context, const MCPHarnessSpec& spec) {
    if (spec.format.kind == MCPConfigFormat::Kind::snippetOnly) {
        context.err(spec.name + " has no safe automatic install. Use --print-config " + spec.id +
                    ".");
        return statusSnippetOnly;
    }
    auto storage = context.openStorage();
    if (!storage) return statusFailed;
    MCPPolicyStore& policy = *storage->policy;
    // What to put back when the configuration cannot be written, so that an
    // entry installed earlier keeps working with its own token.
    EarlierRegistration earlier(policy, spec.id);
    if (auto refusal = policy.refusalToChange()) {
        context.err("Install failed: " + *refusal);
        return statusFailed;
    }

    std::string token = opt(context.args, "--token").value_or("");
    if (token.empty()) token = MCPToken::generate();
    if (!policy.registerHarness(spec.id, spec.name, spec.clientHints, token)) {
        return failed(context, spec, earlier,
                      "Install failed: could not save the app's state (" +
                          policy.lastSaveError().value_or("unknown error") + ")");
    }
    MCPServerEntry entry = MCPServerEntry::make(context.command, token, context.socket);
    try {
        MCPInstallResult result = context.installer.install(spec, entry);
        context.out(resultText("Installed into ", result));
        return statusOK;
    } catch (const MCPInstallError& error) {
        return failed(context, spec, earlier, std::string("Install failed: ") + error.what());
    }
}

// The registration goes first, so that the token stops working before the
// entry disappears; a configuration that cannot be edited puts it back.
int uninstall(const Context& context, const MCPHarnessSpec& spec) {
    auto storage = context.openStorage();
    if (!storage) return statusFailed;
    MCPPolicyStore& policy = *storage->policy;
    EarlierRegistration earlier(policy, spec.id);
    if (auto refusal = policy.refusalToChange()) {
        context.err("Uninstall failed: " + *refusal);
        return statusFailed;
    }
    if (spec.format.kind == MCPConfigFormat::Kind::snippetOnly) {
        context.err(std::string("Uninstall failed: ") + MCPInstallError::snippetOnly().what());
        return statusFailed;
    }
    if (!policy.unregister(spec.id)) {
        return failed(context, spec, earlier,
                      "Uninstall failed: could not save the app's state (" +
                          policy.lastSaveError().value_or("unknown error") + ")");
    }
    try {
        MCPInstallResult result = context.installer.remove(spec);
        context.out(result.changed ? resultText("Removed from ", result) : "Nothing to remove");
        return statusOK;
    } catch (const MCPInstallError& error) {
        return failed(context, spec, earlier, std::string("Uninstall failed: ") + error.what());
    }
}

}  // namespace

const std::string& usage() {
    static const std::string text =
        "kestrune-mcp: stdio MCP server for Kestrune Mail\n"
        "\n"
        "Usage:\n"
        "  kestrune-mcp                          run the server (needs KESTRUNE_MCP_TOKEN; "
        "optional KESTRUNE_SOCKET)\n"
        "  kestrune-mcp --version\n"
        "  kestrune-mcp --list-harnesses [--home DIR]\n"
        "  kestrune-mcp --print-config <harness> [--token T] [--command PATH] [--socket PATH] "
        "[--home DIR]\n"
        "  kestrune-mcp --status <harness> [--data-dir DIR] [--command PATH] [--socket PATH] "
        "[--home DIR]\n"
        "  kestrune-mcp --install <harness> [--token T] [--data-dir DIR] [--command PATH] "
        "[--socket PATH] [--home DIR]\n"
        "  kestrune-mcp --uninstall <harness> [--data-dir DIR] [--home DIR]\n"
        "  kestrune-mcp --gen-token\n"
        "\n"
        "--install registers the harness (and a fresh token) with the app's state, then writes "
        "only the\n"
        "'kestrune' entry into the harness config after taking a backup. --print-config writes "
        "nothing.\n"
        "Harnesses: " +
        joinedIDs();
    return text;
}

std::optional<int> run(const std::vector<std::string>& args, const std::string& selfPath,
                       std::function<void(const std::string&)> out,
                       std::function<void(const std::string&)> err, mailcore::Clock now) {
    if (args.empty()) return std::nullopt;
    const std::string& command = args[0];
    if (command.rfind("--", 0) != 0) return statusUsage;

    fs::path home = MCPPaths::homeDirectory();
    if (auto value = opt(args, "--home")) home = *value;
    std::optional<fs::path> dataDir;
    if (auto value = opt(args, "--data-dir")) dataDir = fs::path(*value);
    Context context{args,
                    home,
                    dataDir,
                    opt(args, "--command").value_or(selfPath),
                    opt(args, "--socket"),
                    MCPInstaller(home, applicationDirectories(home), std::move(now)),
                    out,
                    err};

    // A single-dash "-h" never gets here: every first argument that does not
    // begin with "--" is a usage error above.
    if (command == "--help") {
        out(usage());
        return statusOK;
    }
    if (command == "--version") {
        out("kestrune-mcp " + std::string(MCP::serverVersion));
        return statusOK;
    }
    if (command == "--gen-token") {
        out(MCPToken::generate());
        return statusOK;
    }
    if (command == "--list-harnesses") return listHarnesses(context);

    using Action = int (*)(const Context&, const MCPHarnessSpec&);
    Action action = nullptr;
    if (command == "--print-config") action = printConfig;
    if (command == "--status") action = status;
    if (command == "--install") action = install;
    if (command == "--uninstall") action = uninstall;
    if (!action) {
        err(usage());
        return statusUsage;
    }
    std::optional<MCPHarnessSpec> spec;
    if (args.size() > 1) spec = MCPHarnessCatalog::spec(args[1]);
    if (!spec) {
        err("Unknown or missing harness. Known: " + joinedIDs());
        return statusUsage;
    }
    return action(context, *spec);
}

}  // namespace mcpkit::MCPCommandLine
