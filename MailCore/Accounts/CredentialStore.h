// CredentialStore: where account secrets live (passwords, OAuth refresh
// tokens), keyed by the account id and the kind of secret. Never the mail
// store, the agent-access state or a log: only a keyring, or a private file
// where no keyring answers.
//
// Implementations: FileCredentialStore (one 0600 JSON file in a 0700
// directory), SecretServiceCredentialStore (the desktop's Secret Service
// through libsecret, Linux) and KeychainCredentialStore (macOS). Each is
// thread-safe.
#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace mailcore {

enum class CredentialKind { password, oauthRefreshToken, apiKey };
// "password", "oauth-refresh-token", "api-key".
std::string_view rawValue(CredentialKind kind);

class CredentialStore {
public:
    virtual ~CredentialStore() = default;

    // The secret, or none when there is none or it cannot be read.
    virtual std::optional<std::string> secret(const std::string& account, CredentialKind kind) = 0;
    // Stores or replaces. Throws MailError::storage(ioError, detail) when the
    // store refuses: a secret that was not saved must not look saved.
    virtual void setSecret(const std::string& account, CredentialKind kind,
                           const std::string& secret) = 0;
    // Removes every secret of the account; nothing when there is none.
    virtual void removeAll(const std::string& account) = 0;
    // Where the secrets go, for the person: "the Secret Service", "the
    // file ~/.local/share/kestrune/credentials.json".
    virtual std::string description() const = 0;
};

// One JSON object {"<account>": {"password": "...", ...}} in a file of mode
// 0600, replaced atomically on every change. Its directory must be the
// user's private (0700) data directory.
class FileCredentialStore final : public CredentialStore {
public:
    explicit FileCredentialStore(std::filesystem::path file) : file_(std::move(file)) {}

    std::optional<std::string> secret(const std::string& account, CredentialKind kind) override;
    void setSecret(const std::string& account, CredentialKind kind,
                   const std::string& secret) override;
    void removeAll(const std::string& account) override;
    std::string description() const override;

private:
    std::filesystem::path file_;
    std::mutex lock_;
};

// In memory only: the secrets of an account being set up, before its check
// has passed.
class MemoryCredentialStore final : public CredentialStore {
public:
    std::optional<std::string> secret(const std::string& account, CredentialKind kind) override;
    void setSecret(const std::string& account, CredentialKind kind,
                   const std::string& secret) override;
    void removeAll(const std::string& account) override;
    std::string description() const override { return "memory"; }

private:
    std::mutex lock_;
    std::map<std::pair<std::string, CredentialKind>, std::string> secrets_;  // guarded by lock_
};

// The service name under which account secrets are kept in keyrings.
inline constexpr std::string_view credentialService = "com.kestrune.mail.account";

}  // namespace mailcore
