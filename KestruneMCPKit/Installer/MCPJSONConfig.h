// The kestrune server entry in a JSON configuration file. Works on parsed
// documents whose members keep the file's order, so that everything other
// than our entry is written back as it was read (with two-space indentation).
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "MailCore/Common/Json.h"

namespace mcpkit::MCPJSONConfig {

// Documents nested deeper than this are refused.
inline constexpr int maxDepth = 256;

// Parses a configuration file's text. Empty text (or only white space) is an
// empty object. Anything that is not a plain JSON object (comments, trailing
// commas, duplicate member names, another top-level shape, excessive nesting)
// throws MCPInstallError::unreadable("not a plain JSON object (comments or a
// different shape); use the snippet"). A number that would not be written
// back with the same bytes (very long, -0, an exponent) is refused the same
// way, with a reason that says so.
mailcore::Json parse(std::string_view text);

// Sets `name` in the object reached by `keyPath`, creating missing objects.
// Returns false (and changes nothing) when it already holds an equal value
// (member order ignored). Throws MCPInstallError::unreadable("'<key>' is not
// an object") when a member on the way is something else, <key> being the
// dotted path to it.
bool install(mailcore::Json& root, const std::vector<std::string>& keyPath, const std::string& name,
             const mailcore::Json& entry);

// Removes `name` from the object reached by `keyPath`; false when it is not
// there (including when the path does not lead to an object).
bool remove(mailcore::Json& root, const std::vector<std::string>& keyPath, const std::string& name);

// The value of `name` in the object at `keyPath`, or nothing. Throws like
// install when a member on the way is not an object.
std::optional<mailcore::Json> entry(const mailcore::Json& root,
                                    const std::vector<std::string>& keyPath,
                                    const std::string& name);

// The document as the file's new text: two-space indentation, a final line
// feed. Throws MCPInstallError::io("could not serialize") for strings that are
// not UTF-8.
std::string serialize(const mailcore::Json& root);

// Equality that ignores the order of object members.
bool sameValue(const mailcore::Json& a, const mailcore::Json& b);

}  // namespace mcpkit::MCPJSONConfig
