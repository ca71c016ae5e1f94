// AccountRecord: a mail account as the store keeps it, coded as the JSON of
// the `accounts.config` column. Server accounts carry their IMAP and SMTP
// endpoints, the login name, how they authenticate and the extra trust
// anchors the user named; accounts made by an import or the demonstration
// have neither endpoint. No secret is ever part of a record: passwords and
// OAuth refresh tokens live in a CredentialStore, keyed by the account id.
// Plain value; safe to copy between threads.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "MailCore/Common/Json.h"
#include "MailCore/Store/StoreTypes.h"
#include "MailCore/Transport/Certificate.h"
#include "MailCore/Transport/TransportTypes.h"

namespace mailcore {

// "password", "oauth".
enum class AuthMethod { password, oauth };
std::string_view rawValue(AuthMethod method);
std::optional<AuthMethod> authMethodFromRaw(std::string_view raw);

// Whether the stored credentials still work: "ok", or
// "reauthorizationRequired" once an OAuth refresh was refused (the user has
// to sign in again; sends and sync stop until then).
enum class AccountAuthState { ok, reauthorizationRequired };
std::string_view rawValue(AccountAuthState state);

// Where an OAuth account signs in and refreshes its access token.
struct OAuthSettings {
    std::string provider;               // catalog id, for messages ("gmail")
    std::string authorizationEndpoint;  // https URL the browser opens
    std::string tokenEndpoint;          // https URL of the code exchange and refresh
    std::string clientID;
    std::vector<std::string> scopes;

    bool operator==(const OAuthSettings&) const = default;
};

struct AccountRecord {
    AccountID id;             // the address as entered
    std::string displayName;  // the sender name on outgoing mail; may be empty
    std::string address;      // "ada@example.com"
    std::string label;        // how lists show the account; the address by default
    std::optional<ServerEndpoint> imap;
    std::optional<ServerEndpoint> smtp;
    std::string loginName;  // the user name both servers expect
    AuthMethod authMethod = AuthMethod::password;
    std::optional<OAuthSettings> oauth;  // with authMethod oauth
    std::optional<std::string> caFile;   // PEM file of extra trust anchors
    bool serverFilesSentMail = false;    // the provider files sent mail itself
    AccountAuthState authState = AccountAuthState::ok;
    std::optional<std::string> authDetail;  // why reauthorization is required
    bool demo = false;                      // the demonstration mailbox

    // True for an account reached over IMAP and SMTP.
    bool isServerAccount() const { return imap.has_value() && smtp.has_value(); }
    // The sent copy is to be appended to the Sent folder by the client.
    bool clientFilesSentMail() const { return !serverFilesSentMail; }

    bool operator==(const AccountRecord&) const = default;
};

// The stored form: {"email", "label", "demo"} as import accounts always had,
// plus "name", "imap", "smtp", "login", "auth", "oauth", "caFile",
// "serverFilesSent", "authState", "authDetail" for server accounts.
Json toJson(const AccountRecord& account);
// Reads what toJson writes; absent members take their defaults. Throws
// MailError::storage(other, "stored value is not decodable as AccountConfig")
// when there is no text "email" or a member has the wrong form.
AccountRecord accountRecordFromJson(const Json& json);

// The extra trust anchors of the account: none without a CA file. Throws
// MailError::tls(certificateInvalid, ...) when the file cannot be read or
// holds no certificate.
std::vector<Certificate> extraAnchors(const AccountRecord& account);

// The part after the last "@", lower-cased; empty when there is none.
std::string mailDomain(std::string_view address);
// A plausible address: one "@", a local part and a domain, no spaces
// or control characters, at most 320 bytes.
bool isMailAddress(std::string_view address);

}  // namespace mailcore
