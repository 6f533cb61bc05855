// The core utilities: times, identifiers, reply-time QoS and URI checks.
#include <chrono>
#include <memory>
#include <regex>
#include <set>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include <vesk/duvo/duvo.hpp>

namespace {

using namespace vesk::duvo;

// Every exception of the middleware is a DuvoException, and that a runtime error.
static_assert(std::is_base_of_v<DuvoException, IllegalStateException> &&
              std::is_base_of_v<DuvoException, TimeoutException> &&
              std::is_base_of_v<std::runtime_error, DuvoException>);

TEST(Util, timestamps_convert_both_ways) {
    EXPECT_EQ(util::timestampFromDouble(1.5), 1500);
    EXPECT_EQ(util::timestampFromDouble(1.9999), 1999);
    EXPECT_DOUBLE_EQ(util::timestampToDouble(1500), 1.5);
    const auto now = util::currentTimeMillis();
    const auto system =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch())
            .count();
    EXPECT_LE(std::abs(system - now), 1000);
}

TEST(Util, uuids_are_version_4_and_distinct) {
    const std::regex form("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}");
    std::set<std::string> seen;
    for (int i = 0; i < 1000; ++i) {
        const std::string id = util::newUUID();
        ASSERT_TRUE(std::regex_match(id, form)) << id;
        seen.insert(id);
    }
    EXPECT_EQ(seen.size(), 1000u);
}

TEST(Util, reply_time_is_the_last_given_or_int32_max) {
    std::vector<std::shared_ptr<rr::qos::QoS>> qos;
    EXPECT_EQ(util::getReplyTimeQoS(qos), 2147483647L);
    qos.push_back(std::make_shared<rr::qos::ReplyTime>(std::chrono::milliseconds(500)));
    qos.push_back(std::make_shared<rr::qos::ReplyTime>(std::chrono::milliseconds(250)));
    EXPECT_EQ(util::getReplyTimeQoS(qos), 250L);
}

TEST(Util, check_uri_names_the_uri_and_the_fault) {
    EXPECT_NO_THROW(util::checkUri("opcua-ps://localhost:4840#ns=1;s=M2FloatVector6", false, true));
    EXPECT_NO_THROW(util::checkUri("opcua-ps://10.0.0.1/path", true, false));
    struct Bad {
        const char* uri;
        bool needsPath, needsFragment;
        const char* fault;
    };
    for (const Bad& bad : std::vector<Bad>{
             {"no scheme at all", false, false, "invalid URI"},
             {"opcua-ps:#ns=1;i=5", false, true, "no host"},
             {"opcua-ps:///x#i=1", false, true, "no host"},
             {"opcua-ps://h:x#i=1", false, true, "invalid URI"},
             {"opcua-ps://host:4840", false, true, "no fragment"},
             {"opcua-ps://host:4840#", false, true, "no fragment"},
             {"opcua-ps://host:4840#x", true, true, "no path"},
             {"opcua-ps://host:4840#a%zz", false, true, "invalid URI"},
         }) {
        try {
            util::checkUri(bad.uri, bad.needsPath, bad.needsFragment);
            ADD_FAILURE() << "accepted " << bad.uri;
        } catch (const std::invalid_argument& e) {
            const std::string what = e.what();
            EXPECT_NE(what.find(bad.fault), std::string::npos) << what;
            EXPECT_NE(what.find(std::string("Uri:") + bad.uri), std::string::npos) << what;
        }
    }
}

TEST(DataEventFilter, copies_its_instance) {
    struct Sample : ps::DataEntity<Sample> {
        int key = 0;
        std::unique_ptr<Sample> clone() const override { return std::make_unique<Sample>(*this); }
        bool keyEquals(const Sample& o) const override { return key == o.key; }
        std::unique_ptr<Sample> cloneKey() const override { return clone(); }
        bool hasKey() const override { return true; }
    };
    auto instance = std::make_unique<Sample>();
    instance->key = 7;
    ps::DataEventFilter<Sample> filter(std::move(instance), ps::InstanceState::Alive, {ps::InstanceUpdated});
    ps::DataEventFilter<Sample> copy = filter;
    ASSERT_NE(copy.getInstance(), nullptr);
    EXPECT_NE(copy.getInstance(), filter.getInstance());
    EXPECT_EQ(copy.getInstance()->key, 7);
    EXPECT_EQ(copy.getInstanceState(), ps::InstanceState::Alive);
    EXPECT_EQ(copy.getInstanceEvents().count(ps::InstanceUpdated), 1u);
    EXPECT_EQ(ps::DataEventFilter<Sample>().getInstanceState(), ps::InstanceState::Any);
}

} // namespace
