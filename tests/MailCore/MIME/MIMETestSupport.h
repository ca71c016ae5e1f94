// Helpers shared by the MIME tests: message text with CRLF line ends, files,
// maildirs, and the directory of Python's e-mail test messages. Temporary
// directories come from the shared linktest::TempDir.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

#include "tests/fakes/LinkTestSupport.h"

namespace mailcore::testing {

using linktest::TempDir;

// `text` with every "\n" turned into "\r\n".
std::string crlf(std::string_view text);

// The directory of Python's e-mail test messages, or "" when not installed.
std::string pythonEmailDataDirectory();

std::string readFile(const std::string& path);
void writeFile(const std::filesystem::path& path, std::string_view content);

// `dir` with empty cur/, new/ and tmp/ folders.
void makeMaildir(const std::filesystem::path& dir);

}  // namespace mailcore::testing
