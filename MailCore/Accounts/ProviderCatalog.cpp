#include "MailCore/Accounts/ProviderCatalog.h"

#include <openssl/evp.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>

#include "MailCore/Common/MailError.h"

namespace mailcore {

namespace catalogdata {
// Generated at build time from MailCore/Accounts/catalog.
extern const unsigned char catalog[];
extern const std::size_t catalogSize;
extern const unsigned char signature[];
extern const std::size_t signatureSize;
extern const unsigned char publicKeyHex[];
extern const std::size_t publicKeyHexSize;
}  // namespace catalogdata

namespace {

MailError invalid(const std::string& what) {
    return MailError::protocolViolation(ProtocolIssueKind::invalidInput,
                                        what + " in the provider catalog");
}

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

std::vector<std::string> strings(const Json& entry, const char* key, bool required) {
    const auto it = entry.find(key);
    if (it == entry.end()) {
        if (required) throw invalid(std::string("no ") + key);
        return {};
    }
    if (!it->is_array()) throw invalid(std::string("a bad ") + key + " list");
    std::vector<std::string> out;
    for (const auto& v : *it) {
        if (!v.is_string() || v.get_ref<const std::string&>().empty())
            throw invalid(std::string("a bad ") + key + " list");
        out.push_back(lower(v.get<std::string>()));
    }
    return out;
}

std::string text(const Json& entry, const char* key) {
    const auto it = entry.find(key);
    if (it == entry.end() || !it->is_string() || it->get_ref<const std::string&>().empty())
        throw invalid(std::string("a provider without ") + key);
    return it->get<std::string>();
}

ServerEndpoint endpoint(const Json& entry, const char* key) {
    const auto it = entry.find(key);
    if (it == entry.end()) throw invalid(std::string("a provider without ") + key);
    try {
        ServerEndpoint e = serverEndpointFromJson(*it);
        if (e.host.empty() || e.port == 0) throw invalid(std::string("a bad ") + key + " server");
        return e;
    } catch (const MailError&) {
        throw invalid(std::string("a bad ") + key + " server");
    }
}

ProviderEntry provider(const Json& entry) {
    if (!entry.is_object()) throw invalid("a provider that is not an object");
    ProviderEntry p;
    p.id = text(entry, "id");
    p.name = text(entry, "name");
    p.domains = strings(entry, "domains", true);
    p.mxPatterns = strings(entry, "mx", false);
    p.imap = endpoint(entry, "imap");
    p.smtp = endpoint(entry, "smtp");
    for (const auto& m : strings(entry, "auth", true)) {
        const auto method = authMethodFromRaw(m);
        if (!method) throw invalid("an unknown authentication method " + m);
        p.authMethods.push_back(*method);
    }
    if (p.authMethods.empty()) throw invalid("a provider without authentication methods");
    if (entry.contains("passwordNote")) {
        if (!entry["passwordNote"].is_string()) throw invalid("a bad passwordNote");
        p.passwordNote = entry["passwordNote"].get<std::string>();
    }
    if (entry.contains("oauth")) {
        const Json& o = entry["oauth"];
        if (!o.is_object()) throw invalid("bad oauth settings");
        OAuthSettings s;
        s.provider = p.id;
        s.authorizationEndpoint = text(o, "authorizationEndpoint");
        s.tokenEndpoint = text(o, "tokenEndpoint");
        if (!s.authorizationEndpoint.starts_with("https://") ||
            !s.tokenEndpoint.starts_with("https://"))
            throw invalid("an OAuth endpoint that is not https");
        if (o.contains("clientID")) {
            if (!o["clientID"].is_string()) throw invalid("a bad clientID");
            s.clientID = o["clientID"].get<std::string>();
        }
        s.scopes = strings(o, "scopes", true);
        p.oauth = std::move(s);
    }
    if (p.accepts(AuthMethod::oauth) && !p.oauth)
        throw invalid("an OAuth provider without OAuth settings");
    const auto sent = entry.find("serverFilesSent");
    if (sent != entry.end()) {
        if (!sent->is_boolean()) throw invalid("a bad serverFilesSent");
        p.serverFilesSent = sent->get<bool>();
    }
    return p;
}

bool matchesPattern(const std::string& host, const std::string& pattern) {
    if (pattern.starts_with("*.")) {
        const std::string suffix = pattern.substr(1);  // ".example.net"
        return host.size() > suffix.size() && host.ends_with(suffix);
    }
    return host == pattern;
}

std::vector<std::uint8_t> fromHex(std::string_view hex) {
    std::vector<std::uint8_t> out;
    auto nibble = [](char c) -> int {
        if (c >= '0' && c <= '9') return c - '0';
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        if (c >= 'A' && c <= 'F') return c - 'A' + 10;
        return -1;
    };
    int high = -1;
    for (char c : hex) {
        const int n = nibble(c);
        if (n < 0) continue;
        if (high < 0) {
            high = n;
        } else {
            out.push_back(static_cast<std::uint8_t>(high * 16 + n));
            high = -1;
        }
    }
    return out;
}

std::optional<std::string> readFile(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) return std::nullopt;
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

}  // namespace

bool ProviderEntry::accepts(AuthMethod method) const {
    return std::find(authMethods.begin(), authMethods.end(), method) != authMethods.end();
}

ProviderCatalog ProviderCatalog::parse(std::string_view source) {
    Json json;
    if (!tryParseJson(source, json) || !json.is_object()) throw invalid("text that is not JSON");
    const auto version = json.find("version");
    if (version == json.end() || !version->is_number_integer() || version->get<std::int64_t>() < 1)
        throw invalid("no version");
    const auto list = json.find("providers");
    if (list == json.end() || !list->is_array()) throw invalid("no providers");
    ProviderCatalog catalog;
    catalog.version_ = version->get<std::int64_t>();
    for (const auto& entry : *list) catalog.providers_.push_back(provider(entry));
    return catalog;
}

bool ProviderCatalog::verify(std::string_view source, std::string_view signature,
                             const std::vector<std::uint8_t>& publicKey) {
    std::string encoded;
    for (char c : signature)
        if (!std::isspace(static_cast<unsigned char>(c))) encoded.push_back(c);
    // 64 bytes are 88 base64 characters ending in "==".
    if (encoded.size() != 88 || !encoded.ends_with("==") || publicKey.size() != 32) return false;
    unsigned char raw[66];
    if (EVP_DecodeBlock(raw, reinterpret_cast<const unsigned char*>(encoded.data()), 88) != 66)
        return false;
    std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(
        EVP_PKEY_new_raw_public_key(EVP_PKEY_ED25519, nullptr, publicKey.data(), 32),
        EVP_PKEY_free);
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(),
                                                                    EVP_MD_CTX_free);
    if (!key || !context) return false;
    if (EVP_DigestVerifyInit(context.get(), nullptr, nullptr, nullptr, key.get()) != 1)
        return false;
    return EVP_DigestVerify(context.get(), raw, 64,
                            reinterpret_cast<const unsigned char*>(source.data()),
                            source.size()) == 1;
}

const std::vector<std::uint8_t>& ProviderCatalog::bundledPublicKey() {
    static const std::vector<std::uint8_t> key = fromHex(std::string_view(
        reinterpret_cast<const char*>(catalogdata::publicKeyHex), catalogdata::publicKeyHexSize));
    return key;
}

ProviderCatalog ProviderCatalog::bundled() {
    const std::string_view source(reinterpret_cast<const char*>(catalogdata::catalog),
                                  catalogdata::catalogSize);
    const std::string_view signature(reinterpret_cast<const char*>(catalogdata::signature),
                                     catalogdata::signatureSize);
    if (!verify(source, signature, bundledPublicKey())) throw invalid("a bad signature");
    return parse(source);
}

ProviderCatalog::Loaded ProviderCatalog::load(const std::filesystem::path& updateFile,
                                              const std::vector<std::uint8_t>& publicKey) {
    Loaded loaded{bundled(), false, std::nullopt};
    const auto update = readFile(updateFile);
    if (!update) return loaded;
    const auto refuse = [&](const std::string& why) {
        loaded.warning = "The provider catalog update " + updateFile.string() + " " + why +
                         "; the built-in catalog is used instead.";
        return loaded;
    };
    std::filesystem::path signatureFile = updateFile;
    signatureFile += ".sig";
    const auto signature = readFile(signatureFile);
    if (!signature) return refuse("has no signature file beside it");
    if (!verify(*update, *signature, publicKey))
        return refuse("is damaged or not signed by Kestrune");
    try {
        ProviderCatalog catalog = parse(*update);
        if (catalog.version() < loaded.catalog.version())
            return refuse("is older than the built-in one");
        loaded.catalog = std::move(catalog);
        loaded.fromUpdate = true;
    } catch (const MailError& e) {
        return refuse(std::string("cannot be read (") + e.detail() + ")");
    }
    return loaded;
}

const ProviderEntry* ProviderCatalog::forDomain(std::string_view domain) const {
    const std::string wanted = lower(std::string(domain));
    for (const auto& p : providers_)
        if (std::find(p.domains.begin(), p.domains.end(), wanted) != p.domains.end()) return &p;
    return nullptr;
}

const ProviderEntry* ProviderCatalog::forMXHosts(const std::vector<std::string>& mxHosts) const {
    for (const auto& host : mxHosts) {
        std::string h = lower(host);
        if (h.ends_with(".")) h.pop_back();
        for (const auto& p : providers_)
            for (const auto& pattern : p.mxPatterns)
                if (matchesPattern(h, pattern)) return &p;
    }
    return nullptr;
}

}  // namespace mailcore
