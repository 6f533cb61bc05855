// A numeric vector travels without our code copying an element: a publish hands the
// application's own buffer to the stack's encoder, and a received array becomes the sample's
// buffer as the stack decoded it. A publish costs at most two heap allocations of ours;
// converting samples to OPC UA values allocates nothing, nor does refilling a sample that owns
// its buffer.
//
// Allocations of ours are counted with a replaced operator new (open62541 allocates with
// malloc, so its own allocations are not counted). The server runs as the m2-sim program, so
// that only the client's allocations are in this process.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include <dlfcn.h>

#include <gtest/gtest.h>
#include <log4cplus/logger.h>
#include <log4cplus/nullappender.h>
#include <open62541/client.h>
#include <open62541/types.h>

#include <duvo/opcua/detail/ps/dataMonitor.hpp>
#include <generated/opcua/m2Types/m2Types.hpp>
#include <m2Types/m2Types.hpp>
#include <vesk/duvo/opcua/opcuaDuvo.hpp>

#include "support/sampleValues.hpp"
#include "support/typeFilter.hpp"
#include "support/waits.hpp"
#include "tool/program.hpp"

namespace {
std::atomic<long> allocations{0};
std::atomic<bool> exhausted{false}; // every allocation fails while set
} // namespace

void* operator new(std::size_t n) {
    allocations.fetch_add(1, std::memory_order_relaxed);
    if (!exhausted.load())
        if (void* p = std::malloc(n ? n : 1)) return p;
    throw std::bad_alloc();
}
void* operator new[](std::size_t n) { return operator new(n); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }

namespace {

/// What the last write request handed to the stack pointed at.
std::atomic<const void*> lastWrittenData{nullptr};
std::atomic<std::size_t> lastWrittenLength{0};
std::atomic<long> writeRequests{0};

} // namespace

// Sees every request our client hands to open62541, then lets the stack send it.
extern "C" UA_StatusCode __UA_Client_AsyncService(UA_Client* client, const void* request,
                                                  const UA_DataType* requestType,
                                                  UA_ClientAsyncServiceCallback callback,
                                                  const UA_DataType* responseType, void* userdata,
                                                  UA_UInt32* requestId) {
    using Service = UA_StatusCode (*)(UA_Client*, const void*, const UA_DataType*, UA_ClientAsyncServiceCallback,
                                      const UA_DataType*, void*, UA_UInt32*);
    static const auto stack = reinterpret_cast<Service>(dlsym(RTLD_NEXT, "__UA_Client_AsyncService"));
    if (requestType == &UA_TYPES[UA_TYPES_WRITEREQUEST]) {
        const auto* write = static_cast<const UA_WriteRequest*>(request);
        if (write->nodesToWriteSize == 1) {
            lastWrittenData = write->nodesToWrite[0].value.value.data;
            lastWrittenLength = write->nodesToWrite[0].value.value.arrayLength;
        }
        ++writeRequests;
    }
    return stack(client, request, requestType, callback, responseType, userdata, requestId);
}

namespace {

using namespace std::chrono_literals;
using Matrix = m2Types::M2DoubleMatrix36;
using MatrixBinding = generated::opcua::m2Types::M2DoubleMatrix36;

/// Counts the allocations made while it lives.
class AllocationCount {
public:
    AllocationCount() : start_(allocations.load()) {}
    long operator()() const { return allocations.load() - start_; }

private:
    long start_;
};

class ZeroCopy : public ::testing::Test {
public:
    /// m2-sim on a free port, so that only the client's allocations are in this process.
    static void SetUpTestSuite() {
        log4cplus::Logger::getRoot().addAppender(log4cplus::SharedAppenderPtr(new log4cplus::NullAppender()));
        sim = new duvo::test::Program(M2_SIM_PATH, {"--port", "0"});
        const std::string line = sim->readLine();
        if (line.rfind("ready opc.tcp://", 0) != 0) throw std::runtime_error("m2-sim did not start: " + line);
        authority = line.substr(std::strlen("ready opc.tcp://"));
    }
    static void TearDownTestSuite() {
        delete sim;
        sim = nullptr;
    }

protected:
    static vesk::duvo::shared_vector<const double> matrix(double seed) {
        vesk::duvo::shared_vector<double> v(36);
        for (std::size_t i = 0; i < v.size(); ++i) v[i] = seed + 0.5 * static_cast<double>(i);
        return vesk::duvo::freeze(std::move(v));
    }

    static inline duvo::test::Program* sim = nullptr;
    static inline std::string authority;
    const std::string uri = "opcua-ps://" + authority + "#ns=1;s=M2DoubleMatrix36";
    std::shared_ptr<vesk::duvo::opcua::detail::OpcUaDuvo> duvo = std::make_shared<vesk::duvo::opcua::detail::OpcUaDuvo>(
        vesk::duvo::Duvo::Properties{{"opc.ps.pollingPeriodMs", "0"}});
};

TEST_F(ZeroCopy,
       publish_hands_the_applications_elements_to_the_encoder_with_at_most_two_allocations_and_they_arrive_whole) {
    auto publisher = duvo->createPublisher<Matrix>(uri);
    auto sample = publisher->createDataEntity();
    const auto value = matrix(1.0);
    sample->setValue0(value);
    publisher->publish(*sample, 2000ms); // connects and warms up

    // Batches, and the cheapest one counts: the client's connectivity check (a read every
    // 500 ms) may fall into any single batch.
    constexpr long perBatch = 50;
    long fewest = -1;
    for (int batch = 0; batch < 8; ++batch) {
        const AllocationCount count;
        for (long i = 0; i < perBatch; ++i) publisher->publish(*sample, 2000ms);
        const long made = count();
        if (fewest < 0 || made < fewest) fewest = made;
        // Every one of them pointed the stack at the application's own elements.
        EXPECT_EQ(lastWrittenData.load(), static_cast<const void*>(value.data()));
        EXPECT_EQ(lastWrittenLength.load(), 36u);
    }
    EXPECT_LE(fewest, 2 * perBatch) << "allocations of ours per publish: " << double(fewest) / perBatch;

    // A zero-timeout publish takes the same path.
    const long requests = writeRequests.load();
    publisher->publish(*sample, 0ms);
    EXPECT_EQ(writeRequests.load(), requests + 1);
    EXPECT_EQ(lastWrittenData.load(), static_cast<const void*>(value.data()));

    // Vectors published so arrive whole at a subscriber.
    auto subscriber = duvo->createSubscriber<Matrix>(uri);
    for (int round = 1; round <= 3; ++round) {
        const auto next = matrix(100.0 * round);
        sample->setValue0(next);
        publisher->publish(*sample, 2000ms);
        EXPECT_TRUE(duvo::test::eventually([&] {
            for (const auto& sample : subscriber->read(0)) {
                const auto got = sample->getValue0();
                if (std::equal(got.begin(), got.end(), next.begin(), next.end())) return true;
            }
            return false;
        })) << "round "
            << round;
    }
}

/// Keeps what a monitor delivers.
struct KeepingSink {
    static constexpr const char* pollerName = "test poller";
    static constexpr bool watchesConnection = false;
    std::vector<std::unique_ptr<MatrixBinding>>* kept;
    void sample(std::unique_ptr<MatrixBinding> s, double) const { kept->push_back(std::move(s)); }
    void conversionFailed(log4cplus::Logger&, const std::string& what, double) const { ADD_FAILURE() << what; }
    void connectionLost() const {}
    void pollTimedOut(log4cplus::Logger&, const std::string&) const {}
    void pollFailed(log4cplus::Logger&, const std::string&) const {}
    void pollThrew() const {}
};

/// A data value as open62541 hands it to a data-change callback: decoded from the wire.
UA_DataValue decodedFromWire(const vesk::duvo::shared_vector<const double>& value) {
    UA_DataValue original;
    UA_DataValue_init(&original);
    UA_Variant_setArray(&original.value, const_cast<double*>(value.data()), value.size(), &UA_TYPES[UA_TYPES_DOUBLE]);
    original.value.storageType = UA_VARIANT_DATA_NODELETE;
    original.hasValue = true;
    UA_ByteString wire = UA_BYTESTRING_NULL;
    if (UA_encodeBinary(&original, &UA_TYPES[UA_TYPES_DATAVALUE], &wire) != UA_STATUSCODE_GOOD)
        throw std::runtime_error("encode");
    UA_DataValue decoded;
    const UA_StatusCode rc = UA_decodeBinary(&wire, &decoded, &UA_TYPES[UA_TYPES_DATAVALUE], nullptr);
    UA_ByteString_clear(&wire);
    if (rc != UA_STATUSCODE_GOOD) throw std::runtime_error("decode");
    return decoded;
}

TEST_F(ZeroCopy, a_received_array_becomes_the_samples_buffer_and_one_the_stack_keeps_is_copied) {
    const auto client = duvo->getClient("opc.tcp://" + authority, duvo->properties());
    std::vector<std::unique_ptr<MatrixBinding>> kept;
    vesk::duvo::opcua::detail::ps::BasicDataMonitor<MatrixBinding, KeepingSink> monitor(
        KeepingSink{&kept}, client, {}, 0, nullptr); // no node: only the notifications given here

    const auto value = matrix(7.0);
    UA_DataValue notification = decodedFromWire(value);
    const void* decodedElements = notification.value.data;
    monitor.onMonitoredDataChange(&notification);
    UA_DataValue_clear(&notification); // what the stack does after the callback

    ASSERT_EQ(kept.size(), 1u);
    const auto received = kept[0]->getValue0();
    EXPECT_EQ(static_cast<const void*>(received.data()), decodedElements);
    EXPECT_TRUE(std::equal(received.begin(), received.end(), value.begin(), value.end()));

    // A borrowed variant (the stack keeps its memory) must not be adopted.
    UA_DataValue borrowed;
    UA_DataValue_init(&borrowed);
    UA_Variant_setArray(&borrowed.value, const_cast<double*>(value.data()), value.size(), &UA_TYPES[UA_TYPES_DOUBLE]);
    borrowed.value.storageType = UA_VARIANT_DATA_NODELETE;
    borrowed.hasValue = true;
    MatrixBinding sample;
    sample.takeOpcUaDataValues(&borrowed);
    EXPECT_NE(static_cast<const void*>(sample.getValue0().data()), static_cast<const void*>(value.data()));
    EXPECT_EQ(borrowed.value.data, static_cast<const void*>(value.data()));
    EXPECT_TRUE(std::equal(value.begin(), value.end(), sample.getValue0().begin()));
}

using vesk::duvo::opcua::detail::binding::BindingOf_t;

template <class T>
class NumericVectorAllocation : public ::testing::Test {};
using NumericVectors =
    m2Types::rebind_t<::testing::Types, duvo::test::Filter<duvo::test::IsNumericVector, m2Types::DataTypes>::type>;
TYPED_TEST_SUITE(NumericVectorAllocation, NumericVectors, duvo::test::TypeNames);

TYPED_TEST(NumericVectorAllocation, publishing_side_borrows_the_buffer) {
    BindingOf_t<TypeParam> sample;
    const auto value = duvo::test::makeValue<TypeParam>(1, 62);
    sample.setValue0(value);

    AllocationCount count;
    const UA_DataValue* dv = sample.getOpcUaDataValues();
    UA_WriteValue write;
    UA_WriteValue_init(&write);
    write.attributeId = UA_ATTRIBUTEID_VALUE;
    write.value = *dv; // shallow, as the publisher does
    EXPECT_EQ(count(), 0);
    EXPECT_EQ(write.value.value.data, value.data()); // the very elements of the application's vector
    EXPECT_EQ(write.value.value.arrayLength, 62u);
}

TYPED_TEST(NumericVectorAllocation, receiving_side_refills_in_place) {
    using E = typename TypeParam::field_type::element_type;
    BindingOf_t<TypeParam> sample;
    std::vector<E> incoming(62);
    UA_DataValue dv;
    UA_DataValue_init(&dv);
    UA_Variant_setArray(&dv.value, incoming.data(), incoming.size(),
                        vesk::duvo::opcua::detail::binding::UaTypeOf<E>::type());
    sample.setOpcUaDataValues(&dv); // first fill allocates the buffer

    AllocationCount count;
    sample.setOpcUaDataValues(&dv);
    sample.setOpcUaDataValues(&dv);
    EXPECT_EQ(count(), 0);

    // A clone costs its object and shares the elements.
    auto clone = sample.clone();
    EXPECT_EQ(count(), 1);
    EXPECT_EQ(clone->getValue0().data(), sample.getValue0().data());
}

TEST(ScalarAllocation, scalars_and_strings_convert_without_allocating) {
    generated::opcua::m2Types::M2Uint64Value0 number;
    generated::opcua::m2Types::M2StringValue0 text;
    text.setValue0(std::string(100, 'x'));
    generated::opcua::m2Types::M2StringVector15 texts;
    texts.setValue0(std::vector<std::string>(15, std::string(40, 'y'))); // the nominal count

    AllocationCount count;
    number.getOpcUaDataValues();
    text.getOpcUaDataValues();
    texts.getOpcUaDataValues();
    EXPECT_EQ(count(), 0);

    // More strings than that need descriptors from the heap; without memory that is
    // std::bad_alloc for the caller, not the end of the program.
    texts.setValue0(std::vector<std::string>(20, std::string(40, 'y')));
    bool refused = false;
    exhausted = true;
    try {
        texts.getOpcUaDataValues();
    } catch (const std::bad_alloc&) {
        refused = true;
    }
    exhausted = false;
    EXPECT_TRUE(refused);
}

} // namespace
