#include <gtest/gtest.h>

#include <cstdlib>

#include "MailCore/Common/MailError.h"
#include "MailCore/Credentials/KeyringCredentialStores.h"
#include "tests/MailCore/Store/StoreTestSupport.h"
#include "tests/fakes/KeyringSession.h"

namespace mailcore {
namespace {

// Each store keeps secrets apart by account and kind, replaces them, and
// forgets all of one account at once.
void exerciseStore(CredentialStore& store) {
    store.setSecret("ada@example.com", CredentialKind::password, "first \"pässword\"");
    store.setSecret("ada@example.com", CredentialKind::password, "second");
    store.setSecret("ada@example.com", CredentialKind::oauthRefreshToken, "refresh-1");
    store.setSecret("bob@example.com", CredentialKind::password, "bobs");
    EXPECT_EQ(store.secret("ada@example.com", CredentialKind::password), "second");
    EXPECT_EQ(store.secret("ada@example.com", CredentialKind::oauthRefreshToken), "refresh-1");
    EXPECT_FALSE(store.secret("bob@example.com", CredentialKind::oauthRefreshToken));
    store.removeAll("ada@example.com");
    EXPECT_FALSE(store.secret("ada@example.com", CredentialKind::password));
    EXPECT_FALSE(store.secret("ada@example.com", CredentialKind::oauthRefreshToken));
    EXPECT_EQ(store.secret("bob@example.com", CredentialKind::password), "bobs");
    store.removeAll("nobody@example.com");
}

TEST(FileCredentialStore, KeepsSecretsInOnePrivateFile) {
    testing::TempDir dir;
    const auto file = dir.path() / "credentials.json";
    FileCredentialStore store(file);
    exerciseStore(store);
    EXPECT_EQ(testfiles::fileMode(file), 0600u);
    EXPECT_EQ(testfiles::namesIn(dir.path()), std::vector<std::string>{"credentials.json"});
    for (const char* damaged : {"", "[1]", "{\"bob@example.com\": 3}", "{not json"}) {
        testfiles::writeFile(file, damaged);
        EXPECT_FALSE(store.secret("bob@example.com", CredentialKind::password)) << damaged;
        store.setSecret("bob@example.com", CredentialKind::password, "again");
        EXPECT_EQ(store.secret("bob@example.com", CredentialKind::password), "again");
    }
}

TEST(SecretServiceCredentialStore, StoresSecretsInTheRunningSecretService) {
    testing::TempDir dir;
    testfiles::KeyringSession keyring(dir.path());
    if (!keyring.available()) GTEST_SKIP() << keyring.why();
    ::setenv("DBUS_SESSION_BUS_ADDRESS", keyring.busAddress().c_str(), 1);
    auto choice = chooseCredentialStore(dir.path() / "credentials.json");
    EXPECT_FALSE(choice.warning);
    EXPECT_EQ(choice.store->description(), "the Secret Service");
    exerciseStore(*choice.store);
    choice.store->setSecret("carol@example.com", CredentialKind::password, "in the keyring");
    // Read back by another program, by the attributes the store documents.
    EXPECT_EQ(keyring.lookup("xdg:schema com.kestrune.mail.account account carol@example.com "
                             "kind password"),
              "in the keyring");
    EXPECT_FALSE(std::filesystem::exists(dir.path() / "credentials.json"));
}

}  // namespace
}  // namespace mailcore
