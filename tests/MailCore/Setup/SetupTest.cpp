#include <gtest/gtest.h>

#include <future>

#include "MailCore/Accounts/AccountDirectory.h"
#include "MailCore/Setup/AccountCredentials.h"
#include "MailCore/Setup/HTTPSClient.h"
#include "MailCore/Setup/ProviderLookup.h"
#include "tests/MailCore/Setup/FakeProvider.h"

namespace mailcore {
namespace {

using testing::FakeProvider;

class AccountSetup : public ::testing::Test {
protected:
    static void SetUpTestSuite() { provider = new FakeProvider(); }
    static void TearDownTestSuite() { delete provider; }
    static FakeProvider* provider;

    OAuthSettings oauth() const {
        return OAuthSettings{"fake",
                             provider->url("/authorize"),
                             provider->url("/token"),
                             "test-client",
                             {"mail", "offline_access"}};
    }
    OAuthHTTPOptions http() const { return OAuthHTTPOptions{provider->caFile(), 10}; }

    // The whole sign-in: the scripted browser opens the URL and follows the
    // redirect to the loopback receiver.
    OAuthTokens signIn(Date now) {
        LoopbackReceiver receiver;
        const PKCEPair pkce = PKCEPair::generate();
        const std::string url =
            authorizationURL(oauth(), receiver.redirectURI(), pkce, "ada@fake.test");
        auto page = std::async(std::launch::async, [&] { return provider->browse(url); });
        const std::string code = receiver.waitForCode(pkce.state, std::chrono::seconds(10));
        EXPECT_NE(page.get().find("You can close this window"), std::string::npos);
        // One use: the receiver stopped listening.
        EXPECT_TRUE(provider->browse(receiver.redirectURI() + "?code=x&state=" + pkce.state)
                        .starts_with("failed"));
        return exchangeCode(oauth(), code, receiver.redirectURI(), pkce.verifier, now, http());
    }
};

FakeProvider* AccountSetup::provider = nullptr;

TEST_F(AccountSetup, AutoconfigurationFromTheDomainsWellKnownLocation) {
    AutoconfigOptions options;
    options.urls = {provider->url("/missing/config-v1.1.xml"),
                    provider->url("/.well-known/autoconfig/mail/config-v1.1.xml")};
    options.caFile = provider->caFile();
    ProviderLookupOptions lookup;
    lookup.mx = [](const std::string&) { return std::vector<std::string>{"mx.nowhere.test"}; };
    lookup.autoconfig = options;
    const auto match = findProvider("ada@autoconf.test", ProviderCatalog::bundled(), lookup);
    ASSERT_TRUE(match);
    EXPECT_EQ(match->provider.imap,
              (ServerEndpoint{"imap.autoconf.test", 993, TransportSecurity::implicitTLS}));
    EXPECT_EQ(match->provider.smtp,
              (ServerEndpoint{"smtp.autoconf.test", 587, TransportSecurity::startTLS}));
    EXPECT_EQ(match->loginName, "ada");
    EXPECT_EQ(match->source, "the settings autoconf.test publishes");

    options.caFile.reset();  // the self-signed server is not trusted by the system
    EXPECT_FALSE(lookupAutoconfig("ada@autoconf.test", options));
}

TEST_F(AccountSetup, CatalogDomainsNeedNoNetwork) {
    ProviderLookupOptions offline;
    offline.mx = nullptr;
    offline.autoconfig.urls = {"https://127.0.0.1:1/unreachable"};
    const auto match = findProvider("someone@gmail.com", ProviderCatalog::bundled(), offline);
    ASSERT_TRUE(match);
    EXPECT_EQ(match->provider.id, "gmail");
    EXPECT_EQ(match->source, "the provider catalog");
}

TEST_F(AccountSetup, HTTPSFailuresKeepTheirKinds) {
    HTTPSRequest request;
    request.url = provider->url("/.well-known/autoconfig/mail/config-v1.1.xml");
    EXPECT_EQ(testfiles::caught<MailError>([&] { httpsFetch(request); })->tlsKind(),
              TLSFailureKind::untrustedRoot);
    request.caFile = provider->caFile();
    EXPECT_EQ(httpsFetch(request).status, 200);
    request.maxResponseBytes = 100;
    EXPECT_EQ(testfiles::caught<MailError>([&] { httpsFetch(request); })->protocolKind(),
              ProtocolIssueKind::responseTooLarge);
    request.url.replace(request.url.find("127.0.0.1"), 9, "localhost");
    EXPECT_EQ(testfiles::caught<MailError>([&] { httpsFetch(request); })->tlsKind(),
              TLSFailureKind::hostnameMismatch);
    request.url = "http://127.0.0.1:1/";
    EXPECT_EQ(testfiles::caught<MailError>([&] { httpsFetch(request); })->detail(),
              "not an https URL");
}

TEST_F(AccountSetup, LoopbackReceiverIgnoresAnswersForAnotherSignIn) {
    LoopbackReceiver receiver;
    auto stray = std::async(std::launch::async, [&] {
        const std::string wrong = provider->browse(receiver.redirectURI() + "?code=1&state=old");
        const std::string right = provider->browse(receiver.redirectURI() + "?code=2&state=now");
        return wrong + "|" + right;
    });
    EXPECT_EQ(receiver.waitForCode("now", std::chrono::seconds(10)), "2");
    const std::string pages = stray.get();
    EXPECT_NE(pages.find("does not belong"), std::string::npos);
    EXPECT_NE(pages.find("You can close this window"), std::string::npos);

    LoopbackReceiver declined;
    auto page = std::async(std::launch::async, [&] {
        return provider->browse(declined.redirectURI() + "?error=access_denied&state=s");
    });
    EXPECT_EQ(testfiles::caught<MailError>([&] {
                  declined.waitForCode("s", std::chrono::seconds(10));
              })->detail(),
              "sign-in was declined: access_denied");
    page.get();
}

TEST_F(AccountSetup, SignInRefreshesBeforeExpiryAndAfterRefusalUntilRevoked) {
    testfiles::FakeClock clock;
    SQLiteMailStore store(StoreLocation::inMemory(), clock.now());
    AccountDirectory accounts(store);
    AccountRecord ada;
    ada.id = AccountID("ada@fake.test");
    ada.address = "ada@fake.test";
    ada.authMethod = AuthMethod::oauth;
    ada.oauth = oauth();
    accounts.save(ada, clock.now());
    MemoryCredentialStore secrets;
    AccountCredentials credentials(accounts, secrets, clock.clock(), http());

    const OAuthTokens first = signIn(clock.now());
    credentials.signedIn(ada, first);
    EXPECT_EQ(secrets.secret(ada.id.value, CredentialKind::oauthRefreshToken), first.refreshToken);
    EXPECT_EQ(credentials.loginSecret(ada).secret, first.accessToken);  // still fresh

    clock.advance(std::chrono::seconds(3550));  // under a minute left
    const std::string second = credentials.loginSecret(ada).secret;
    EXPECT_NE(second, first.accessToken);
    credentials.loginRefused(ada, second);
    const std::string third = credentials.loginSecret(ada).secret;
    EXPECT_NE(third, second);
    EXPECT_EQ(credentials.loginSecret(ada).secret, third);

    provider->post("/revoke");
    credentials.loginRefused(ada, third);
    const auto error = testfiles::caught<MailError>([&] { credentials.loginSecret(ada); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->authKind(), AuthFailureKind::reauthorizationRequired);
    EXPECT_EQ(error->detail(), "re-authorization required");
    EXPECT_EQ(accounts.require(ada.id).authState, AccountAuthState::reauthorizationRequired);
}

TEST(TokenResponse, AnswersOfTheWrongFormAreErrors) {
    const Date now = dateFromSeconds(1000);
    const auto kindOf = [&](long status, const std::string& body) {
        const auto e = testfiles::caught<MailError>([&] { parseTokenResponse(status, body, now); });
        return e ? std::string(rawValue(e->errorCase())) + ":" + e->detail() : "ok";
    };
    EXPECT_EQ(kindOf(200, R"({"access_token":"a","expires_in":60})"), "ok");
    EXPECT_EQ(parseTokenResponse(200, R"({"access_token":"a","expires_in":60})", now).expiresAt,
              dateFromSeconds(1060));
    EXPECT_EQ(kindOf(400, R"({"error":"invalid_grant"})"), "auth:re-authorization required");
    EXPECT_EQ(kindOf(401, R"({"error":"invalid_client"})"),
              "auth:sign-in was refused: invalid_client");
    EXPECT_EQ(kindOf(503, "busy"), "auth:the sign-in service failed: status 503");
    for (const char* body : {"", "[]", R"({"access_token":""})", R"({"access_token":7})"})
        EXPECT_EQ(kindOf(200, body), "protocolViolation:token answer without an access token")
            << body;
}

}  // namespace
}  // namespace mailcore
