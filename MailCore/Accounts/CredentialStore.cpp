#include "MailCore/Accounts/CredentialStore.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <nlohmann/json.hpp>

#include "MailCore/Common/MailError.h"
#include "MailCore/Common/Random.h"

namespace mailcore {

std::string_view rawValue(CredentialKind kind) {
    switch (kind) {
        case CredentialKind::password:
            return "password";
        case CredentialKind::oauthRefreshToken:
            return "oauth-refresh-token";
        case CredentialKind::apiKey:
            return "api-key";
    }
    return "password";
}

namespace {

Json readSecrets(const std::filesystem::path& file) {
    const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return Json::object();
    std::string text;
    char buffer[8192];
    ssize_t n = 0;
    while ((n = ::read(fd, buffer, sizeof buffer)) > 0) text.append(buffer, std::size_t(n));
    ::close(fd);
    Json json;
    if (!tryParseJson(text, json) || !json.is_object()) return Json::object();
    return json;
}

[[noreturn]] void fail(const std::string& what) {
    throw MailError::storage(StorageFailureKind::ioError, what + ": " + std::strerror(errno));
}

// Written to a 0600 temporary file beside the target, flushed, renamed over it.
void writeSecrets(const std::filesystem::path& file, const Json& secrets) {
    const std::string text = encodeJson(secrets);
    const auto random = randomBytes(4);
    std::string temporary = file.string() + ".tmp-";
    for (auto b : random) temporary += std::to_string(b);
    const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) fail("cannot write " + file.string());
    const char* p = text.data();
    std::size_t left = text.size();
    while (left > 0) {
        const ssize_t n = ::write(fd, p, left);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            ::close(fd);
            ::unlink(temporary.c_str());
            fail("cannot write " + file.string());
        }
        p += n;
        left -= std::size_t(n);
    }
    const bool synced = ::fsync(fd) == 0;
    ::close(fd);
    if (!synced || ::rename(temporary.c_str(), file.c_str()) != 0) {
        ::unlink(temporary.c_str());
        fail("cannot write " + file.string());
    }
    ::chmod(file.c_str(), 0600);
}

}  // namespace

std::optional<std::string> FileCredentialStore::secret(const std::string& account,
                                                       CredentialKind kind) {
    std::lock_guard<std::mutex> guard(lock_);
    const Json secrets = readSecrets(file_);
    const auto entry = secrets.find(account);
    if (entry == secrets.end() || !entry->is_object()) return std::nullopt;
    const auto value = entry->find(std::string(rawValue(kind)));
    if (value == entry->end() || !value->is_string()) return std::nullopt;
    return value->get<std::string>();
}

void FileCredentialStore::setSecret(const std::string& account, CredentialKind kind,
                                    const std::string& secret) {
    std::lock_guard<std::mutex> guard(lock_);
    Json secrets = readSecrets(file_);
    if (!secrets[account].is_object()) secrets[account] = Json::object();
    secrets[account][std::string(rawValue(kind))] = secret;
    writeSecrets(file_, secrets);
}

void FileCredentialStore::removeAll(const std::string& account) {
    std::lock_guard<std::mutex> guard(lock_);
    Json secrets = readSecrets(file_);
    if (secrets.erase(account) == 0) return;
    writeSecrets(file_, secrets);
}

std::optional<std::string> MemoryCredentialStore::secret(const std::string& account,
                                                         CredentialKind kind) {
    std::lock_guard<std::mutex> guard(lock_);
    const auto it = secrets_.find({account, kind});
    if (it == secrets_.end()) return std::nullopt;
    return it->second;
}

void MemoryCredentialStore::setSecret(const std::string& account, CredentialKind kind,
                                      const std::string& secret) {
    std::lock_guard<std::mutex> guard(lock_);
    secrets_[{account, kind}] = secret;
}

void MemoryCredentialStore::removeAll(const std::string& account) {
    std::lock_guard<std::mutex> guard(lock_);
    std::erase_if(secrets_, [&](const auto& entry) { return entry.first.first == account; });
}

std::string FileCredentialStore::description() const { return "the file " + file_.string(); }

}  // namespace mailcore
