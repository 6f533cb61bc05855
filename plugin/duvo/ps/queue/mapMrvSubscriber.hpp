#pragma once
#include <atomic>
#include <chrono>
#include <cstddef>
#include <memory>
#include <mutex>
#include <unordered_set>
#include <vector>

#include <vesk/duvo/ps/subscriber.hpp>

#include <duvo/ps/queue/dataEventImpl.hpp>
#include <duvo/ps/queue/sampleOps.hpp>

namespace vesk::duvo::ps::queue {

namespace detail {

/// The most-recent-value store, compiled once for every type; samples are pointers to T.
class MapMrvCore {
public:
    explicit MapMrvCore(const SampleOps& ops);
    MapMrvCore(const MapMrvCore&) = delete;
    MapMrvCore& operator=(const MapMrvCore&) = delete;
    ~MapMrvCore();

    /// Stores the sample as the newest value of its instance.
    void newData(std::shared_ptr<void> sample);
    void readMostRecent(const std::chrono::milliseconds& timeout, SamplesOut& out);
    void close() { closed_.store(true); }

private:
    /// Hash of the sample's key (KeyHash<T>).
    struct Hash {
        const SampleOps* ops;
        std::size_t operator()(const std::shared_ptr<void>& sample) const { return ops->keyHash(sample.get()); }
    };
    /// Same instance: equal keys. Keyless samples all share the one empty key (their keyEquals
    /// is always false), so a keyless type holds one sample.
    struct Equal {
        const SampleOps* ops;
        bool operator()(const std::shared_ptr<void>& a, const std::shared_ptr<void>& b) const {
            if (!ops->hasKey(a.get()) && !ops->hasKey(b.get())) return true;
            return ops->keyEquals(a.get(), b.get());
        }
    };

    std::mutex mutex_;
    std::atomic<bool> closed_{false};
    std::unordered_set<std::shared_ptr<void>, Hash, Equal> samples_;
};

} // namespace detail

/// Keeps only the newest sample of every instance: no history, no events, no states.
template <class T, class ST>
class MapMrvSubscriber : public MrvSubscriber<T> {
public:
    MapMrvSubscriber() : core_(sampleOps<T, ST>()) {}
    MapMrvSubscriber(const MapMrvSubscriber&) = delete;
    MapMrvSubscriber& operator=(const MapMrvSubscriber&) = delete;

    /// Stores the sample as the newest value of its instance.
    void newData(std::unique_ptr<ST> sample) { core_.newData(std::shared_ptr<T>(std::move(sample))); }

    /// One sample per stored instance, after sleeping the whole timeout: the pause is the
    /// caller's chosen sampling interval, whatever the store holds.
    std::vector<std::shared_ptr<T>> readMostRecent(const std::chrono::milliseconds& timeout) override {
        std::vector<std::shared_ptr<T>> samples;
        SamplesInto<T> out(samples);
        core_.readMostRecent(timeout, out);
        return samples;
    }

    void close() override { core_.close(); }
    /// Nothing to do: no callback runs under this store's lock, so no delivery waits on a closer.
    void stopDeliveries() noexcept {}

    detail::MapMrvCore& getCore() noexcept { return core_; }

private:
    detail::MapMrvCore core_;
};

} // namespace vesk::duvo::ps::queue
