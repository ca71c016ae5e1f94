// Arbitrary configuration-file contents through the JSON and TOML editors.
// Either an editor refuses the text with MCPInstallError, or what it writes
// reads back with our entry in it, a second install changes nothing, and a
// removal takes the entry out again (for JSON: leaving every other member).
#include <cstdint>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "KestruneMCPKit/Installer/MCPConfigFile.h"
#include "KestruneMCPKit/Installer/MCPInstallError.h"
#include "KestruneMCPKit/Installer/MCPJSONConfig.h"
#include "KestruneMCPKit/Installer/TOMLBlock.h"

using namespace mcpkit;
using mailcore::Json;

namespace {

void check(bool condition) {
    if (!condition) std::abort();
}

const MCPServerEntry& entry() {
    static const MCPServerEntry value =
        MCPServerEntry::make("/usr/bin/kestrune-mcp", "kmt_fuzz", std::string("/tmp/k \"s\".sock"));
    return value;
}

void fuzzJSON(std::string_view text) {
    const std::vector<std::string> keyPath = {"mcp", "servers"};
    const Json object = entry().jsonObject(true);
    Json root;
    try {
        MCPConfigFile::checkText(text);
        root = MCPJSONConfig::parse(text);
    } catch (const MCPInstallError&) {
        return;
    }
    const Json original = root;
    try {
        MCPJSONConfig::install(root, keyPath, "kestrune", object);
    } catch (const MCPInstallError& error) {
        check(error.kind() == MCPInstallError::Kind::unreadable);
        check(root == original);
        return;
    }
    std::string written = MCPJSONConfig::serialize(root);
    Json back = MCPJSONConfig::parse(written);
    check(back == root);
    auto found = MCPJSONConfig::entry(back, keyPath, "kestrune");
    check(found && MCPJSONConfig::sameValue(*found, object));
    check(!MCPJSONConfig::install(back, keyPath, "kestrune", object));
    // Every top-level member other than the key path's first is untouched.
    for (auto it = original.begin(); it != original.end(); ++it) {
        if (it.key() != keyPath[0]) check(back.at(it.key()) == it.value());
    }
    check(MCPJSONConfig::remove(back, keyPath, "kestrune"));
    check(!MCPJSONConfig::entry(back, keyPath, "kestrune"));
}

void fuzzTOML(std::string_view text) {
    const std::string block = TOMLBlock::block("kestrune", entry());
    std::string installed;
    bool hadEntry;
    try {
        hadEntry = TOMLBlock::read(text, "kestrune").has_value();
        installed = TOMLBlock::install(text, "kestrune", block);
    } catch (const MCPInstallError& error) {
        check(error.kind() == MCPInstallError::Kind::unreadable);
        return;
    }
    auto found = TOMLBlock::read(installed, "kestrune");
    check(found.has_value());
    check(found->command == entry().command);
    check(found->args == entry().args);
    check(found->env == entry().env);
    check(TOMLBlock::install(installed, "kestrune", block) == installed);
    auto removed = TOMLBlock::remove(installed, "kestrune");
    check(removed.has_value());
    check(!TOMLBlock::read(*removed, "kestrune").has_value());
    // A file without our entry that ends in a line of content comes back as it was.
    bool endsInContent = text.empty() || (text.back() == '\n' && [&] {
                             std::size_t start = text.find_last_of('\n', text.size() - 2);
                             std::string_view last =
                                 text.substr(start == std::string_view::npos ? 0 : start + 1);
                             return last.find_first_not_of(" \t\r\n") != std::string_view::npos;
                         }());
    if (!hadEntry && endsInContent) check(*removed == text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size > 64 * 1024) return 0;
    std::string_view text(reinterpret_cast<const char*>(data), size);
    fuzzJSON(text);
    fuzzTOML(text);
    return 0;
}
