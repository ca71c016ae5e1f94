#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "MailCore/Accounts/AccountDirectory.h"
#include "tests/MailCore/Store/StoreTestSupport.h"

namespace mailcore {
namespace {

using testing::at;
using testing::errorDetail;

AccountRecord serverAccount(const std::string& address) {
    AccountRecord a;
    a.id = AccountID(address);
    a.address = address;
    a.displayName = "Ada Lovelace";
    a.label = address;
    a.imap = ServerEndpoint{"imap.example.com", 993, TransportSecurity::implicitTLS};
    a.smtp = ServerEndpoint{"smtp.example.com", 587, TransportSecurity::startTLS};
    a.loginName = "ada";
    a.authMethod = AuthMethod::oauth;
    a.oauth = OAuthSettings{"example",
                            "https://auth.example.com/authorize",
                            "https://auth.example.com/token",
                            "client-1",
                            {"mail", "offline"}};
    a.caFile = "/etc/ssl/private-ca.pem";
    a.serverFilesSentMail = true;
    return a;
}

TEST(AccountDirectory, KeepsEveryFieldOfAServerAccount) {
    SQLiteMailStore store(StoreLocation::inMemory(), at(0));
    AccountDirectory accounts(store);
    const AccountRecord ada = serverAccount("ada@example.com");
    accounts.save(ada, at(1));
    EXPECT_EQ(accounts.require(ada.id), ada);
    EXPECT_FALSE(accounts.find(AccountID("bob@example.com")));
    EXPECT_EQ(errorDetail([&] { accounts.require(AccountID("bob@example.com")); }),
              "account not found");
}

TEST(AccountDirectory, ImportedAccountsReadAsAccountsWithoutServers) {
    SQLiteMailStore store(StoreLocation::inMemory(), at(0));
    store.saveAccount(AccountID("old@example.com"),
                      Json{{"email", "old@example.com"}, {"label", "Old"}, {"demo", true}}, at(1));
    AccountDirectory accounts(store);
    accounts.save(serverAccount("ada@example.com"), at(2));
    const auto all = accounts.all();
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all[0].label, "Old");
    EXPECT_TRUE(all[0].demo);
    EXPECT_FALSE(all[0].isServerAccount());
    ASSERT_EQ(accounts.serverAccounts().size(), 1u);
    EXPECT_EQ(accounts.serverAccounts()[0].address, "ada@example.com");
}

TEST(AccountDirectory, AuthStateChangesKeepTheAccountsOrder) {
    SQLiteMailStore store(StoreLocation::inMemory(), at(0));
    AccountDirectory accounts(store);
    accounts.save(serverAccount("a@example.com"), at(1));
    accounts.save(serverAccount("b@example.com"), at(2));
    accounts.setAuthState(AccountID("a@example.com"), AccountAuthState::reauthorizationRequired,
                          "refresh token revoked");
    auto all = accounts.all();
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all[0].address, "a@example.com");
    EXPECT_EQ(all[0].authState, AccountAuthState::reauthorizationRequired);
    EXPECT_EQ(all[0].authDetail, "refresh token revoked");
    accounts.setAuthState(AccountID("a@example.com"), AccountAuthState::ok);
    EXPECT_FALSE(accounts.require(AccountID("a@example.com")).authDetail);
    EXPECT_EQ(errorDetail(
                  [&] { accounts.setAuthState(AccountID("x@example.com"), AccountAuthState::ok); }),
              "account not found");
}

TEST(AccountDirectory, RefusesStoredConfigurationsOfTheWrongForm) {
    for (const Json& bad :
         {Json::array(), Json{{"label", "x"}}, Json{{"email", "a@b"}, {"imap", {{"host", "h"}}}},
          Json{{"email", "a@b"}, {"auth", "kerberos"}}, Json{{"email", "a@b"}, {"oauth", 3}}}) {
        EXPECT_EQ(errorDetail([&] { accountRecordFromJson(bad); }),
                  "stored value is not decodable as AccountConfig")
            << bad.dump();
    }
}

TEST(AccountRecord, AddressesAndDomains) {
    EXPECT_EQ(mailDomain("Ada@Example.COM"), "example.com");
    EXPECT_EQ(mailDomain("nobody"), "");
    for (const char* good : {"ada@example.com", "a@localhost"}) EXPECT_TRUE(isMailAddress(good));
    for (const char* bad : {"", "ada", "@example.com", "ada@", "a@b@c", "a b@c.d", "a@c\n"})
        EXPECT_FALSE(isMailAddress(bad)) << bad;
}

}  // namespace
}  // namespace mailcore
