// Entity URIs: schemes, endpoints, node ids and their text form.
#include <gtest/gtest.h>

#include <boost/url/encode.hpp>
#include <boost/url/rfc/unreserved_chars.hpp>

#include <vesk/duvo/opcua/uriHelper.hpp>

namespace {

using vesk::duvo::opcua::UriHelper;
using vesk::duvo::opcua::detail::getNodeIds;
using vesk::duvo::opcua::detail::nodeIdToString;

std::vector<std::string> idTexts(const std::string& uri) {
    std::vector<std::string> texts;
    for (const auto& id : getNodeIds(uri)) texts.push_back(nodeIdToString(*id));
    return texts;
}

struct GoodUri {
    std::string uri;
    std::vector<std::string> ids;
};

TEST(Uri, good_fragments_give_their_node_ids_in_order_and_any_id_text_round_trips) {
    const std::vector<GoodUri> table = {
        {"opcua-ps://127.0.0.1:4840#ns=1;s=M2FloatVector6", {"ns=1;s=M2FloatVector6"}},
        {"opcua-rr://host/path#ns=1;s=Obj,ns=1;s=Obj.M", {"ns=1;s=Obj", "ns=1;s=Obj.M"}},
        {"opcua-ps://h#i=2258", {"i=2258"}},
        {"opcua-ps://h#ns=1;s=a%2Cb,i=1", {"ns=1;s=a,b", "i=1"}},
        {"opcua-ps://h#ns=1;s=with%20space%20%22q%22;=", {"ns=1;s=with space \"q\";="}},
        {"opcua-ps://h#ns=2;s=Gr%C3%B6%C3%9Fe%E2%82%AC",
         {"ns=2;s=Gr\xC3\xB6\xC3\x9F"
          "e\xE2\x82\xAC"}},
        {"opcua-ps://h#ns=1;g=09087e75-8e5e-499b-954f-f2a9603db28a", {"ns=1;g=09087e75-8e5e-499b-954f-f2a9603db28a"}},
        {"opcua-ps://h#ns=1;b=b3BlbjYyNTQxIQ==", {"ns=1;b=b3BlbjYyNTQxIQ=="}},
    };
    for (const auto& row : table) EXPECT_EQ(idTexts(row.uri), row.ids) << row.uri;

    // Any node id's text, percent-encoded into a fragment, comes back as it was.
    for (const std::string text :
         {"i=13", "ns=10;s=Hello:World", "ns=1;s=a,b;c=d \"e\" #%", "ns=3;s=\xE6\x97\xA5\xE6\x9C\xAC",
          "ns=1;s=\xF0\x9F\x99\x82 smile", "ns=1;g=09087e75-8e5e-499b-954f-f2a9603db28a"}) {
        const std::string uri = "opcua-ps://h#" + boost::urls::encode(text, boost::urls::unreserved_chars);
        EXPECT_EQ(idTexts(uri), std::vector<std::string>{text}) << uri;
    }
}

TEST(Uri, bad_fragments_are_rejected_naming_the_uri_and_the_part) {
    const std::vector<std::pair<std::string, std::string>> table = {
        {"opcua-ps://h#", "\"\""},                   // empty id
        {"opcua-ps://h#i=1,,i=2", "\"\""},           // empty id between commas
        {"opcua-ps://h#i=1,", "\"\""},               // trailing comma
        {"opcua-ps://h#ns=1;x=7", "ns=1;x=7"},       // unparsable
        {"opcua-ps://h#ns=1;s=%FF", "ns=1;s=%FF"},   // decodes to bytes that are not UTF-8
        {"opcua-ps://h#ns=1;s=%zz", "opcua-ps://h"}, // bad percent-encoding: the URI does not parse
        {"opcua-ps://h#ns=1;s=a b", "opcua-ps://h"}, // a raw space: the URI does not parse
        {"opcua-ps://h", "opcua-ps://h"},            // no fragment at all
    };
    for (const auto& [uri, part] : table) {
        try {
            getNodeIds(uri);
            ADD_FAILURE() << "accepted " << uri;
        } catch (const std::invalid_argument& e) {
            EXPECT_NE(std::string(e.what()).find(uri), std::string::npos) << e.what();
            EXPECT_NE(std::string(e.what()).find(part), std::string::npos) << e.what();
        }
    }
}

TEST(Uri, schemes_and_endpoints) {
    EXPECT_TRUE(UriHelper::isPubSubUri("opcua-ps://h#i=1"));
    EXPECT_TRUE(UriHelper::isPubSubUri("OPCUA-PS://h#i=1"));
    EXPECT_TRUE(UriHelper::isPubSubUri("opcua-ps://h#bad fragment")); // the scheme alone decides
    EXPECT_FALSE(UriHelper::isPubSubUri("opcua-rr://h#i=1,i=2"));
    EXPECT_FALSE(UriHelper::isPubSubUri("opc.tcp://h:4840"));
    EXPECT_FALSE(UriHelper::isPubSubUri("no scheme"));
    EXPECT_TRUE(UriHelper::isReqResUri("opcua-rr://h#i=1,i=2"));
    EXPECT_FALSE(UriHelper::isReqResUri("opcua-ps://h#i=1"));

    EXPECT_EQ(UriHelper::endpointOf("opcua-ps://127.0.0.1:4840#i=1"), "opc.tcp://127.0.0.1:4840");
    EXPECT_EQ(UriHelper::endpointOf("opcua-rr://user@plc.local:4841/ua/server?q=1#i=1,i=2"),
              "opc.tcp://user@plc.local:4841/ua/server");
    EXPECT_THROW(UriHelper::endpointOf("opcua-ps://h:port#i=1"), std::invalid_argument);
}

} // namespace
