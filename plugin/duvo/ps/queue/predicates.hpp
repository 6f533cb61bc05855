#pragma once
#include <atomic>
#include <condition_variable>
#include <deque>
#include <exception>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <vesk/duvo/ps/dataEvent.hpp>

#include <duvo/ps/queue/dataEventImpl.hpp>
#include <duvo/ps/queue/sampleOps.hpp>

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

/// A DataEventFilter without its type. The instance is a sample as T: owned by the filter for
/// a subscription, borrowed from the caller for a read that ends before it returns.
struct FilterCore {
    std::shared_ptr<const void> instance;
    InstanceState state = InstanceState::Any;
    std::set<InstanceEvent> events;
};

/// An application callback, wrapped once at subscribe time by the typed edge.
using EventFn = std::function<void(const EventCore&)>;
using NotifyFn = std::function<void()>;

/// A synchronous subscription: its callbacks run only inside poll.
struct SyncSubscriptionEntry {
    SyncSubscriptionEntry(FilterCore f, EventFn cb) : filter(std::move(f)), callback(std::move(cb)) {}
    const FilterCore filter;
    const EventFn callback;
    /// Set when the subscription closes, so that events a poller already holds are not
    /// handed to a callback whose owner may be gone.
    std::atomic<bool> closed{false};
};

using SyncSubscriptionMap = std::map<std::string, std::shared_ptr<SyncSubscriptionEntry>>;

/// True when maxCount (0: no limit) is reached.
inline bool countReached(unsigned long count, unsigned long maxCount) noexcept {
    return maxCount != 0 && count >= maxCount;
}

/// The filter test: instance (by key), present instance state, and event kind.
bool matches(const SampleOps& ops, const EventCore& event, const FilterCore& filter);

/// Base of all predicates: holds the filter and the shared test.
class DataEventPredicate {
public:
    DataEventPredicate(const SampleOps& ops, FilterCore filter) : ops_(ops), filter_(std::move(filter)) {}
    virtual ~DataEventPredicate();
    virtual MatchResult matchAndProcess(const std::shared_ptr<EventCore>& event) = 0;
    /// Wakes the reader waiting behind this predicate; called when the subscriber closes.
    virtual void cancel() {}
    /// Whether filterCheck compares new subscriptions with this predicate's filter.
    virtual bool selectsByFilter() const { return true; }

    const FilterCore& getFilter() const noexcept { return filter_; }

protected:
    bool matches(const EventCore& event) const { return detail::matches(ops_, event, filter_); }

    const SampleOps& ops_;
    FilterCore filter_;
};

using PredicateMap = std::map<std::string, std::shared_ptr<DataEventPredicate>>;

/// What a waiting readDataEvents shares with its listener.
struct ReadEventsWaiter {
    std::mutex mutex;
    std::condition_variable wake;
    std::vector<std::shared_ptr<EventCore>> events;
    std::atomic<unsigned long> count{0};
    bool done = false;
    bool cancelled = false;
};

/// What a waiting poll shares with its listener: the (event, subscription) pairs to dispatch.
struct PollWaiter {
    using Pending = std::pair<std::shared_ptr<EventCore>, std::shared_ptr<SyncSubscriptionEntry>>;
    std::mutex mutex;
    std::condition_variable wake;
    std::deque<Pending> pending;
    std::atomic<unsigned long> count{0};
    bool finished = false; ///< the listener reached the count and left the predicate map
    bool cancelled = false;
};

/// readDataEvents, scanning the queue: appends matching events to the caller's vector.
class DataEventPredicateReadEvents : public DataEventPredicate {
public:
    DataEventPredicateReadEvents(const SampleOps& ops, FilterCore filter, EventsOut& out,
                                 std::atomic<unsigned long>& count, unsigned long maxCount)
        : DataEventPredicate(ops, std::move(filter)), out_(out), count_(count), maxCount_(maxCount) {}
    MatchResult matchAndProcess(const std::shared_ptr<EventCore>& event) override;

private:
    EventsOut& out_;
    std::atomic<unsigned long>& count_;
    unsigned long maxCount_;
};

/// readDataEvents, registered while the caller waits: collects arriving events.
class DataEventPredicateReadEventsListener : public DataEventPredicate {
public:
    DataEventPredicateReadEventsListener(const SampleOps& ops, FilterCore filter,
                                         std::shared_ptr<ReadEventsWaiter> waiter, unsigned long maxCount)
        : DataEventPredicate(ops, std::move(filter)), waiter_(std::move(waiter)), maxCount_(maxCount) {}
    MatchResult matchAndProcess(const std::shared_ptr<EventCore>& event) override;
    void cancel() override;

private:
    std::shared_ptr<ReadEventsWaiter> waiter_;
    unsigned long maxCount_;
};

/// poll, scanning the queue: takes each event that a synchronous subscription selects and
/// hands (event, subscription) to the poller, which runs the callback once the scan is over.
class DataEventPredicatePoll : public DataEventPredicate {
public:
    DataEventPredicatePoll(const SampleOps& ops, const SyncSubscriptionMap& subscriptions,
                           std::shared_ptr<PollWaiter> waiter, unsigned long maxCount)
        : DataEventPredicate(ops, FilterCore()), subscriptions_(subscriptions), waiter_(std::move(waiter)),
          maxCount_(maxCount) {}
    MatchResult matchAndProcess(const std::shared_ptr<EventCore>& event) override;

private:
    const SyncSubscriptionMap& subscriptions_;
    std::shared_ptr<PollWaiter> waiter_;
    unsigned long maxCount_;
};

/// poll, registered while the caller waits: hands (event, subscription) pairs to the poller,
/// which runs the callbacks on its own thread without any subscriber lock.
class DataEventPredicatePollListener : public DataEventPredicate {
public:
    DataEventPredicatePollListener(const SampleOps& ops, const SyncSubscriptionMap& subscriptions,
                                   std::shared_ptr<PollWaiter> waiter, unsigned long maxCount)
        : DataEventPredicate(ops, FilterCore()), subscriptions_(subscriptions), waiter_(std::move(waiter)),
          maxCount_(maxCount) {}
    MatchResult matchAndProcess(const std::shared_ptr<EventCore>& event) override;
    void cancel() override;

    // A waiting poller takes events only for the synchronous subscriptions, which filterCheck
    // already compares; its catch-all filter must not refuse every new subscription.
    bool selectsByFilter() const override { return false; }

private:
    const SyncSubscriptionMap& subscriptions_;
    std::shared_ptr<PollWaiter> waiter_;
    unsigned long maxCount_;
};

/// subscribeAsync with a callback taking the event: delivers and consumes.
class DataEventPredicateAsyncSubscriptionListener : public DataEventPredicate {
public:
    DataEventPredicateAsyncSubscriptionListener(const SampleOps& ops, FilterCore filter, EventFn callback)
        : DataEventPredicate(ops, std::move(filter)), callback_(std::move(callback)) {}
    MatchResult matchAndProcess(const std::shared_ptr<EventCore>& event) override;

private:
    EventFn callback_;
};

/// subscribeAsync with a callback taking only the subscriber: notifies and leaves the event
/// to be read.
class DataEventPredicateAsyncSubscriptionNotifier : public DataEventPredicate {
public:
    DataEventPredicateAsyncSubscriptionNotifier(const SampleOps& ops, FilterCore filter, NotifyFn callback)
        : DataEventPredicate(ops, std::move(filter)), callback_(std::move(callback)) {}
    MatchResult matchAndProcess(const std::shared_ptr<EventCore>& event) override;

private:
    NotifyFn callback_;
};

/// True when the two filters could select the same event.
bool filtersOverlap(const SampleOps& ops, const FilterCore& a, const FilterCore& b);

/// Refuses a new subscription whose filter could select the events of an existing
/// subscription or waiting reader: each event must have exactly one taker.
void filterCheck(const SampleOps& ops, const FilterCore& filter, const SyncSubscriptionMap& subscriptions,
                 const PredicateMap& predicates);

} // namespace vesk::duvo::ps::queue::detail
