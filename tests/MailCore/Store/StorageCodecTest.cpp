#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "MailCore/Common/MailError.h"
#include "MailCore/Store/StorageCodec.h"

namespace mailcore {
namespace {

TEST(StorageCodecTest, RoundTripsListsAndAddresses) {
    std::vector<std::string> keywords{"$Forwarded", "caf\xc3\xa9", ""};
    EXPECT_EQ(StorageCodec::decodeStrings(StorageCodec::encodeString(keywords)), keywords);
    std::vector<MailAddress> people{{"Zo\xc3\xab \"Z\" Smith", "zoe@example.com"}, {"", "a@b"}};
    EXPECT_EQ(StorageCodec::decodeAddresses(StorageCodec::encodeString(people)), people);
    EXPECT_EQ(StorageCodec::encodeString(std::vector<std::string>{}), "[]");
    // A missing or null name reads as empty.
    EXPECT_EQ(StorageCodec::decodeAddresses(R"([{"email":"x@y","name":null}])"),
              (std::vector<MailAddress>{{"", "x@y"}}));
}

TEST(StorageCodecTest, UndecodableValuesNameTheirType) {
    struct Case {
        std::function<void()> decode;
        const char* detail;
    };
    const Case cases[] = {
        {[] { StorageCodec::decodeStrings("{\"a\":1}"); },
         "stored value is not decodable as Array<String>"},
        {[] { StorageCodec::decodeStrings("[1, 2]"); },
         "stored value is not decodable as Array<String>"},
        {[] { StorageCodec::decodeStrings("not json"); },
         "stored value is not decodable as Array<String>"},
        {[] { StorageCodec::decodeAddresses("[{\"name\":\"x\"}]"); },
         "stored value is not decodable as Array<MailAddress>"},
        {[] {
             StorageCodec::decodeBytes({0xff, 0x00}, "OutboxOperation");
         },
         "stored value is not decodable as OutboxOperation"},
    };
    for (const auto& c : cases) {
        try {
            c.decode();
            ADD_FAILURE() << c.detail;
        } catch (const MailError& e) {
            EXPECT_EQ(e, MailError::storage(StorageFailureKind::other, c.detail));
        }
    }
}

}  // namespace
}  // namespace mailcore
