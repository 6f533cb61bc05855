#include <duvo/ps/queue/mapMrvSubscriber.hpp>

#include <thread>
#include <utility>

#include <vesk/duvo/exceptions.hpp>

namespace vesk::duvo::ps::queue::detail {

MapMrvCore::MapMrvCore(const SampleOps& ops) : samples_(0, Hash{&ops}, Equal{&ops}) {}

MapMrvCore::~MapMrvCore() = default;

void MapMrvCore::newData(std::shared_ptr<void> sample) {
    std::lock_guard<std::mutex> lock(mutex_);
    samples_.erase(sample);
    samples_.insert(std::move(sample));
}

void MapMrvCore::readMostRecent(const std::chrono::milliseconds& timeout, SamplesOut& out) {
    if (closed_.load()) throw IllegalStateException("ZpbMrvSubscriber already closed");
    if (timeout.count() < 0) throw DuvoException("negative timeout given to Mrv subscriber readMostRecent");
    std::this_thread::sleep_for(timeout);
    std::lock_guard<std::mutex> lock(mutex_);
    out.reserve(samples_.size());
    for (const auto& sample : samples_) out.add(sample);
}

} // namespace vesk::duvo::ps::queue::detail
