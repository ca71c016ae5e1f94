// Helpers shared by the MIME tests: message text with CRLF or LF line ends,
// and the directory of Python's e-mail test messages.
#pragma once

#include <string>
#include <string_view>

namespace mailcore::testing {

// `text` with every "\n" turned into "\r\n".
std::string crlf(std::string_view text);

// The directory of Python's e-mail test messages, or "" when not installed.
std::string pythonEmailDataDirectory();

std::string readFile(const std::string& path);

}  // namespace mailcore::testing
