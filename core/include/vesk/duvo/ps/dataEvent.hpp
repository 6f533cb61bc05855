#pragma once
#include <memory>
#include <set>

namespace vesk::duvo::ps {

/// Liveliness of an instance. Any is used only by filters.
class InstanceState {
public:
    /// The states; Any matches both in a filter.
    enum Value : int { Alive = 0, NotAlive = 1, Any = 2 };

    /// The state v (Alive by default).
    constexpr InstanceState(Value v = Alive) noexcept : value_(v) {}
    /// The state as its enumerator.
    constexpr Value value() const noexcept { return value_; }
    /// Same state.
    friend constexpr bool operator==(InstanceState a, InstanceState b) noexcept { return a.value_ == b.value_; }
    /// Different states.
    friend constexpr bool operator!=(InstanceState a, InstanceState b) noexcept { return a.value_ != b.value_; }

private:
    Value value_;
};

/// What happened to an instance with an event.
enum InstanceEvent : int {
    InstanceAppeared = 0, ///< the instance appeared or came back
    InstanceUpdated = 1,  ///< a new sample of a live instance
    InstanceNotAlive = 2, ///< the instance is no longer alive (its source was lost)
};

/// A received sample with its instance state, event kind and source time.
template <class T>
class DataEvent {
public:
    /// Destroys the event.
    virtual ~DataEvent() = default;
    /// Whether the event carries a sample (a not-alive event carries none).
    virtual bool hasValidData() const = 0;
    /// The sample, or null without valid data.
    virtual std::shared_ptr<T> getData() const = 0;
    /// The instance's state after the event.
    virtual InstanceState getInstanceState() const = 0;
    /// What happened to the instance.
    virtual InstanceEvent getInstanceEvent() const = 0;
    /// Seconds since the Unix epoch.
    virtual double getSourceTimestamp() const = 0;
};

/// Selects data events: by instance (none = any), by state (Any = any) and by event kind
/// (empty = any).
template <class T>
class DataEventFilter {
public:
    /// A filter that matches every event.
    DataEventFilter() = default;
    /// A filter on the instance (null: any), the state and the event kinds (empty: any).
    DataEventFilter(std::unique_ptr<T> instance, InstanceState state, std::set<InstanceEvent> events)
        : instance_(std::move(instance)), state_(state), events_(std::move(events)) {}
    /// A copy, with its own copy of the instance sample.
    DataEventFilter(const DataEventFilter& o)
        : instance_(o.instance_ ? o.instance_->clone() : nullptr), state_(o.state_), events_(o.events_) {}
    /// Takes the other filter's settings.
    DataEventFilter(DataEventFilter&&) noexcept = default;
    /// Takes a copy of the other filter's settings.
    DataEventFilter& operator=(DataEventFilter o) noexcept {
        instance_.swap(o.instance_);
        state_ = o.state_;
        events_.swap(o.events_);
        return *this;
    }

    /// The instance sample, or null for any instance.
    const T* getInstance() const noexcept { return instance_.get(); }
    /// The state matched.
    InstanceState getInstanceState() const noexcept { return state_; }
    /// The event kinds matched; empty for any.
    const std::set<InstanceEvent>& getInstanceEvents() const noexcept { return events_; }

private:
    std::unique_ptr<T> instance_;
    InstanceState state_ = InstanceState::Any;
    std::set<InstanceEvent> events_;
};

} // namespace vesk::duvo::ps
