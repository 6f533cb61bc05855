#include <duvo/opcua/detail/ps/sinks.hpp>

#include <algorithm>

namespace vesk::duvo::opcua::detail::ps {

void DeliveryGate::drain() {
    const auto self = std::this_thread::get_id();
    std::unique_lock<std::mutex> lock(mutex_);
    idle_.wait(lock, [&] {
        return std::all_of(threads_.begin(), threads_.end(), [&](std::thread::id id) { return id == self; });
    });
}

void DeliveryGate::enter() {
    std::lock_guard<std::mutex> lock(mutex_);
    threads_.push_back(std::this_thread::get_id());
}

void DeliveryGate::leave() {
    std::lock_guard<std::mutex> lock(mutex_);
    threads_.erase(std::find(threads_.begin(), threads_.end(), std::this_thread::get_id()));
    idle_.notify_all();
}

void QueuedStoreSink::sample(OwnedSample sample, double time) const {
    const DeliveryGate::Pass pass(gate_);
    store_->deliver(std::move(sample), time, 1);
}

void QueuedStoreSink::empty(double time, long alive) const {
    const DeliveryGate::Pass pass(gate_);
    store_->deliver(OwnedSample(nullptr, nullptr), time, alive);
}

void QueuedStoreSink::connectionLost() const { empty(0.0, 0); }

void QueuedStoreSink::pollTimedOut(log4cplus::Logger& logger, const std::string& message) const {
    LOG4CPLUS_WARN(logger, message);
    empty(0.0, 0);
}

void QueuedStoreSink::pollFailed(log4cplus::Logger& logger, const std::string& message) const {
    LOG4CPLUS_ERROR(logger, message);
    empty(0.0, 0);
}

void QueuedStoreSink::pollThrew() const { empty(0.0, 0); }

void QueuedStoreSink::conversionFailed(log4cplus::Logger& logger, const std::string& what, double time) const {
    LOG4CPLUS_ERROR(logger, "Can't set sample value from OpcUa value: " << what);
    empty(time, 1);
}

void MrvStoreSink::sample(OwnedSample sample, double /*time*/) const {
    const DeliveryGate::Pass pass(gate_);
    store_->newData(std::shared_ptr<void>(std::move(sample)));
}

void MrvStoreSink::pollFailed(log4cplus::Logger& logger, const std::string& message) const {
    LOG4CPLUS_ERROR(logger, message);
}

void MrvStoreSink::conversionFailed(log4cplus::Logger& logger, const std::string& what, double) const {
    LOG4CPLUS_ERROR(logger, "Can't set sample value from OpcUa value: " << what);
}

} // namespace vesk::duvo::opcua::detail::ps
