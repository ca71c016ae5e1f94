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

namespace mailcore::testing {

// A fresh directory under the system's temporary directory, removed with
// everything in it when the object goes away.
class TemporaryDirectory {
public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

void writeFile(const std::string& path, std::string_view content);

}  // namespace mailcore::testing
