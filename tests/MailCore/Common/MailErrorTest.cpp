#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "MailCore/Common/Json.h"
#include "MailCore/Common/MailError.h"
#include "MailCore/Common/Random.h"

namespace mailcore {
namespace {

TEST(MailErrorTest, StoredFormRoundTripsEveryCase) {
    const MailError samples[] = {
        MailError::network(NetworkFailureKind::timeout, "read timed out"),
        MailError::tls(TLSFailureKind::hostnameMismatch, "host name mismatch"),
        MailError::auth(AuthFailureKind::reauthorizationRequired, "re-authorization required"),
        MailError::protocolViolation(ProtocolIssueKind::serverClosed,
                                     "connection closed by server"),
        MailError::storage(StorageFailureKind::schemaNewerThanSupported,
                           "database schema 3 is newer than supported 2"),
        MailError::cancelled(),
        MailError::rateLimited(30.0),
        MailError::rateLimited(std::nullopt),
        MailError::unsupportedCapability("IDLE"),
        MailError::offline(),
    };
    for (const auto& e : samples) {
        std::string text = encodeJson(e.toJson());
        EXPECT_EQ(MailError::fromJson(parseJson(text)), e) << text;
    }
}

TEST(MailErrorTest, UndecodableStoredFormsFailWithStorageText) {
    for (const char* text : {"null", "[]", R"({"case":"nope"})", R"({"case":"network"})",
                             R"({"case":"network","kind":"bogus","detail":"x"})",
                             R"({"case":"tls","kind":"untrustedRoot"})",
                             R"({"case":"rateLimited","retryAfter":"soon"})"}) {
        try {
            MailError::fromJson(parseJson(text));
            ADD_FAILURE() << "decoded " << text;
        } catch (const MailError& e) {
            EXPECT_EQ(e.errorCase(), MailError::Case::storage);
            EXPECT_EQ(e.detail(), "stored value is not decodable as MailError");
        }
    }
}

TEST(MailErrorTest, RetryabilityFollowsTheCase) {
    EXPECT_TRUE(MailError::network(NetworkFailureKind::other, "x").isRetryable());
    EXPECT_TRUE(MailError::protocolViolation(ProtocolIssueKind::serverClosed, "x").isRetryable());
    EXPECT_FALSE(
        MailError::protocolViolation(ProtocolIssueKind::malformedResponse, "x").isRetryable());
    EXPECT_TRUE(MailError::rateLimited(std::nullopt).isRetryable());
    EXPECT_TRUE(MailError::offline().isRetryable());
    EXPECT_FALSE(MailError::tls(TLSFailureKind::untrustedRoot, "x").isRetryable());
    EXPECT_FALSE(MailError::storage(StorageFailureKind::ioError, "x").isRetryable());
    EXPECT_FALSE(MailError::cancelled().isRetryable());
    EXPECT_FALSE(MailError::unsupportedCapability("x").isRetryable());
    EXPECT_FALSE(MailError::auth(AuthFailureKind::invalidCredentials, "x").isRetryable());
    EXPECT_TRUE(MailError::auth(AuthFailureKind::temporaryFailure, "x").isRetryable());
}

TEST(MailErrorTest, TextualFormNamesCaseKindAndDetail) {
    EXPECT_STREQ(MailError::network(NetworkFailureKind::timeout, "read timed out").what(),
                 "network(timeout): read timed out");
    EXPECT_STREQ(MailError::cancelled().what(), "cancelled");
}

TEST(RandomTest, UUIDsAreUpperCaseVersion4AndDistinct) {
    std::string a = makeUUID(), b = makeUUID();
    ASSERT_EQ(a.size(), 36u);
    EXPECT_NE(a, b);
    EXPECT_EQ(a[14], '4');
    EXPECT_NE(std::string("89AB").find(a[19]), std::string::npos);
    for (char c : a) EXPECT_TRUE(c == '-' || isdigit(c) || (c >= 'A' && c <= 'F')) << a;
}

}  // namespace
}  // namespace mailcore
