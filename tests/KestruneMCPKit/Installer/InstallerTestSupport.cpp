#include "InstallerTestSupport.h"

#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <algorithm>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>

namespace fs = std::filesystem;

namespace installertest {

TemporaryHome::TemporaryHome() {
    std::string pattern = (fs::temp_directory_path() / "kestrune-installer-XXXXXX").string();
    if (!::mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
}

TemporaryHome::~TemporaryHome() {
    std::error_code ec;
    fs::remove_all(path_, ec);
}

std::string readFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error("cannot open " + path.string());
    std::ostringstream buffer;
    buffer << in.rdbuf();
    return buffer.str();
}

void writeFile(const fs::path& path, const std::string& bytes) {
    fs::create_directories(path.parent_path());
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << bytes;
    if (!out) throw std::runtime_error("cannot write " + path.string());
}

std::vector<std::string> filesStartingWith(const fs::path& dir, const std::string& prefix) {
    std::vector<std::string> names;
    for (const auto& item : fs::directory_iterator(dir)) {
        std::string name = item.path().filename().string();
        if (name.rfind(prefix, 0) == 0) names.push_back(name);
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::vector<mailcore::Json> readTOMLFilesWithPython(const std::vector<fs::path>& paths) {
    // Dates and other values without a JSON form are printed as text.
    std::string script =
        "import json, sys, tomllib\n"
        "out = []\n"
        "for name in sys.argv[1:]:\n"
        "    try:\n"
        "        with open(name, 'rb') as f: out.append({'ok': tomllib.load(f)})\n"
        "    except Exception as e:\n"
        "        out.append({'error': str(e)})\n"
        "print(json.dumps(out, default=str))\n";
    fs::path scriptPath = paths.front().parent_path() / ".read-toml.py";
    writeFile(scriptPath, script);
    std::string command = "python3 '" + scriptPath.string() + "'";
    for (const auto& path : paths) command += " '" + path.string() + "'";
    FILE* pipe = ::popen(command.c_str(), "r");
    if (!pipe) throw std::runtime_error("cannot start python3");
    std::string output;
    char buffer[4096];
    size_t n;
    while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) output.append(buffer, n);
    int status = ::pclose(pipe);
    fs::remove(scriptPath);
    if (status != 0) throw std::runtime_error("python3 failed: " + output);
    std::vector<mailcore::Json> documents;
    for (const auto& item : mailcore::parseJson(output)) {
        if (item.contains("error")) {
            throw std::runtime_error("tomllib: " + item["error"].get<std::string>());
        }
        documents.push_back(item["ok"]);
    }
    return documents;
}

mailcore::Json readTOMLWithPython(const fs::path& path) {
    return readTOMLFilesWithPython({path}).front();
}

std::vector<mailcore::Json> readTOMLTextsWithPython(const fs::path& dir,
                                                    const std::vector<std::string>& texts) {
    std::vector<fs::path> paths;
    for (std::size_t k = 0; k < texts.size(); ++k) {
        paths.push_back(dir / ("text-" + std::to_string(k) + ".toml"));
        writeFile(paths.back(), texts[k]);
    }
    return readTOMLFilesWithPython(paths);
}

}  // namespace installertest
