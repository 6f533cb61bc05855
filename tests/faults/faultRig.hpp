#pragma once
// What the fault suites share: entities of every kind on one endpoint, a device that keeps
// writing, a record of what each queued subscriber saw, and figures printed at the end.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <future>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>
#include <open62541/types.h>

#include <duvo/opcua/detail/ps/basePubSub.hpp>
#include <duvo/opcua/detail/ps/mrvSubscriber.hpp>
#include <duvo/opcua/detail/ps/publisher.hpp>
#include <duvo/opcua/detail/ps/subscriber.hpp>
#include <generated/opcua/m2Types/m2Types.hpp>
#include <generated/opcua/m2Types/rpc.hpp>

#include "support/prelude.hpp"
#include "support/simulatorFixture.hpp"

namespace duvo::test {

using Clock = std::chrono::steady_clock;
using vesk::duvo::opcua::detail::ps::EntityState;
using vesk::duvo::opcua::detail::ps::OpcUaMrvSubscriber;
using vesk::duvo::opcua::detail::ps::OpcUaPublisher;
using vesk::duvo::opcua::detail::ps::OpcUaSubscriber;
/// The device's value is T: subscribers receive it, nobody publishes to it.
using ST = generated::opcua::m2Types::M2Int32Value0;
/// The application's value: publishers write it.
using P = m2Types::M2FloatVector6;
using PT = generated::opcua::m2Types::M2FloatVector6;
using AsyncClient = generated::opcua::m2Types::PsRpcSetpowerAsyncImpl;
using SyncClient = generated::opcua::m2Types::PsRpcSetpowerSyncImpl;

/// An entity made from the plug-in's classes, initialised as the entry points leave it: unlike
/// the typed helpers, entities with different properties can share one middleware's client.
template <class Entity>
std::shared_ptr<Entity> make(const std::string& uri, const Properties& properties,
                             const std::shared_ptr<OpcUaDuvo>& duvo) {
    auto entity = std::make_shared<Entity>(uri, PsQoS{}, properties, duvo);
    entity->setState(EntityState::Initialized);
    return entity;
}

/// A refused request: what it said, whether as a timeout, and how long it took.
struct Refusal {
    std::string text;
    double ms = 0;
    bool refused = false;
    bool timedOut = false;
};

template <class F>
Refusal timed(F request) {
    Refusal out;
    const auto start = Clock::now();
    try {
        request();
    } catch (const std::exception& e) {
        out.text = e.what();
        out.refused = true;
        out.timedOut = dynamic_cast<const vesk::duvo::TimeoutException*>(&e) != nullptr;
    }
    out.ms = msSince(start);
    return out;
}

/// Measured times, printed as count, median and worst when it goes: figures, never assertions.
class Figures {
public:
    explicit Figures(std::string name) : name_(std::move(name)) {}
    ~Figures() {
        if (values_.empty()) return;
        std::sort(values_.begin(), values_.end());
        std::printf("[figures] %-44s n=%-3zu median %8.1f ms  worst %8.1f ms\n", name_.c_str(), values_.size(),
                    values_[values_.size() / 2], values_.back());
        std::fflush(stdout);
    }
    void add(double ms) {
        std::lock_guard<std::mutex> lock(mutex_);
        values_.push_back(ms);
    }

private:
    std::string name_;
    std::mutex mutex_;
    std::vector<double> values_;
};

/// Writes an increasing counter to M2Int32Value0 every 2 ms, as a device would; writes while
/// the server is away fail and are skipped.
class Device {
public:
    explicit Device(vesk::duvo::sim::Simulator& sim)
        : loop_([this, &sim] {
              std::int32_t value = next_.fetch_add(1);
              UA_Variant v;
              UA_Variant_setScalar(&v, &value, &UA_TYPES[UA_TYPES_INT32]);
              try {
                  sim.write("M2Int32Value0", v);
              } catch (const std::exception&) {
                  // the server is stopped
              }
              std::this_thread::sleep_for(2ms);
          }) {}
    /// Every value written from now on is at least this.
    std::int32_t mark() const { return next_.load(); }

private:
    std::atomic<std::int32_t> next_{1}; // before the loop that uses it
    Loop loop_;
};

/// Everything one queued subscriber delivered, read as events (valid and not alive alike).
class Watched {
public:
    Watched(std::string name, std::shared_ptr<vesk::duvo::ps::Subscriber<T>> subscriber)
        : name(std::move(name)), subscriber_(std::move(subscriber)) {}

    /// Takes what is queued now, waiting at most `wait` for the first event.
    void pump(std::chrono::milliseconds wait = 0ms) {
        std::vector<std::shared_ptr<DataEvent<T>>> events;
        subscriber_->readDataEvents(DataEventFilter<T>(), events, 100000, wait);
        for (const auto& event : events) {
            if (event->getInstanceState() == InstanceState::NotAlive) {
                ++notAlive;
                if (event->hasValidData()) ++notAliveWithData;
            } else if (event->hasValidData()) {
                last = std::max(last, event->getData()->getValue0());
                ++samples;
            } else {
                ++emptyAlive;
            }
        }
    }

    /// Waits until a sample of at least `value` arrives; false when the time is up.
    bool waitForValue(std::int32_t value, Clock::time_point until) {
        while (last < value) {
            if (Clock::now() >= until) return false;
            pump(20ms);
        }
        return true;
    }

    /// Waits until `count` not-alive events were seen in all; false when the time is up.
    bool waitForNotAlive(int count, Clock::time_point until) {
        while (notAlive < count) {
            if (Clock::now() >= until) return false;
            pump(20ms);
        }
        return true;
    }

    const std::string name;
    int notAlive = 0;
    int notAliveWithData = 0;
    int emptyAlive = 0;
    long samples = 0;
    std::int32_t last = 0;

private:
    std::shared_ptr<vesk::duvo::ps::Subscriber<T>> subscriber_;
};

/// Counts outcomes of a stream of requests and keeps every text it was refused with.
class Outcomes {
public:
    void ok() {
        ++done_;
        std::lock_guard<std::mutex> lock(mutex_);
        lastOk_ = Clock::now();
    }
    void failed(const std::string& text) {
        ++failed_;
        std::lock_guard<std::mutex> lock(mutex_);
        if (std::find(texts_.begin(), texts_.end(), text) == texts_.end()) texts_.push_back(text);
    }
    long done() const { return done_.load(); }
    long failures() const { return failed_.load(); }
    /// Waits for a success after `since`; the time from `since` to it in ms, or -1.
    double firstOkAfter(Clock::time_point since, Clock::time_point until) const {
        while (Clock::now() < until) {
            {
                std::lock_guard<std::mutex> lock(mutex_);
                if (lastOk_ > since) return std::chrono::duration<double, std::milli>(lastOk_ - since).count();
            }
            std::this_thread::sleep_for(2ms);
        }
        return -1;
    }
    std::vector<std::string> texts() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return texts_;
    }

private:
    std::atomic<long> done_{0};
    std::atomic<long> failed_{0};
    mutable std::mutex mutex_;
    Clock::time_point lastOk_{};
    std::vector<std::string> texts_;
};

inline PT applicationSample(int seed) {
    vesk::duvo::shared_vector<float> v(6);
    for (int i = 0; i < 6; ++i) v[i] = static_cast<float>(seed + i);
    PT sample;
    sample.setValue0(vesk::duvo::freeze(std::move(v)));
    return sample;
}

} // namespace duvo::test
