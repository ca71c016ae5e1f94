#if !defined(__APPLE__)

#include <libsecret/secret.h>

#include <memory>

#include "MailCore/Common/MailError.h"
#include "MailCore/Credentials/KeyringCredentialStores.h"

namespace mailcore {
namespace {

const SecretSchema* schema() {
    static const SecretSchema value = {"com.kestrune.mail.account",
                                       SECRET_SCHEMA_NONE,
                                       {{"account", SECRET_SCHEMA_ATTRIBUTE_STRING},
                                        {"kind", SECRET_SCHEMA_ATTRIBUTE_STRING},
                                        {nullptr, SECRET_SCHEMA_ATTRIBUTE_STRING}},
                                       0,
                                       nullptr,
                                       nullptr,
                                       nullptr,
                                       nullptr,
                                       nullptr,
                                       nullptr,
                                       nullptr};
    return &value;
}

struct ErrorFree {
    void operator()(GError* e) const { g_error_free(e); }
};
using ErrorPtr = std::unique_ptr<GError, ErrorFree>;

std::string message(const ErrorPtr& error) {
    return error && error->message ? error->message : "unknown error";
}

}  // namespace

bool SecretServiceCredentialStore::isAvailable() {
    GError* raw = nullptr;
    gchar* found = secret_password_lookup_sync(schema(), nullptr, &raw, "account",
                                               "availability-probe", "kind", "none", nullptr);
    ErrorPtr error(raw);
    if (found) secret_password_free(found);
    return !error;
}

std::optional<std::string> SecretServiceCredentialStore::secret(const std::string& account,
                                                                CredentialKind kind) {
    std::lock_guard<std::mutex> guard(lock_);
    GError* raw = nullptr;
    const std::string kindText(rawValue(kind));
    gchar* found = secret_password_lookup_sync(schema(), nullptr, &raw, "account", account.c_str(),
                                               "kind", kindText.c_str(), nullptr);
    ErrorPtr error(raw);
    if (!found) return std::nullopt;
    std::string value(found);
    secret_password_free(found);
    return value;
}

void SecretServiceCredentialStore::setSecret(const std::string& account, CredentialKind kind,
                                             const std::string& secret) {
    std::lock_guard<std::mutex> guard(lock_);
    GError* raw = nullptr;
    const std::string kindText(rawValue(kind));
    const std::string label = "Kestrune " + kindText + " for " + account;
    const gboolean stored = secret_password_store_sync(
        schema(), SECRET_COLLECTION_DEFAULT, label.c_str(), secret.c_str(), nullptr, &raw,
        "account", account.c_str(), "kind", kindText.c_str(), nullptr);
    ErrorPtr error(raw);
    if (!stored || error) {
        throw MailError::storage(StorageFailureKind::ioError,
                                 "the Secret Service did not store the secret: " + message(error));
    }
}

void SecretServiceCredentialStore::removeAll(const std::string& account) {
    std::lock_guard<std::mutex> guard(lock_);
    GError* raw = nullptr;
    secret_password_clear_sync(schema(), nullptr, &raw, "account", account.c_str(), nullptr);
    ErrorPtr error(raw);
}

CredentialStoreChoice chooseCredentialStore(const std::filesystem::path& fallbackFile) {
    CredentialStoreChoice choice;
    if (SecretServiceCredentialStore::isAvailable()) {
        choice.store = std::make_unique<SecretServiceCredentialStore>();
        return choice;
    }
    choice.store = std::make_unique<FileCredentialStore>(fallbackFile);
    choice.warning =
        "No Secret Service answers on this session (no desktop keyring is running), so account "
        "passwords and sign-in tokens are kept in " +
        fallbackFile.string() +
        ", readable only by you; start a keyring such as gnome-keyring to keep them there instead.";
    return choice;
}

}  // namespace mailcore

#endif
