#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <memory>

#include "MailCore/Accounts/ProviderCatalog.h"
#include "MailCore/Common/MailError.h"
#include "tests/MailCore/Store/StoreTestSupport.h"

namespace mailcore {
namespace {

// A fresh Ed25519 key pair made for the test; signs like scripts/sign-catalog.sh.
class TestSigner {
public:
    TestSigner() {
        std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> ctx(
            EVP_PKEY_CTX_new_id(EVP_PKEY_ED25519, nullptr), EVP_PKEY_CTX_free);
        EVP_PKEY* raw = nullptr;
        EVP_PKEY_keygen_init(ctx.get());
        EVP_PKEY_keygen(ctx.get(), &raw);
        key_.reset(raw);
        std::size_t length = 32;
        publicKey.resize(32);
        EVP_PKEY_get_raw_public_key(key_.get(), publicKey.data(), &length);
    }
    std::string sign(const std::string& text) const {
        std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> md(EVP_MD_CTX_new(),
                                                                   EVP_MD_CTX_free);
        EVP_DigestSignInit(md.get(), nullptr, nullptr, nullptr, key_.get());
        unsigned char signature[64];
        std::size_t length = sizeof signature;
        EVP_DigestSign(md.get(), signature, &length,
                       reinterpret_cast<const unsigned char*>(text.data()), text.size());
        unsigned char encoded[89];
        EVP_EncodeBlock(encoded, signature, 64);
        return std::string(reinterpret_cast<char*>(encoded), 88) + "\n";
    }
    std::vector<std::uint8_t> publicKey;

private:
    std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key_{nullptr, EVP_PKEY_free};
};

std::string catalogText(int version, const std::string& domain) {
    return R"({"version":)" + std::to_string(version) +
           R"(,"providers":[{"id":"local","name":"Local","domains":[")" + domain +
           R"("],"mx":["*.mx.local.test"],"imap":{"host":"127.0.0.1","port":1993,"security":"implicitTLS"},"smtp":{"host":"127.0.0.1","port":1587,"security":"startTLS"},"auth":["password"],"serverFilesSent":true}]})";
}

TEST(ProviderCatalog, BundledCatalogVerifiesAndAnswersDomainsAndMXHosts) {
    const ProviderCatalog catalog = ProviderCatalog::bundled();
    const ProviderEntry* gmail = catalog.forDomain("GMail.com");
    ASSERT_NE(gmail, nullptr);
    EXPECT_EQ(gmail->imap.host, "imap.gmail.com");
    EXPECT_TRUE(gmail->serverFilesSent);
    EXPECT_TRUE(gmail->accepts(AuthMethod::oauth));
    const ProviderEntry* byMX = catalog.forMXHosts({"nothing.example", "alt1.ASPMX.l.google.com."});
    ASSERT_NE(byMX, nullptr);
    EXPECT_EQ(byMX->id, "gmail");
    EXPECT_EQ(catalog.forMXHosts({"google.com"}), nullptr);  // "*." needs a subdomain
    EXPECT_EQ(catalog.forDomain("example.com"), nullptr);
}

TEST(ProviderCatalog, AnUpdateIsUsedOnlyWithAValidSignatureAndNoOlderVersion) {
    testfiles::TempDir dir;
    const TestSigner signer, stranger;
    const auto file = dir.path() / "providers.json";
    const std::string text = catalogText(7, "local.test");
    std::string damaged = text;
    damaged[damaged.find("1993") + 3] = '4';  // one byte changed after signing

    struct Case {
        const char* name;
        std::string content;
        std::optional<std::string> signature;
        bool used;
    };
    const Case cases[] = {
        {"valid", text, signer.sign(text), true},
        {"one byte changed", damaged, signer.sign(text), false},
        {"no signature file", text, std::nullopt, false},
        {"signed by another key", text, stranger.sign(text), false},
        {"signature cut short", text, signer.sign(text).substr(0, 40), false},
        {"older than the built-in one", catalogText(0, "x.test"),
         signer.sign(catalogText(0, "x.test")), false},
        {"signed but not a catalog", "[1,2]", signer.sign("[1,2]"), false},
    };
    for (const auto& c : cases) {
        std::filesystem::remove(file.string() + ".sig");
        testfiles::writeFile(file, c.content);
        if (c.signature) testfiles::writeFile(file.string() + ".sig", *c.signature);
        const auto loaded = ProviderCatalog::load(file, signer.publicKey);
        EXPECT_EQ(loaded.fromUpdate, c.used) << c.name;
        EXPECT_EQ(loaded.warning.has_value(), !c.used) << c.name;
        EXPECT_EQ(loaded.catalog.forDomain("local.test") != nullptr, c.used) << c.name;
        EXPECT_NE(loaded.catalog.forDomain("gmail.com") != nullptr, c.used) << c.name;
    }
    std::filesystem::remove(file);
    const auto absent = ProviderCatalog::load(file, signer.publicKey);
    EXPECT_FALSE(absent.fromUpdate);
    EXPECT_FALSE(absent.warning);
}

TEST(ProviderCatalog, RefusesEntriesOfTheWrongForm) {
    const std::string base = catalogText(1, "a.test");
    const std::pair<std::string, std::string> edits[] = {
        {R"("auth":["password"])", R"("auth":["carrier-pigeon"])"},
        {R"("auth":["password"])", R"("auth":["oauth"])"},  // no OAuth settings
        {R"("port":1993)", R"("port":0)"},
        {R"("security":"implicitTLS")", R"("security":"none")"},
        {R"("domains":["a.test"])", R"("domains":"a.test")"},
        {R"("id":"local",)", ""},
        {R"("serverFilesSent":true)", R"("serverFilesSent":"yes")"},
        {R"("version":1)", R"("version":"1")"},
    };
    EXPECT_NO_THROW(ProviderCatalog::parse(base));
    for (const auto& [from, to] : edits) {
        std::string text = base;
        text.replace(text.find(from), from.size(), to);
        const auto error = testfiles::caught<MailError>([&] { ProviderCatalog::parse(text); });
        ASSERT_TRUE(error) << to;
        EXPECT_TRUE(error->detail().ends_with("in the provider catalog")) << error->detail();
    }
}

}  // namespace
}  // namespace mailcore
