// Publishing every type to the simulator, and every way a publish can fail.
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <duvo/opcua/detail/ps/publisher.hpp>
#include <generated/opcua/m2Types/m2Types.hpp>
#include <vesk/duvo/sim/faultProxy.hpp>

#include "support/sampleValues.hpp"
#include "support/simulatorFixture.hpp"

namespace {

using namespace std::chrono_literals;
using vesk::duvo::opcua::detail::binding::BindingOf_t;
using vesk::duvo::opcua::detail::ps::EntityState;
using vesk::duvo::opcua::detail::ps::OpcUaPublisher;
using vesk::duvo::opcua::detail::ps::OpcUaPublisherDelegator;

/// What the entry point does: the entity behind its delegator, marked INITIALIZED.
template <class T>
std::unique_ptr<OpcUaPublisherDelegator<T, BindingOf_t<T>>> makePublisher(
    const std::string& uri, const std::shared_ptr<vesk::duvo::opcua::detail::OpcUaDuvo>& duvo) {
    auto publisher = std::make_shared<OpcUaPublisher<T, BindingOf_t<T>>>(uri, std::vector<std::shared_ptr<vesk::duvo::ps::qos::QoS>>{},
                                                                           duvo->properties(), duvo);
    publisher->setState(EntityState::Initialized);
    return std::make_unique<OpcUaPublisherDelegator<T, BindingOf_t<T>>>(publisher);
}

/// The value the server holds for T, read into a fresh sample.
template <class T>
BindingOf_t<T> serverValue(vesk::duvo::sim::Simulator& sim) {
    const vesk::duvo::sim::OwnedVariant value = sim.read(T::typeName);
    UA_DataValue dv;
    UA_DataValue_init(&dv);
    dv.value = *value;
    dv.hasValue = true;
    BindingOf_t<T> sample;
    sample.setOpcUaDataValues(&dv);
    return sample;
}

template <class T>
class PublishEveryType : public duvo::test::SimulatorSuite {};
using AllTypes = m2Types::rebind_t<::testing::Types, m2Types::DataTypes>;
TYPED_TEST_SUITE(PublishEveryType, AllTypes, duvo::test::TypeNames);

TYPED_TEST(PublishEveryType, reaches_the_node_with_and_without_source_time) {
    auto publisher = makePublisher<TypeParam>(this->psUri(TypeParam::typeName), this->duvo);
    std::shared_ptr<TypeParam> sample = publisher->createDataEntity();
    sample->setValue0(duvo::test::makeValue<TypeParam>(21));
    publisher->publish(*sample, 2000ms);
    EXPECT_TRUE(serverValue<TypeParam>(*this->simulator).getValue0() == sample->getValue0());

    sample->setValue0(duvo::test::makeValue<TypeParam>(22));
    publisher->publish(1.5, *sample, 2000ms);
    EXPECT_TRUE(serverValue<TypeParam>(*this->simulator).getValue0() == sample->getValue0());
    const vesk::duvo::sim::SourceTime stamped = this->simulator->sourceTime(TypeParam::typeName);
    EXPECT_TRUE(stamped.present);
    EXPECT_EQ(stamped.timestamp, UA_DATETIME_UNIX_EPOCH + 15000000);
    EXPECT_EQ(stamped.picoseconds, 0);
    EXPECT_EQ(this->simulator->writeCount(TypeParam::typeName), 2u);

    // One sample published from several threads at once, waiting and not: publishing shares
    // no state, not even the sample's string descriptors (run under TSan).
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 10; ++i) publisher->publish(*sample, i % 2 ? 0ms : 2000ms);
        });
    for (auto& thread : threads) thread.join();
    EXPECT_TRUE(this->simulator->waitForWrites(TypeParam::typeName, 42, 5000ms));
    EXPECT_TRUE(serverValue<TypeParam>(*this->simulator).getValue0() == sample->getValue0());
}

TEST(SourceTime, splits_seconds_into_ticks_and_picoseconds) {
    using vesk::duvo::opcua::detail::ps::sourceTimeOf;
    EXPECT_EQ(sourceTimeOf(1.5).dateTime, 116444736000000000LL + 15000000);
    EXPECT_EQ(sourceTimeOf(1.5).picoseconds, 0);
    EXPECT_EQ(sourceTimeOf(0.0).dateTime, 116444736000000000LL);
    const auto t = sourceTimeOf(1700000000.25);
    EXPECT_EQ(t.dateTime, 116444736000000000LL + 17000000002500000LL);
}

class PublisherTest : public duvo::test::SimulatorSuite {
protected:
    using T = m2Types::M2Int32Value0;
    using ST = generated::opcua::m2Types::M2Int32Value0;

    std::string uri(const std::string& variable = "M2Int32Value0") const { return psUri(variable); }
};

TEST_F(PublisherTest, refused_writes_name_the_node_and_status) {
    simulator->setWritable("M2Int32Value0", false);
    auto publisher = makePublisher<T>(uri(), duvo);
    ST sample;
    const std::string id = "OpcUaPublisher for nodes ns=1;s=M2Int32Value0";
    try {
        publisher->publish(sample, 2000ms);
        FAIL() << "write to a read-only node accepted";
    } catch (const std::runtime_error& e) {
        EXPECT_EQ(std::string(e.what()),
                  id + ": failed to write to node ns=1;s=M2Int32Value0: BadNotWritable Uri:" + uri());
    }
    simulator->setWritable("M2Int32Value0", true);
    EXPECT_NO_THROW(publisher->publish(sample, 2000ms)); // a failed publish leaves it usable

    // An Int32 sample to a Double array node.
    auto wrongNode = makePublisher<T>(uri("M2DoubleVector6"), duvo);
    try {
        wrongNode->publish(sample, 2000ms);
        FAIL() << "write of the wrong type accepted";
    } catch (const std::runtime_error& e) {
        EXPECT_EQ(std::string(e.what()), "OpcUaPublisher for nodes ns=1;s=M2DoubleVector6: failed to write to node "
                                         "ns=1;s=M2DoubleVector6: BadTypeMismatch Uri:" +
                                             uri("M2DoubleVector6"));
    }
}

TEST_F(PublisherTest, uri_faults_are_refused_at_construction) {
    const std::vector<std::shared_ptr<vesk::duvo::ps::qos::QoS>> qos;
    const std::string rr = rrUri("PsRpcSetpower", "RPC_SetPower");
    try {
        OpcUaPublisher<T, ST> p(rr, qos, {}, duvo);
        FAIL();
    } catch (const std::invalid_argument& e) {
        EXPECT_EQ(std::string(e.what()), "URI is not publish/subscribe URI uri:" + rr);
    }
    const std::string two = uri() + ",ns=1;s=M2Int32Value0";
    try {
        OpcUaPublisher<T, ST> p(two, qos, {}, duvo);
        FAIL();
    } catch (const std::invalid_argument& e) {
        EXPECT_EQ(std::string(e.what()),
                  "number of OPC-UA nodes in the URI (2) does not match the number of fields in the data type (1) Uri:" +
                      two);
    }
    const std::string none = uri().substr(0, uri().find('#'));
    EXPECT_THROW((OpcUaPublisher<T, ST>(none, qos, {}, duvo)), std::invalid_argument);
}

TEST_F(PublisherTest, state_checks_before_init_and_after_close) {
    const std::vector<std::shared_ptr<vesk::duvo::ps::qos::QoS>> qos;
    auto raw = std::make_shared<OpcUaPublisher<T, ST>>(uri(), qos, duvo->properties(), duvo);
    ST sample;
    try {
        raw->publish(sample, 1000ms);
        FAIL();
    } catch (const vesk::duvo::IllegalStateException& e) {
        EXPECT_EQ(std::string(e.what()), "Entity is not INITIALIZED. Uri:" + uri());
    }
    raw->setState(EntityState::Initialized);
    raw->close();
    raw->close(); // harmless
    try {
        raw->createDataEntity();
        FAIL();
    } catch (const vesk::duvo::IllegalStateException& e) {
        EXPECT_EQ(std::string(e.what()), "Entity closed. Uri:" + uri());
    }
    EXPECT_THROW(raw->createInstancePublisher(sample), vesk::duvo::IllegalStateException);
}

TEST_F(PublisherTest, zero_timeout_returns_at_once_even_when_the_server_is_silent) {
    vesk::duvo::sim::FaultProxy proxy(simulator->endpoint());
    auto publisher = makePublisher<T>(psUri("M2Int32Value0", proxy.endpoint()), duvo);
    {
        ST warmUp; // connect first, so that the write is sent rather than queued
        warmUp.setValue0(1);
        publisher->publish(warmUp, 2000ms);
    }
    proxy.blackhole();
    {
        auto sample = std::make_unique<ST>();
        sample->setValue0(77);
        publisher->publish(*sample, 0ms); // must not wait
    } // the sample is gone before the request could be answered
    EXPECT_TRUE(simulator->waitForWrites("M2Int32Value0", 2, 2000ms));
    EXPECT_EQ(serverValue<T>(*simulator).getValue0(), 77);

    ST late;
    try {
        publisher->publish(late, 300ms);
        FAIL() << "publish without a reply succeeded";
    } catch (const vesk::duvo::TimeoutException& e) {
        EXPECT_STREQ(e.what(), "timeout when publishing");
    }
    proxy.passThrough();
}

TEST_F(PublisherTest, instance_publishers_close_alone_or_with_their_publisher) {
    auto publisher = makePublisher<T>(uri(), duvo);
    ST instance;
    instance.setValue0(5);
    auto first = publisher->createInstancePublisher(instance);
    auto second = publisher->createInstancePublisher(instance);

    std::shared_ptr<T> copy = first->createDataEntity();
    EXPECT_EQ(copy->getValue0(), 5);
    copy->setValue0(6);
    EXPECT_EQ(first->createDataEntity()->getValue0(), 5); // the stored instance is untouched

    first->close();
    try {
        first->publish(instance, 1000ms);
        FAIL();
    } catch (const vesk::duvo::IllegalStateException& e) {
        EXPECT_STREQ(e.what(), "InstanceOpcUaPublisher closed");
    }
    EXPECT_NO_THROW(publisher->publish(instance, 2000ms));
    EXPECT_NO_THROW(second->publish(instance, 2000ms));

    // One destroyed before the publisher closes is never reached by the close.
    auto third = publisher->createInstancePublisher(instance);
    third.reset();
    publisher->close();
    EXPECT_THROW(second->publish(instance, 1000ms), vesk::duvo::IllegalStateException);
}

TEST_F(PublisherTest, foreign_samples_are_refused) {
    struct Foreign : T {
        std::unique_ptr<T> clone() const override { return std::make_unique<Foreign>(); }
        bool keyEquals(const T&) const override { return false; }
        std::unique_ptr<T> cloneKey() const override { return clone(); }
        bool hasKey() const override { return false; }
        int getValue0() const override { return 1; }
        void setValue0(int) override {}
    };
    auto publisher = makePublisher<T>(uri(), duvo);
    Foreign foreign;
    EXPECT_THROW(publisher->publish(foreign, 1000ms), vesk::duvo::IllegalStateException);
    EXPECT_EQ(simulator->writeCount("M2Int32Value0"), 0u);
}

} // namespace
