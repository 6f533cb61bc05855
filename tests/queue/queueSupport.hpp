#pragma once
// Shorthands shared by the queue tests, and a keyed sample type for the instance cases: no
// m2Types structure has a key.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <vesk/duvo/ps/dataEntity.hpp>
#include <vesk/duvo/util.hpp>

#include <duvo/ps/queue/keyHash.hpp>
#include <duvo/ps/queue/mapMrvSubscriber.hpp>
#include <duvo/ps/queue/queuedSubscriber.hpp>
#include <generated/opcua/m2Types/m2Types.hpp>

#include "support/waits.hpp"

namespace duvo::test {

/// The abstract type, as a module would declare it: a key field and a value.
class Keyed : public vesk::duvo::ps::DataEntity<Keyed> {
public:
    virtual int getKey() const = 0;
    virtual int getValue() const = 0;
};

/// Its binding class; a second instantiation stands for another middleware's binding.
template <int Binding>
class KeyedImpl : public Keyed {
public:
    KeyedImpl(int key = 0, int value = 0) : key_(key), value_(value) {}
    std::unique_ptr<Keyed> clone() const override { return std::make_unique<KeyedImpl>(*this); }
    bool keyEquals(const Keyed& other) const override { return other.getKey() == key_; }
    std::unique_ptr<Keyed> cloneKey() const override { return std::make_unique<KeyedImpl>(key_); }
    bool hasKey() const override { return true; }
    int getKey() const override { return key_; }
    int getValue() const override { return value_; }
    void copy(const Keyed& other) { *this = KeyedImpl(other.getKey(), other.getValue()); }

private:
    int key_;
    int value_;
};

using KeyedBinding = KeyedImpl<0>;
using ForeignKeyed = KeyedImpl<1>;

} // namespace duvo::test

template <>
struct vesk::duvo::ps::queue::KeyHash<::duvo::test::Keyed> {
    std::size_t operator()(const ::duvo::test::Keyed& s) const noexcept { return std::hash<int>{}(s.getKey()); }
};

namespace duvo::test {

namespace ps = vesk::duvo::ps;
namespace queue = vesk::duvo::ps::queue;
using ps::InstanceState;

using Int32 = m2Types::M2Int32Value0;
using Int32Binding = generated::opcua::m2Types::M2Int32Value0;
using KeylessSubscriber = queue::QueuedSubscriber<Int32, Int32Binding>;
using KeyedSubscriber = queue::QueuedSubscriber<Keyed, KeyedBinding>;
using KeyedEvents = std::vector<std::shared_ptr<ps::DataEvent<Keyed>>>;
using Filter = ps::DataEventFilter<Keyed>;
using EventCallback = KeyedSubscriber::EventCallback;
using NotifyCallback = KeyedSubscriber::NotifyCallback;

inline std::unique_ptr<Int32Binding> int32(int value) {
    auto sample = std::make_unique<Int32Binding>();
    sample->setValue0(value);
    return sample;
}

inline std::unique_ptr<Keyed> keyed(int key, int value) { return std::make_unique<KeyedBinding>(key, value); }

inline double nowSeconds() { return vesk::duvo::util::timestampToDouble(vesk::duvo::util::currentTimeMillis()); }

inline Filter filterFor(int key, InstanceState state = InstanceState::Any, std::set<ps::InstanceEvent> events = {}) {
    return Filter(keyed(key, 0), state, std::move(events));
}

inline Filter eventsFilter(std::set<ps::InstanceEvent> events) {
    return Filter(nullptr, InstanceState::Any, std::move(events));
}

/// Takes every queued event, without waiting.
template <class T, class ST>
std::vector<std::shared_ptr<ps::DataEvent<T>>> drainEvents(queue::QueuedSubscriber<T, ST>& s) {
    std::vector<std::shared_ptr<ps::DataEvent<T>>> events;
    s.readDataEvents(ps::DataEventFilter<T>(), events, 0, 0ms);
    return events;
}

/// The values of samples (or of the events' samples) in order.
template <class Samples>
std::vector<int> values(const Samples& samples) {
    std::vector<int> v;
    for (const auto& s : samples) {
        if constexpr (std::is_same_v<std::decay_t<decltype(*s)>, Int32>)
            v.push_back(s->getValue0());
        else if constexpr (std::is_same_v<std::decay_t<decltype(*s)>, Keyed>)
            v.push_back(s->getValue());
        else
            v.push_back(s->getData()->getValue());
    }
    return v;
}

/// Delivers keyed samples from another thread after 100 ms.
class LateSource {
public:
    LateSource(KeyedSubscriber& sub, int key, int firstValue, int count = 1)
        : thread_([&sub, key, firstValue, count] {
              std::this_thread::sleep_for(100ms);
              for (int i = 0; i < count; ++i) sub.newData(keyed(key, firstValue + i), nowSeconds(), 1);
          }) {}
    ~LateSource() { thread_.join(); }

private:
    std::thread thread_;
};

} // namespace duvo::test
