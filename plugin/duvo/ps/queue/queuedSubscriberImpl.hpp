#pragma once
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>

#include <vesk/duvo/exceptions.hpp>
#include <vesk/duvo/ps/qos.hpp>
#include <vesk/duvo/ps/subscriber.hpp>

#include <duvo/opcua/detail/binding/traits.hpp>
#include <duvo/ps/queue/dataEventImpl.hpp>
#include <duvo/ps/queue/instanceQueue.hpp>
#include <duvo/ps/queue/loaned.hpp>
#include <duvo/ps/queue/predicates.hpp>
#include <duvo/ps/queue/sampleOps.hpp>
#include <duvo/ps/queue/subscriptions.hpp>

namespace vesk::duvo::ps::queue::detail {

/// Queue limits. Both are fixed at 2147483647 in service; tests make them small to reach the
/// overflow rule.
struct QueueCapacities {
    std::uint64_t queue = 2147483647;
    std::int32_t instance = 2147483647;
};

/// The state and rules behind QueuedSubscriber, compiled once for every type: one global
/// arrival-ordered queue of data events, one queue per keyed instance, the waiting readers and
/// the subscriptions. Samples are pointers to T that only the typed edge (QueuedSubscriberImpl)
/// turns back into T.
///
/// Lock order: data mutex, then dispatch mutex, then a waiter's own mutex. Readers never wait
/// while holding the data mutex. Asynchronous callbacks run under the data mutex and must not
/// call back into the subscriber: such a call is refused with an IllegalStateException instead
/// of deadlocking. Synchronous callbacks run without any subscriber lock. Once closed, no
/// callback starts: a callback may close, or destroy, the subscriber it was called for.
class QueuedSubscriberCore : public std::enable_shared_from_this<QueuedSubscriberCore> {
public:
    using QoSList = std::vector<std::shared_ptr<ps::qos::QoS>>;

    QueuedSubscriberCore(const SampleOps& ops, const QoSList& qos, const QueueCapacities& capacities);
    QueuedSubscriberCore(const QueuedSubscriberCore&) = delete;
    QueuedSubscriberCore& operator=(const QueuedSubscriberCore&) = delete;
    virtual ~QueuedSubscriberCore();

    std::int64_t getMaxLatencyMs() const noexcept { return maxLatencyMs_; }
    std::int64_t getDeadlineMs() const noexcept { return deadlineMs_; }
    std::int64_t getInstanceExpiryMs() const noexcept { return instanceExpiryMs_; }

    /// A sample (or its absence) from the source. sourceTime: seconds since the Unix epoch;
    /// alive: 0 when the source was lost; receptionTimeMs: Unix milliseconds.
    void newData(OwnedSample data, double sourceTime, long alive, long receptionTimeMs);

    /// A delivery from a monitor or poller, received now.
    void deliver(OwnedSample data, double sourceTime, long alive);

    unsigned long poll(unsigned long maxCount, const std::chrono::milliseconds& timeout);

    /// Later operations fail their state check; readers waiting in poll or readDataEvents
    /// return at once with what they have.
    void close();

    void stateCheck();

    /// A delivery waiting for the data mutex gives up from now on: the entity closing the
    /// store may hold it (a callback of a scan) while it waits for that delivery to leave.
    void stopDeliveries() noexcept;

    /// Called by SyncQueuedSubscription::close.
    void removeSyncSubscription(const std::string& key);

    /// Called by AsyncQueuedSubscription::close.
    void removeAsyncSubscription(const std::string& key);

protected:
    /// Refuses a sample of another binding; instance is a sample as T.
    virtual void checkSample(const void* instance) = 0;

    /// Takes up to maxCount samples (0: all), oldest first; events without data are dropped.
    void read(unsigned long maxCount, SamplesOut& out);
    /// Takes up to maxCount (0: all) queued samples of the instance, oldest first.
    void readInstance(const void* instance, unsigned long maxCount, SamplesOut& out);
    void readDataEvents(const FilterCore& filter, EventsOut& out, unsigned long maxCount,
                        const std::chrono::milliseconds& timeout);
    std::unique_ptr<Subscription> subscribe(FilterCore filter, EventFn callback);
    /// The callback runs for every matching event, queued or arriving, on the delivering thread.
    std::unique_ptr<Subscription> subscribeAsync(FilterCore filter, EventFn callback);
    /// The callback is told of matching events, which stay queued; it is told at once when a
    /// matching event is already queued.
    std::unique_ptr<Subscription> subscribeAsync(FilterCore filter, NotifyFn callback);

    log4cplus::Logger logger_;

private:
    struct KeyPtrHash {
        const SampleOps* ops;
        std::size_t operator()(const void* key) const { return ops->keyHash(key); }
    };
    struct KeyPtrEqual {
        const SampleOps* ops;
        bool operator()(const void* a, const void* b) const { return ops->keyEquals(a, b); }
    };
    using InstancePtr = std::shared_ptr<InstanceQueue>;
    // Keyed by the instance's own key sample: a lookup needs no clone of the probe's key.
    using InstanceMap = std::unordered_map<const void*, InstancePtr, KeyPtrHash, KeyPtrEqual>;

    class DataLock;

    bool holdsDataLock() const noexcept {
        return dataOwner_.load(std::memory_order_relaxed) == std::this_thread::get_id();
    }

    void sourceLost(double sourceTime, long nowMs);
    void addToQueue(std::shared_ptr<void> data, double sourceTime, bool validData, InstanceState state,
                    InstanceEvent event, InstancePtr instance, long nowMs);
    void internalReadQueue(DataEventPredicate& predicate);
    EventList::iterator unlink(EventList::iterator it);
    void purge(long nowMs);
    void housekeeping(long nowMs);
    void expireInstances(long nowMs);
    std::function<void()> makeExpiryAction(const InstancePtr& instance);
    void takeFromGlobal(unsigned long maxCount, SamplesOut& out);
    void takeFromInstance(const void* sample, unsigned long maxCount, SamplesOut& out);
    bool dispatchPending(const PollWaiter::Pending& pending);
    void cancelWaiters();

    const SampleOps& ops_;

    const std::int32_t instanceQueueCapacity_;
    std::int64_t maxLatencyMs_ = 0;
    std::int64_t deadlineMs_ = 0;
    std::int64_t instanceExpiryMs_ = 0;
    // Recorded only: the keyless stream has no expiry action, since a silent keyless source
    // means an unchanged value, and its loss arrives as a newData with alive 0.
    std::int64_t keylessExpiryMs_ = 0;
    std::int64_t lastSampleTimeMs_ = 0;
    std::int64_t expiryNowMs_ = 0;
    const std::uint64_t queueCapacity_;

    std::mutex stateMutex_;
    std::atomic<bool> closed_{false}; // written under the state mutex; read by deliveries without it

    std::mutex dataMutex_;
    // Deliveries waiting for the data mutex (see DataLock's unlessClosed).
    std::mutex releaseMutex_;
    std::condition_variable released_;
    std::atomic<int> deliveriesWaiting_{0};
    std::atomic<bool> deliveriesStopped_{false};
    std::atomic<std::thread::id> dataOwner_{std::thread::id()};
    std::mutex dispatchMutex_;

    InstanceMap instances_;
    EventList queue_;
    PredicateMap predicates_;
    SyncSubscriptionMap syncSubscriptions_;
};

/// The typed edge of QueuedSubscriberCore for T and its binding ST: turns samples, filters and
/// callbacks into their untyped forms once, and the results back.
template <class T, class ST>
class QueuedSubscriberImpl final : public QueuedSubscriberCore {
public:
    using QoSList = QueuedSubscriberCore::QoSList;
    using EventCallback = typename Subscriber<T>::EventCallback;
    using NotifyCallback = typename Subscriber<T>::NotifyCallback;
    using Event = DataEventImpl<T, ST>;

    /// subscriber: the front handed to callbacks; it owns this object and outlives it.
    QueuedSubscriberImpl(Subscriber<T>& subscriber, const QoSList& qos, const QueueCapacities& capacities = {})
        : QueuedSubscriberCore(sampleOps<T, ST>(), qos, capacities), subscriber_(subscriber) {}

    void newData(std::unique_ptr<T> data, double sourceTime, long alive, long receptionTimeMs) {
        QueuedSubscriberCore::newData(ownAs<T>(std::move(data)), sourceTime, alive, receptionTimeMs);
    }

    std::vector<std::shared_ptr<T>> read(unsigned long maxCount) {
        std::vector<std::shared_ptr<T>> samples;
        SamplesInto<T> out(samples);
        QueuedSubscriberCore::read(maxCount, out);
        return samples;
    }

    /// Takes all queued samples of the instance, oldest first.
    std::vector<std::shared_ptr<T>> readInstance(const T& instance) {
        std::vector<std::shared_ptr<T>> samples;
        SamplesInto<T> out(samples);
        QueuedSubscriberCore::readInstance(&instance, 0, out);
        return samples;
    }

    /// Copies the newest queued sample of the instance into out (the single-instance read
    /// takes all of them: out receives the instance's latest value).
    bool readInstance(const T& instance, T& out) {
        stateCheck();
        // Checked before reading, so that a wrong output object costs no samples.
        ST* target = dynamic_cast<ST*>(&out);
        if (target == nullptr) {
            const char* const message = "data type for instance or value is incorrect. Not a DDS supported type";
            LOG4CPLUS_ERROR(logger_, message);
            throw IllegalStateException(message);
        }
        // Through the front, so that an override of the single-instance read is honoured.
        const auto samples = subscriber_.readInstance(instance);
        if (samples.empty()) return false;
        target->copy(*samples.back());
        return true;
    }

    void readDataEvents(const DataEventFilter<T>& filter, std::vector<std::shared_ptr<DataEvent<T>>>& events,
                        unsigned long maxCount, const std::chrono::milliseconds& timeout) {
        EventsInto out(events);
        QueuedSubscriberCore::readDataEvents(borrowed(filter), out, maxCount, timeout);
    }

    std::unique_ptr<Subscription> subscribe(const DataEventFilter<T>& filter, EventCallback callback) {
        return QueuedSubscriberCore::subscribe(owned(filter), wrap(std::move(callback)));
    }
    std::unique_ptr<Subscription> subscribeAsync(const DataEventFilter<T>& filter, EventCallback callback) {
        return QueuedSubscriberCore::subscribeAsync(owned(filter), wrap(std::move(callback)));
    }
    std::unique_ptr<Subscription> subscribeAsync(const DataEventFilter<T>& filter, NotifyCallback callback) {
        return QueuedSubscriberCore::subscribeAsync(
            owned(filter), NotifyFn([callback = std::move(callback), &front = subscriber_] { callback(front); }));
    }

    /// Takes the oldest queued sample; the loan holds no sample when nothing is queued.
    std::unique_ptr<LoanedDataEntity<T>> loanedRead() {
        std::vector<std::shared_ptr<T>> samples;
        SamplesInto<T> out(samples);
        QueuedSubscriberCore::read(1, out);
        return std::make_unique<NoopLoanedDataEntityImpl<T, ST>>(samples.empty() ? nullptr : std::move(samples[0]));
    }

    /// Takes the oldest queued sample of the instance; the others stay queued.
    std::unique_ptr<LoanedDataEntity<T>> loanedReadInstance(const T& instance) {
        std::vector<std::shared_ptr<T>> samples;
        SamplesInto<T> out(samples);
        QueuedSubscriberCore::readInstance(&instance, 1, out);
        return std::make_unique<NoopLoanedDataEntityImpl<T, ST>>(samples.empty() ? nullptr : std::move(samples[0]));
    }

    std::shared_ptr<T> createDataEntity() { return opcua::detail::ps::createDataEntityInternal<T, ST>(logger_); }

protected:
    void checkSample(const void* instance) override {
        opcua::detail::ps::obtainImpl<T, ST>(*static_cast<const T*>(instance), logger_);
    }

private:
    class EventsInto final : public EventsOut {
    public:
        explicit EventsInto(std::vector<std::shared_ptr<DataEvent<T>>>& events) noexcept : events_(events) {}
        void add(const std::shared_ptr<EventCore>& event) override { events_.push_back(Event::of(event)); }

    private:
        std::vector<std::shared_ptr<DataEvent<T>>>& events_;
    };

    /// The filter with the caller's instance, for a read that ends before the call returns.
    static FilterCore borrowed(const DataEventFilter<T>& filter) {
        return FilterCore{std::shared_ptr<const void>(std::shared_ptr<const void>(), filter.getInstance()),
                          filter.getInstanceState(), filter.getInstanceEvents()};
    }
    /// The filter with its own copy of the instance, for a subscription.
    static FilterCore owned(const DataEventFilter<T>& filter) {
        std::shared_ptr<const void> instance;
        if (const T* sample = filter.getInstance()) instance = std::shared_ptr<const T>(sample->clone());
        return FilterCore{std::move(instance), filter.getInstanceState(), filter.getInstanceEvents()};
    }
    EventFn wrap(EventCallback callback) {
        return [callback = std::move(callback), &front = subscriber_](const EventCore& event) {
            callback(front, Event::of(event));
        };
    }

    Subscriber<T>& subscriber_;
};

} // namespace vesk::duvo::ps::queue::detail
