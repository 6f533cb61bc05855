#pragma once
#include <memory>
#include <optional>
#include <utility>

#include <vesk/duvo/ps/dataEvent.hpp>

#include <duvo/ps/queue/instanceQueue.hpp>

namespace vesk::duvo::ps::queue {

namespace detail {

/// A received sample as the queued subscriber stores it, whatever its type.
///
/// Its queue positions are touched only under the subscriber's data mutex; everything an
/// application thread may read is either immutable or atomic.
class EventCore {
public:
    EventCore(std::shared_ptr<InstanceQueue> instance, double sourceTime, std::shared_ptr<void> data, bool validData,
              InstanceState state, InstanceEvent event) noexcept
        : instance_(std::move(instance)), sourceTime_(sourceTime), data_(std::move(data)), validData_(validData),
          state_(state), event_(event) {}
    EventCore(const EventCore&) = delete;
    EventCore& operator=(const EventCore&) = delete;

    bool validData() const noexcept { return validData_ && data_ != nullptr; }

    /// The instance's present state, not the one at reception.
    InstanceState instanceState() const noexcept {
        if (instance_) return instance_->aliveCount() != 0 ? InstanceState::Alive : InstanceState::NotAlive;
        return state_;
    }

    /// Unlinks the event from its instance queue. The caller holds a reference to the event,
    /// since the queue may hold the last other one.
    void removeFromInstanceQueue() {
        if (!instance_ || !instancePos_) return;
        const auto pos = *instancePos_;
        instancePos_.reset();
        instance_->events().erase(pos);
    }

    std::shared_ptr<InstanceQueue> instance_;
    std::optional<EventList::iterator> instancePos_;
    std::optional<EventList::iterator> globalPos_;
    const double sourceTime_;
    const std::shared_ptr<void> data_; // the sample as T
    const bool validData_;
    const InstanceState state_;
    const InstanceEvent event_;
};

} // namespace detail

/// A received sample as the queued subscriber hands it out: the untyped event and its typed
/// face in one object.
template <class T, class ST>
class DataEventImpl final : public detail::EventCore, public DataEvent<T> {
public:
    using detail::EventCore::EventCore;

    bool hasValidData() const override { return validData(); }
    std::shared_ptr<T> getData() const override { return std::static_pointer_cast<T>(data_); }
    InstanceState getInstanceState() const override { return instanceState(); }
    InstanceEvent getInstanceEvent() const override { return event_; }
    double getSourceTimestamp() const override { return sourceTime_; }

    /// The typed face of an event that sampleOps<T, ST>() made.
    static const DataEventImpl& of(const detail::EventCore& event) noexcept {
        return static_cast<const DataEventImpl&>(event);
    }
    static std::shared_ptr<DataEvent<T>> of(const std::shared_ptr<detail::EventCore>& event) noexcept {
        return std::static_pointer_cast<DataEventImpl>(event);
    }
};

} // namespace vesk::duvo::ps::queue

namespace vesk::duvo::ps::queue {

/// The sample operations of T (interface) and ST (its binding) for the untyped stores.
template <class T, class ST>
class SampleOpsOf final : public SampleOps {
public:
    bool hasKey(const void* sample) const override { return as(sample).hasKey(); }
    bool keyEquals(const void* a, const void* b) const override { return as(a).keyEquals(as(b)); }
    OwnedSample cloneKey(const void* sample) const override { return ownAs<T>(as(sample).cloneKey()); }
    OwnedSample clone(const void* sample) const override { return ownAs<T>(as(sample).clone()); }
    std::size_t keyHash(const void* sample) const override { return KeyHash<T>{}(as(sample)); }
    std::shared_ptr<detail::EventCore> newEvent(std::shared_ptr<detail::InstanceQueue> instance, double sourceTime,
                                                std::shared_ptr<void> data, bool validData, InstanceState state,
                                                InstanceEvent event) const override {
        return std::make_shared<DataEventImpl<T, ST>>(std::move(instance), sourceTime, std::move(data), validData,
                                                      state, event);
    }

private:
    static const T& as(const void* sample) noexcept { return *static_cast<const T*>(sample); }
};

template <class T, class ST>
const SampleOps& sampleOps() noexcept {
    static const SampleOpsOf<T, ST> ops;
    return ops;
}

} // namespace vesk::duvo::ps::queue
