#pragma once
#include <memory>
#include <set>

namespace vesk::duvo::ps {

/// Liveliness of an instance. Any is used only by filters.
class InstanceState {
public:
    enum Value : int { Alive = 0, NotAlive = 1, Any = 2 };

    constexpr InstanceState(Value v = Alive) noexcept : value_(v) {}
    constexpr Value value() const noexcept { return value_; }
    friend constexpr bool operator==(InstanceState a, InstanceState b) noexcept { return a.value_ == b.value_; }
    friend constexpr bool operator!=(InstanceState a, InstanceState b) noexcept { return a.value_ != b.value_; }

private:
    Value value_;
};

/// What happened to an instance with an event.
enum InstanceEvent : int {
    InstanceAppeared = 0, ///< the instance appeared or came back
    InstanceUpdated = 1,
    InstanceNotAlive = 2,
};

/// A received sample with its instance state, event kind and source time.
template <class T>
class DataEvent {
public:
    virtual ~DataEvent() = default;
    virtual bool hasValidData() const = 0;
    virtual std::shared_ptr<T> getData() const = 0;
    virtual InstanceState getInstanceState() const = 0;
    virtual InstanceEvent getInstanceEvent() const = 0;
    /// Seconds since the Unix epoch.
    virtual double getSourceTimestamp() const = 0;
};

/// Selects data events: by instance (none = any), by state (Any = any) and by event kind
/// (empty = any).
template <class T>
class DataEventFilter {
public:
    DataEventFilter() = default;
    DataEventFilter(std::unique_ptr<T> instance, InstanceState state, std::set<InstanceEvent> events)
        : instance_(std::move(instance)), state_(state), events_(std::move(events)) {}
    DataEventFilter(const DataEventFilter& o)
        : instance_(o.instance_ ? o.instance_->clone() : nullptr), state_(o.state_), events_(o.events_) {}
    DataEventFilter(DataEventFilter&&) noexcept = default;
    DataEventFilter& operator=(DataEventFilter o) noexcept {
        instance_.swap(o.instance_);
        state_ = o.state_;
        events_.swap(o.events_);
        return *this;
    }

    const T* getInstance() const noexcept { return instance_.get(); }
    InstanceState getInstanceState() const noexcept { return state_; }
    const std::set<InstanceEvent>& getInstanceEvents() const noexcept { return events_; }

private:
    std::unique_ptr<T> instance_;
    InstanceState state_ = InstanceState::Any;
    std::set<InstanceEvent> events_;
};

} // namespace vesk::duvo::ps
