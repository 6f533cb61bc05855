#pragma once
#include <memory>
#include <optional>
#include <utility>

#include <vesk/duvo/ps/dataEvent.hpp>

#include <duvo/ps/queue/instanceQueue.hpp>

namespace vesk::duvo::ps::queue {

namespace detail {
template <class T, class ST>
class QueuedSubscriberImpl;
}

/// A received sample as the queued subscriber stores and hands it out.
///
/// Its queue positions are touched only under the subscriber's data mutex; everything an
/// application thread may read is either immutable or atomic.
template <class T, class ST>
class DataEventImpl final : public DataEvent<T> {
public:
    DataEventImpl(std::shared_ptr<InstanceQueue<T, ST>> instance, double sourceTime, std::shared_ptr<T> data,
                  bool validData, std::unique_ptr<InstanceState> state, InstanceEvent event)
        : instance_(std::move(instance)), sourceTime_(sourceTime), data_(std::move(data)), validData_(validData),
          state_(std::move(state)), event_(event) {}

    bool hasValidData() const override { return validData_ && data_ != nullptr; }
    std::shared_ptr<T> getData() const override { return data_; }

    /// The instance's present state, not the one at reception.
    InstanceState getInstanceState() const override {
        if (instance_) return instance_->aliveCount() != 0 ? InstanceState::Alive : InstanceState::NotAlive;
        return state_ ? *state_ : InstanceState(InstanceState::NotAlive);
    }

    InstanceEvent getInstanceEvent() const override { return event_; }
    double getSourceTimestamp() const override { return sourceTime_; }

    /// Unlinks the event from its instance queue. The caller holds a reference to the event,
    /// since the queue may hold the last other one.
    void removeFromInstanceQueue() {
        if (!instance_ || !instancePos_) return;
        const auto pos = *instancePos_;
        instancePos_.reset();
        instance_->events().erase(pos);
    }

    const std::shared_ptr<InstanceQueue<T, ST>>& getInstance() const noexcept { return instance_; }

private:
    friend class detail::QueuedSubscriberImpl<T, ST>;

    std::shared_ptr<InstanceQueue<T, ST>> instance_;
    std::optional<typename EventList<T, ST>::iterator> instancePos_;
    std::optional<typename EventList<T, ST>::iterator> globalPos_;
    double sourceTime_;
    std::shared_ptr<T> data_;
    bool validData_;
    std::unique_ptr<InstanceState> state_;
    InstanceEvent event_;
};

} // namespace vesk::duvo::ps::queue
