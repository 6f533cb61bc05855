#pragma once
// Where monitors and pollers deliver: the queued store, which also learns of losses through
// empty not-alive samples, or the most-recent-value store, which keeps the last good value.
#include <algorithm>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>

#include <duvo/ps/queue/mapMrvSubscriber.hpp>
#include <duvo/ps/queue/queuedSubscriber.hpp>

namespace vesk::duvo::opcua::detail::ps {

/// Knows which threads are delivering into a store. The application may close a subscriber
/// from its own callback and then destroy it from another thread while that delivery is
/// still unwinding inside the store; the entity's destructor waits for it here. Shared with
/// the deliveries, since a callback may also destroy the entity it was called for.
class DeliveryGate {
public:
    class Pass {
    public:
        explicit Pass(std::shared_ptr<DeliveryGate> gate) : gate_(std::move(gate)) {
            if (gate_ != nullptr) gate_->enter();
        }
        ~Pass() {
            if (gate_ != nullptr) gate_->leave();
        }
        Pass(const Pass&) = delete;
        Pass& operator=(const Pass&) = delete;

    private:
        const std::shared_ptr<DeliveryGate> gate_;
    };

    /// Waits until no other thread delivers; a delivery on this thread finishes by itself.
    void drain() {
        const auto self = std::this_thread::get_id();
        std::unique_lock<std::mutex> lock(mutex_);
        idle_.wait(lock, [&] {
            return std::all_of(threads_.begin(), threads_.end(), [&](std::thread::id id) { return id == self; });
        });
    }

private:
    void enter() {
        std::lock_guard<std::mutex> lock(mutex_);
        threads_.push_back(std::this_thread::get_id());
    }
    void leave() {
        std::lock_guard<std::mutex> lock(mutex_);
        threads_.erase(std::find(threads_.begin(), threads_.end(), std::this_thread::get_id()));
        idle_.notify_all();
    }

    std::mutex mutex_;
    std::condition_variable idle_;
    std::vector<std::thread::id> threads_;
};

template <class T, class ST>
struct QueuedSink {
    static constexpr const char* pollerName = "OpcUaSubscriber for nodes";
    static constexpr bool watchesConnection = true;

    vesk::duvo::ps::queue::QueuedSubscriber<T, ST>* store;
    std::shared_ptr<DeliveryGate> gate;

    void sample(std::unique_ptr<ST> sample, double time) const {
        const DeliveryGate::Pass pass(gate);
        store->newData(std::move(sample), time, 1);
    }
    void empty(double time, long alive) const {
        const DeliveryGate::Pass pass(gate);
        store->newData(nullptr, time, alive);
    }

    void connectionLost() const { empty(0.0, 0); }
    void pollTimedOut(log4cplus::Logger& logger, const std::string& message) const {
        LOG4CPLUS_WARN(logger, message);
        empty(0.0, 0);
    }
    void pollFailed(log4cplus::Logger& logger, const std::string& message) const {
        LOG4CPLUS_ERROR(logger, message);
        empty(0.0, 0);
    }
    void pollThrew() const { empty(0.0, 0); }
    void conversionFailed(log4cplus::Logger& logger, const std::string& what, double time) const {
        LOG4CPLUS_ERROR(logger, "Can't set sample value from OpcUa value: " << what);
        empty(time, 1);
    }
};

template <class T, class ST>
struct MrvSink {
    static constexpr const char* pollerName = "OpcUaMrvDataPoller for nodes";
    static constexpr bool watchesConnection = false;

    vesk::duvo::ps::queue::MapMrvSubscriber<T, ST>* store;
    std::shared_ptr<DeliveryGate> gate;

    void sample(std::unique_ptr<ST> sample, double /*time*/) const {
        const DeliveryGate::Pass pass(gate);
        store->newData(std::move(sample));
    }

    void connectionLost() const {}
    void pollTimedOut(log4cplus::Logger&, const std::string&) const {}
    // The last good value stays current: failures are only logged.
    void pollFailed(log4cplus::Logger& logger, const std::string& message) const { LOG4CPLUS_ERROR(logger, message); }
    void pollThrew() const {}
    // Never a partly filled sample: the value that could not be converted is dropped.
    void conversionFailed(log4cplus::Logger& logger, const std::string& what, double) const {
        LOG4CPLUS_ERROR(logger, "Can't set sample value from OpcUa value: " << what);
    }
};

} // namespace vesk::duvo::opcua::detail::ps
