#pragma once
#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <exception>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <vesk/duvo/ps/dataEvent.hpp>
#include <vesk/duvo/ps/subscriber.hpp>

namespace vesk::duvo::ps::queue::detail {

/// A predicate's answer to an event; the queue and addToQueue act on it.
enum class MatchResult : int {
    NoMatch = 0,        ///< not for this predicate
    Keep = 1,           ///< seen; the event stays (or is queued)
    Consume = 2,        ///< taken; go on
    ConsumeAndStop = 3, ///< taken; the predicate wants no more
    Done = 4,           ///< taken; the predicate is finished and leaves the predicate map
};

/// Callback errors never reach the delivering thread: they are written to standard error in
/// one piece, so that lines from several threads do not interleave.
template <class F>
void runListenerCallback(F&& f) noexcept {
    try {
        f();
    } catch (const std::exception& e) {
        std::cerr << (std::string("Exception occured in listener: ") + e.what() + "\n") << std::flush;
    } catch (...) {
        std::cerr << "Exception occurred in listener \n" << std::flush;
    }
}

template <class F>
void runNotifierCallback(F&& f) noexcept {
    try {
        f();
    } catch (const std::exception& e) {
        std::cerr << (std::string("Exception occurred in notifier: ") + e.what() + "\n") << std::flush;
    } catch (...) {
        std::cerr << "Exception occurred in notifier \n" << std::flush;
    }
}

/// A synchronous subscription: its callbacks run only inside poll.
template <class T>
struct SyncSubscriptionEntry {
    SyncSubscriptionEntry(DataEventFilter<T> f, typename Subscriber<T>::EventCallback cb)
        : filter(std::move(f)), callback(std::move(cb)) {}
    const DataEventFilter<T> filter;
    const typename Subscriber<T>::EventCallback callback;
    /// Set when the subscription closes, so that events a poller already holds are not
    /// handed to a callback whose owner may be gone.
    std::atomic<bool> closed{false};
};

template <class T>
using SyncSubscriptionMap = std::map<std::string, std::shared_ptr<SyncSubscriptionEntry<T>>>;

/// True when maxCount (0: no limit) is reached.
inline bool countReached(unsigned long count, unsigned long maxCount) noexcept {
    return maxCount != 0 && count >= maxCount;
}

/// The filter test: instance (by key), present instance state, and event kind.
template <class T>
bool matches(const DataEvent<T>& event, const DataEventFilter<T>& filter) {
    if (const T* instance = filter.getInstance()) {
        const auto data = event.getData();
        if (!data || !instance->keyEquals(*data)) return false;
    }
    if (filter.getInstanceState() != InstanceState::Any && event.getInstanceState() != filter.getInstanceState())
        return false;
    const auto& events = filter.getInstanceEvents();
    return events.empty() || events.count(event.getInstanceEvent()) != 0;
}

/// Base of all predicates: holds the filter and the shared test.
template <class T, class ST>
class DataEventPredicate {
public:
    explicit DataEventPredicate(DataEventFilter<T> filter) : filter_(std::move(filter)) {}
    virtual ~DataEventPredicate() = default;
    virtual MatchResult matchAndProcess(const std::shared_ptr<DataEvent<T>>& event) = 0;
    /// Wakes the reader waiting behind this predicate; called when the subscriber closes.
    virtual void cancel() {}
    /// Whether filterCheck compares new subscriptions with this predicate's filter.
    virtual bool selectsByFilter() const { return true; }

    const DataEventFilter<T>& getFilter() const noexcept { return filter_; }

    static bool matches(const DataEvent<T>& event, const DataEventFilter<T>& filter) {
        return detail::matches(event, filter);
    }

protected:
    bool matches(const DataEvent<T>& event) const { return matches(event, filter_); }

    DataEventFilter<T> filter_;
};

/// The first synchronous subscription whose filter selects the event, or none.
template <class T>
std::shared_ptr<SyncSubscriptionEntry<T>> findSyncSubscription(const SyncSubscriptionMap<T>& subscriptions,
                                                               const DataEvent<T>& event) {
    for (const auto& entry : subscriptions)
        if (matches(event, entry.second->filter)) return entry.second;
    return nullptr;
}

/// What a waiting readDataEvents shares with its listener.
template <class T>
struct ReadEventsWaiter {
    std::mutex mutex;
    std::condition_variable wake;
    std::vector<std::shared_ptr<DataEvent<T>>> events;
    std::atomic<unsigned long> count{0};
    bool done = false;
    bool cancelled = false;
};

/// What a waiting poll shares with its listener: the (event, subscription) pairs to dispatch.
template <class T>
struct PollWaiter {
    using Pending = std::pair<std::shared_ptr<DataEvent<T>>, std::shared_ptr<SyncSubscriptionEntry<T>>>;
    std::mutex mutex;
    std::condition_variable wake;
    std::deque<Pending> pending;
    std::atomic<unsigned long> count{0};
    bool finished = false; ///< the listener reached the count and left the predicate map
    bool cancelled = false;
};

/// readDataEvents, scanning the queue: appends matching events to the caller's vector.
template <class T, class ST>
class DataEventPredicateReadEvents : public DataEventPredicate<T, ST> {
public:
    DataEventPredicateReadEvents(DataEventFilter<T> filter, std::vector<std::shared_ptr<DataEvent<T>>>& out,
                                 std::atomic<unsigned long>& count, unsigned long maxCount)
        : DataEventPredicate<T, ST>(std::move(filter)), out_(out), count_(count), maxCount_(maxCount) {}

    MatchResult matchAndProcess(const std::shared_ptr<DataEvent<T>>& event) override {
        if (!this->matches(*event)) return MatchResult::NoMatch;
        out_.push_back(event);
        return countReached(++count_, maxCount_) ? MatchResult::ConsumeAndStop : MatchResult::Consume;
    }

private:
    std::vector<std::shared_ptr<DataEvent<T>>>& out_;
    std::atomic<unsigned long>& count_;
    unsigned long maxCount_;
};

/// readDataEvents, registered while the caller waits: collects arriving events.
template <class T, class ST>
class DataEventPredicateReadEventsListener : public DataEventPredicate<T, ST> {
public:
    DataEventPredicateReadEventsListener(DataEventFilter<T> filter, std::shared_ptr<ReadEventsWaiter<T>> waiter,
                                         unsigned long maxCount)
        : DataEventPredicate<T, ST>(std::move(filter)), waiter_(std::move(waiter)), maxCount_(maxCount) {}

    MatchResult matchAndProcess(const std::shared_ptr<DataEvent<T>>& event) override {
        if (!this->matches(*event)) return MatchResult::NoMatch;
        std::lock_guard<std::mutex> lock(waiter_->mutex);
        waiter_->events.push_back(event);
        if (!countReached(++waiter_->count, maxCount_)) return MatchResult::Consume;
        waiter_->done = true;
        waiter_->wake.notify_one();
        return MatchResult::Done;
    }

    void cancel() override {
        std::lock_guard<std::mutex> lock(waiter_->mutex);
        waiter_->cancelled = true;
        waiter_->wake.notify_one();
    }

private:
    std::shared_ptr<ReadEventsWaiter<T>> waiter_;
    unsigned long maxCount_;
};

/// poll, scanning the queue: takes each event that a synchronous subscription selects and
/// hands (event, subscription) to the poller, which runs the callback once the scan is over.
template <class T, class ST>
class DataEventPredicatePoll : public DataEventPredicate<T, ST> {
public:
    DataEventPredicatePoll(const SyncSubscriptionMap<T>& subscriptions, std::shared_ptr<PollWaiter<T>> waiter,
                           unsigned long maxCount)
        : DataEventPredicate<T, ST>(DataEventFilter<T>()), subscriptions_(subscriptions), waiter_(std::move(waiter)),
          maxCount_(maxCount) {}

    MatchResult matchAndProcess(const std::shared_ptr<DataEvent<T>>& event) override {
        if (!this->matches(*event)) return MatchResult::NoMatch;
        auto subscription = findSyncSubscription(subscriptions_, *event);
        if (!subscription) return MatchResult::NoMatch;
        std::lock_guard<std::mutex> lock(waiter_->mutex);
        waiter_->pending.emplace_back(event, std::move(subscription));
        return countReached(++waiter_->count, maxCount_) ? MatchResult::ConsumeAndStop : MatchResult::Consume;
    }

private:
    const SyncSubscriptionMap<T>& subscriptions_;
    std::shared_ptr<PollWaiter<T>> waiter_;
    unsigned long maxCount_;
};

/// poll, registered while the caller waits: hands (event, subscription) pairs to the poller,
/// which runs the callbacks on its own thread without any subscriber lock.
template <class T, class ST>
class DataEventPredicatePollListener : public DataEventPredicate<T, ST> {
public:
    DataEventPredicatePollListener(const SyncSubscriptionMap<T>& subscriptions, std::shared_ptr<PollWaiter<T>> waiter,
                                   unsigned long maxCount)
        : DataEventPredicate<T, ST>(DataEventFilter<T>()), subscriptions_(subscriptions), waiter_(std::move(waiter)),
          maxCount_(maxCount) {}

    MatchResult matchAndProcess(const std::shared_ptr<DataEvent<T>>& event) override {
        if (!this->matches(*event)) return MatchResult::NoMatch;
        auto subscription = findSyncSubscription(subscriptions_, *event);
        if (!subscription) return MatchResult::NoMatch;
        const bool reached = countReached(++waiter_->count, maxCount_);
        std::lock_guard<std::mutex> lock(waiter_->mutex);
        waiter_->pending.emplace_back(event, std::move(subscription));
        waiter_->finished = reached;
        waiter_->wake.notify_one();
        return reached ? MatchResult::Done : MatchResult::Consume;
    }

    void cancel() override {
        std::lock_guard<std::mutex> lock(waiter_->mutex);
        waiter_->cancelled = true;
        waiter_->wake.notify_one();
    }

    // A waiting poller takes events only for the synchronous subscriptions, which filterCheck
    // already compares; its catch-all filter must not refuse every new subscription.
    bool selectsByFilter() const override { return false; }

private:
    const SyncSubscriptionMap<T>& subscriptions_;
    std::shared_ptr<PollWaiter<T>> waiter_;
    unsigned long maxCount_;
};

/// subscribeAsync with a callback taking the event: delivers and consumes.
template <class T, class ST>
class DataEventPredicateAsyncSubscriptionListener : public DataEventPredicate<T, ST> {
public:
    DataEventPredicateAsyncSubscriptionListener(DataEventFilter<T> filter,
                                                typename Subscriber<T>::EventCallback callback,
                                                Subscriber<T>& subscriber)
        : DataEventPredicate<T, ST>(std::move(filter)), callback_(std::move(callback)), subscriber_(subscriber) {}

    MatchResult matchAndProcess(const std::shared_ptr<DataEvent<T>>& event) override {
        if (!this->matches(*event)) return MatchResult::NoMatch;
        runListenerCallback([&] { callback_(subscriber_, *event); });
        return MatchResult::Consume;
    }

private:
    typename Subscriber<T>::EventCallback callback_;
    Subscriber<T>& subscriber_;
};

/// subscribeAsync with a callback taking only the subscriber: notifies and leaves the event
/// to be read.
template <class T, class ST>
class DataEventPredicateAsyncSubscriptionNotifier : public DataEventPredicate<T, ST> {
public:
    DataEventPredicateAsyncSubscriptionNotifier(DataEventFilter<T> filter,
                                                typename Subscriber<T>::NotifyCallback callback,
                                                Subscriber<T>& subscriber)
        : DataEventPredicate<T, ST>(std::move(filter)), callback_(std::move(callback)), subscriber_(subscriber) {}

    MatchResult matchAndProcess(const std::shared_ptr<DataEvent<T>>& event) override {
        if (!this->matches(*event)) return MatchResult::NoMatch;
        runNotifierCallback([&] { callback_(subscriber_); });
        return MatchResult::Keep;
    }

private:
    typename Subscriber<T>::NotifyCallback callback_;
    Subscriber<T>& subscriber_;
};

/// True when the two event sets share an element.
inline bool filterIntersect(const std::set<InstanceEvent>& a, const std::set<InstanceEvent>& b) {
    return std::any_of(a.begin(), a.end(), [&](InstanceEvent e) { return b.count(e) != 0; });
}

/// A filter that selects every event of every instance. An empty event set means all events.
template <class T>
bool selectsEverything(const DataEventFilter<T>& f) {
    const auto& events = f.getInstanceEvents();
    return f.getInstance() == nullptr && f.getInstanceState() == InstanceState::Any &&
           (events.empty() ||
            events == std::set<InstanceEvent>{InstanceAppeared, InstanceUpdated, InstanceNotAlive});
}

/// True when the two filters could select the same event.
template <class T>
bool filtersOverlap(const DataEventFilter<T>& a, const DataEventFilter<T>& b) {
    // A catch-all filter conflicts with anything, whichever side it is on.
    if (selectsEverything(a) || selectsEverything(b)) return true;
    const T* ia = a.getInstance();
    const T* ib = b.getInstance();
    const bool sameInstance = (ia == nullptr && ib == nullptr) || (ia != nullptr && ib != nullptr && ia->keyEquals(*ib));
    const auto sa = a.getInstanceState();
    const auto sb = b.getInstanceState();
    const bool sameState = sa == sb || sa == InstanceState::Any || sb == InstanceState::Any;
    const auto& ea = a.getInstanceEvents();
    const auto& eb = b.getInstanceEvents();
    const bool sameEvents = ea.empty() || eb.empty() || filterIntersect(ea, eb);
    return sameInstance && sameState && sameEvents;
}

/// Refuses a new subscription whose filter could select the events of an existing
/// subscription or waiting reader: each event must have exactly one taker.
template <class T, class ST>
void filterCheck(const DataEventFilter<T>& filter, const SyncSubscriptionMap<T>& subscriptions,
                 const std::map<std::string, std::shared_ptr<DataEventPredicate<T, ST>>>& predicates) {
    for (const auto& entry : subscriptions)
        if (filtersOverlap(filter, entry.second->filter)) throw std::runtime_error("filter intersection");
    for (const auto& entry : predicates)
        if (entry.second->selectsByFilter() && filtersOverlap(filter, entry.second->getFilter()))
            throw std::runtime_error("filter intersection");
}

} // namespace vesk::duvo::ps::queue::detail
