// Helpers shared by the MIME tests: message text with CRLF line ends,
// maildirs, and the directory of Python's e-mail test messages. Files and
// temporary directories come from the shared test helpers.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

#include "tests/fakes/TestFiles.h"

namespace mailcore::testing {

using testfiles::readFile;
using testfiles::TempDir;
using testfiles::writeFile;

// `text` with every "\n" turned into "\r\n".
std::string crlf(std::string_view text);

// The directory of Python's e-mail test messages, or "" when not installed.
std::string pythonEmailDataDirectory();

// `dir` with empty cur/, new/ and tmp/ folders.
void makeMaildir(const std::filesystem::path& dir);

}  // namespace mailcore::testing
