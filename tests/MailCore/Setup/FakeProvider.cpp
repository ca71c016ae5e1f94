#include "tests/MailCore/Setup/FakeProvider.h"

#include <curl/curl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

namespace mailcore::testing {
namespace {

std::size_t collect(char* data, std::size_t size, std::size_t count, void* out) {
    static_cast<std::string*>(out)->append(data, size * count);
    return size * count;
}

}  // namespace

FakeProvider::FakeProvider() {
    const std::string make =
        "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 "
        "-subj /CN=127.0.0.1 -addext subjectAltName=IP:127.0.0.1 -keyout '" +
        dir_.file("key.pem") + "' -out '" + dir_.file("cert.pem") + "' >/dev/null 2>&1";
    if (std::system(make.c_str()) != 0) throw std::runtime_error("openssl req failed");
    int out[2];
    if (::pipe(out) != 0) throw std::runtime_error("pipe failed");
    const char* source = std::getenv("KESTRUNE_SOURCE_DIR");
    const std::string script =
        std::string(source ? source : ".") + "/tests/MailCore/Setup/fake_provider.py";
    pid_ = ::fork();
    if (pid_ == 0) {
        ::dup2(out[1], 1);
        ::close(out[0]);
        ::execl("/usr/bin/python3", "python3", script.c_str(), dir_.file("cert.pem").c_str(),
                dir_.file("key.pem").c_str(), static_cast<char*>(nullptr));
        ::_exit(127);
    }
    ::close(out[1]);
    std::string line;
    char c;
    while (::read(out[0], &c, 1) == 1 && c != '\n') line.push_back(c);
    ::close(out[0]);
    port_ = static_cast<std::uint16_t>(std::atoi(line.c_str()));
    if (port_ == 0) throw std::runtime_error("the fake provider did not start");
}

FakeProvider::~FakeProvider() {
    ::kill(pid_, SIGTERM);
    ::waitpid(pid_, nullptr, 0);
}

std::string FakeProvider::browse(const std::string& url) const {
    std::string body;
    CURL* h = curl_easy_init();
    curl_easy_setopt(h, CURLOPT_URL, url.c_str());
    curl_easy_setopt(h, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(h, CURLOPT_CAINFO, caFile().c_str());
    curl_easy_setopt(h, CURLOPT_TIMEOUT, 10L);
    curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, collect);
    curl_easy_setopt(h, CURLOPT_WRITEDATA, &body);
    const CURLcode code = curl_easy_perform(h);
    curl_easy_cleanup(h);
    return code == CURLE_OK ? body : "failed: " + std::string(curl_easy_strerror(code));
}

void FakeProvider::post(const std::string& path) const {
    CURL* h = curl_easy_init();
    std::string body;
    curl_easy_setopt(h, CURLOPT_URL, url(path).c_str());
    curl_easy_setopt(h, CURLOPT_CAINFO, caFile().c_str());
    curl_easy_setopt(h, CURLOPT_POSTFIELDS, "");
    curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, collect);
    curl_easy_setopt(h, CURLOPT_WRITEDATA, &body);
    curl_easy_perform(h);
    curl_easy_cleanup(h);
}

}  // namespace mailcore::testing
