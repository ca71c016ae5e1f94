// ProviderCatalog: what Kestrune knows about common mail providers — which
// mail domains and MX host names belong to each, its IMAP and SMTP servers,
// how it authenticates, its OAuth endpoints and whether its server files
// sent mail itself.
//
// The catalog is JSON signed with Ed25519. A copy is built into the program
// with its signature; an updated copy (a file with a ".sig" file beside it)
// replaces it only when the signature verifies against the built-in public
// key and the update's version is not older. Every load verifies; a copy
// that fails is not used, and the reason becomes a warning.
//
// File form: {"version": N, "providers": [{"id", "name", "domains": [...],
// "mx": ["*.example.net", ...], "imap": {"host","port","security"}, "smtp":
// {...}, "auth": ["password", "oauth"], "passwordNote": "...", "oauth":
// {"authorizationEndpoint", "tokenEndpoint", "clientID", "scopes": [...]},
// "serverFilesSent": bool}]}. The signature file holds the base64 text of
// the 64-byte signature over the catalog's exact bytes.
//
// Immutable after loading; safe to share between threads.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "MailCore/Accounts/AccountRecord.h"

namespace mailcore {

struct ProviderEntry {
    std::string id;
    std::string name;
    std::vector<std::string> domains;     // lower case
    std::vector<std::string> mxPatterns;  // "mx.example.net" or "*.example.net"
    ServerEndpoint imap;
    ServerEndpoint smtp;
    std::vector<AuthMethod> authMethods;  // in order of preference
    std::string passwordNote;             // e.g. "needs an app password"
    std::optional<OAuthSettings> oauth;   // endpoints; clientID may be empty
    bool serverFilesSent = false;

    bool accepts(AuthMethod method) const;
};

class ProviderCatalog {
public:
    // Parses catalog text (no signature check). Throws
    // MailError::protocolViolation(invalidInput, "<what> in the provider
    // catalog") for text that is not a catalog.
    static ProviderCatalog parse(std::string_view text);

    // True when `signature` (base64 of 64 bytes, surrounding white space
    // allowed) is a valid Ed25519 signature of `text` by `publicKey` (the
    // 32-byte raw key).
    static bool verify(std::string_view text, std::string_view signature,
                       const std::vector<std::uint8_t>& publicKey);

    // The built-in catalog, its signature checked against the built-in key.
    // Throws MailError::protocolViolation(invalidInput, ...) when the program
    // itself was damaged.
    static ProviderCatalog bundled();
    static const std::vector<std::uint8_t>& bundledPublicKey();

    struct Loaded;
    // The update at `updateFile` (with `updateFile` + ".sig") when present,
    // signed by `publicKey` and not older than the built-in catalog;
    // otherwise the built-in catalog, with a warning when an update was
    // present but refused.
    static Loaded load(const std::filesystem::path& updateFile,
                       const std::vector<std::uint8_t>& publicKey = bundledPublicKey());

    std::int64_t version() const { return version_; }
    const std::vector<ProviderEntry>& providers() const { return providers_; }

    // The provider of a mail domain (case-blind), or of one of the domain's
    // MX host names (patterns with a leading "*." match any subdomain).
    const ProviderEntry* forDomain(std::string_view domain) const;
    const ProviderEntry* forMXHosts(const std::vector<std::string>& mxHosts) const;

private:
    std::int64_t version_ = 0;
    std::vector<ProviderEntry> providers_;
};

struct ProviderCatalog::Loaded {
    ProviderCatalog catalog;
    bool fromUpdate = false;
    std::optional<std::string> warning;
};

}  // namespace mailcore
