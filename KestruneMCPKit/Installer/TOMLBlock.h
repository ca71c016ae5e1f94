// The kestrune server entry in a TOML configuration file (Codex keeps one
// "[mcp_servers.<name>]" table per server, with an "[mcp_servers.<name>.env]"
// sub-table). The functions work on the file's text: they locate our tables
// with a small TOML reader and change only their lines, so comments, other
// servers and hand formatting elsewhere stay exactly as written.
//
// A file whose shape the reader cannot follow (a syntax error, our entry
// written as an inline table or as dotted keys, "mcp_servers" assigned as a
// value) is refused with MCPInstallError::unreadable; nothing is guessed.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "KestruneMCPKit/Installer/MCPServerEntry.h"

namespace mcpkit::TOMLBlock {

// `value` as a TOML basic string with backslash escapes. Throws
// MCPInstallError::io("could not serialize") for text that is not UTF-8.
std::string quote(std::string_view value);

// The lines "[mcp_servers.<name>]", "command = ...", "args = [...]", an
// empty line, "[mcp_servers.<name>.env]" and one "KEY = value" line per
// environment pair, each ending in a line feed.
std::string block(const std::string& name, const MCPServerEntry& entry);

// `text` with every "[mcp_servers.<name>]" table and sub-table replaced by
// `blockText` at the place of the first one, or with `blockText` appended
// (after an empty line) when there is none. Line endings of `blockText` follow
// the file's when the file uses CRLF.
std::string install(std::string_view text, const std::string& name, std::string_view blockText);

// `text` without our tables (and the empty lines that set them apart);
// nothing when the file holds none.
std::optional<std::string> remove(std::string_view text, const std::string& name);

// The entry as the file holds it. A field that is missing or not of the
// expected type (a string, a list of strings, a table of strings) is empty.
struct Found {
    std::optional<std::string> command;
    std::optional<std::vector<std::string>> args;
    std::optional<std::map<std::string, std::string>> env;
};

// Our entry in `text`, or nothing when the file has no table for it.
std::optional<Found> read(std::string_view text, const std::string& name);

}  // namespace mcpkit::TOMLBlock
