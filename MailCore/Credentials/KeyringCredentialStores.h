// The keyring credential stores and the choice between them and the file.
//
// SecretServiceCredentialStore keeps each secret as one item of the default
// collection of the desktop's Secret Service, under the schema
// "com.kestrune.mail.account" (attribute xdg:schema) with the attributes
// account = the account id and kind = "password" | "oauth-refresh-token". KeychainCredentialStore
// (macOS) keeps generic-password items of the same service, accessible when unlocked on this device
// only.
//
// Thread-safety: each store serialises its calls on its own mutex.
#pragma once

#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "MailCore/Accounts/CredentialStore.h"

namespace mailcore {

#if defined(__APPLE__)
class KeychainCredentialStore final : public CredentialStore {
public:
    std::optional<std::string> secret(const std::string& account, CredentialKind kind) override;
    void setSecret(const std::string& account, CredentialKind kind,
                   const std::string& secret) override;
    void removeAll(const std::string& account) override;
    std::string description() const override { return "the login keychain"; }

private:
    std::mutex lock_;
};
#else
class SecretServiceCredentialStore final : public CredentialStore {
public:
    // True when a Secret Service answers on the session bus (a lookup that
    // finds nothing counts as an answer).
    static bool isAvailable();

    std::optional<std::string> secret(const std::string& account, CredentialKind kind) override;
    void setSecret(const std::string& account, CredentialKind kind,
                   const std::string& secret) override;
    void removeAll(const std::string& account) override;
    std::string description() const override { return "the Secret Service"; }

private:
    std::mutex lock_;
};
#endif

struct CredentialStoreChoice {
    std::unique_ptr<CredentialStore> store;
    // Set when the secrets go to the private file because no keyring answered:
    // one sentence to show the person once.
    std::optional<std::string> warning;
};

// The keyring when one answers, else a FileCredentialStore on
// `fallbackFile` (in the user's private data directory).
CredentialStoreChoice chooseCredentialStore(const std::filesystem::path& fallbackFile);

}  // namespace mailcore
