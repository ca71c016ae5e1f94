#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <unordered_set>

#include "MailCore/Common/MailError.h"
#include "MailCore/Transport/TransportTypes.h"

namespace mailcore {
namespace {

TEST(TransportTypesTest, EndpointCodesByFieldNameAndRejectsBadForms) {
    const ServerEndpoint endpoint{"imap.example.com", 993, TransportSecurity::implicitTLS};
    const std::string text = encodeJson(toJson(endpoint));
    EXPECT_EQ(text, R"({"host":"imap.example.com","port":993,"security":"implicitTLS"})");
    EXPECT_EQ(serverEndpointFromJson(parseJson(text)), endpoint);
    for (const char* bad : {"[]", R"({"host":"h","port":70000,"security":"startTLS"})",
                            R"({"host":"h","port":-1,"security":"startTLS"})",
                            R"({"host":"h","port":25,"security":"plain"})",
                            R"({"host":1,"port":25,"security":"startTLS"})",
                            R"({"port":25,"security":"startTLS"})"}) {
        try {
            serverEndpointFromJson(parseJson(bad));
            ADD_FAILURE() << bad;
        } catch (const MailError& e) {
            EXPECT_EQ(e, MailError::protocolViolation(ProtocolIssueKind::invalidInput,
                                                      "invalid server endpoint"));
        }
    }
    std::unordered_set<ServerEndpoint> set{
        endpoint, endpoint, {"imap.example.com", 143, TransportSecurity::startTLS}};
    EXPECT_EQ(set.size(), 2u);
}

}  // namespace
}  // namespace mailcore
