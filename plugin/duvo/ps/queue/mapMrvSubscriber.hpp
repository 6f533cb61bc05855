#pragma once
#include <atomic>
#include <chrono>
#include <cstddef>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_set>
#include <vector>

#include <vesk/duvo/exceptions.hpp>
#include <vesk/duvo/ps/subscriber.hpp>

#include <duvo/ps/queue/keyHash.hpp>

namespace vesk::duvo::ps::queue {

/// Keeps only the newest sample of every instance: no history, no events, no states.
template <class T, class ST>
class MapMrvSubscriber : public MrvSubscriber<T> {
public:
    /// Hash of the sample's key (KeyHash<T>).
    struct STHash {
        std::size_t operator()(const std::shared_ptr<ST>& sample) const {
            return KeyHash<T>{}(static_cast<const T&>(*sample));
        }
    };
    /// Same instance: equal keys. Keyless samples all share the one empty key (their keyEquals
    /// is always false), so a keyless type holds one sample.
    struct STEqual {
        bool operator()(const std::shared_ptr<ST>& a, const std::shared_ptr<ST>& b) const {
            if (!a->hasKey() && !b->hasKey()) return true;
            return a->keyEquals(static_cast<const T&>(*b));
        }
    };

    MapMrvSubscriber() = default;
    MapMrvSubscriber(const MapMrvSubscriber&) = delete;
    MapMrvSubscriber& operator=(const MapMrvSubscriber&) = delete;

    /// Stores the sample as the newest value of its instance.
    void newData(std::unique_ptr<ST> sample) {
        std::shared_ptr<ST> stored(std::move(sample));
        std::lock_guard<std::mutex> lock(mutex_);
        samples_.erase(stored);
        samples_.insert(std::move(stored));
    }

    /// One sample per stored instance, after sleeping the whole timeout: the pause is the
    /// caller's chosen sampling interval, whatever the store holds.
    std::vector<std::shared_ptr<T>> readMostRecent(const std::chrono::milliseconds& timeout) override {
        if (closed_.load()) throw IllegalStateException("ZpbMrvSubscriber already closed");
        if (timeout.count() < 0) throw DuvoException("negative timeout given to Mrv subscriber readMostRecent");
        std::this_thread::sleep_for(timeout);
        std::lock_guard<std::mutex> lock(mutex_);
        return std::vector<std::shared_ptr<T>>(samples_.begin(), samples_.end());
    }

    void close() override { closed_.store(true); }
    /// Nothing to do: no callback runs under this store's lock, so no delivery waits on a closer.
    void stopDeliveries() noexcept {}

private:
    std::mutex mutex_;
    std::atomic<bool> closed_{false};
    std::unordered_set<std::shared_ptr<ST>, STHash, STEqual> samples_;
};

} // namespace vesk::duvo::ps::queue
