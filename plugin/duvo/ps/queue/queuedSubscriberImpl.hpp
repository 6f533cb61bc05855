#pragma once
#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
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
#include <vesk/duvo/util.hpp>

#include <duvo/opcua/detail/binding/traits.hpp>
#include <duvo/ps/queue/dataEventImpl.hpp>
#include <duvo/ps/queue/instanceQueue.hpp>
#include <duvo/ps/queue/keyHash.hpp>
#include <duvo/ps/queue/loaned.hpp>
#include <duvo/ps/queue/predicates.hpp>
#include <duvo/ps/queue/subscriptions.hpp>

namespace vesk::duvo::ps::queue::detail {

/// Queue limits. Both are fixed at 2147483647 in service; tests make them small to reach the
/// overflow rule.
struct QueueCapacities {
    std::uint64_t queue = 2147483647;
    std::int32_t instance = 2147483647;
};

/// The state and rules behind QueuedSubscriber: one global arrival-ordered queue of data
/// events, one queue per keyed instance, the waiting readers and the subscriptions.
///
/// Lock order: data mutex, then dispatch mutex, then a waiter's own mutex. Readers never wait
/// while holding the data mutex. Asynchronous callbacks run under the data mutex and must not
/// call back into the subscriber: such a call is refused with an IllegalStateException instead
/// of deadlocking. Synchronous callbacks run without any subscriber lock. Once closed, no
/// callback starts: a callback may close, or destroy, the subscriber it was called for.
template <class T, class ST>
class QueuedSubscriberImpl : public std::enable_shared_from_this<QueuedSubscriberImpl<T, ST>> {
public:
    using QoSList = std::vector<std::shared_ptr<ps::qos::QoS>>;
    using EventCallback = typename Subscriber<T>::EventCallback;
    using NotifyCallback = typename Subscriber<T>::NotifyCallback;
    using Event = DataEventImpl<T, ST>;
    using EventPtr = std::shared_ptr<Event>;
    using Instance = InstanceQueue<T, ST>;
    using InstancePtr = std::shared_ptr<Instance>;
    using Predicate = DataEventPredicate<T, ST>;
    using PredicateMap = std::map<std::string, std::shared_ptr<Predicate>>;

    /// subscriber: the front handed to callbacks; it owns this object and outlives it.
    QueuedSubscriberImpl(Subscriber<T>& subscriber, const QoSList& qos, const QueueCapacities& capacities = {})
        : subscriber_(subscriber), logger_(log4cplus::Logger::getInstance("orsa.duvo.opcua.subscriber")),
          instanceQueueCapacity_(capacities.instance), queueCapacity_(capacities.queue) {
        for (const auto& q : qos) {
            if (const auto* latency = dynamic_cast<const ps::qos::Latency*>(q.get()))
                maxLatencyMs_ = latency->getValue().count();
            else if (const auto* deadline = dynamic_cast<const ps::qos::Deadline*>(q.get()))
                deadlineMs_ = deadline->getValue().count();
        }
        instanceExpiryMs_ = maxLatencyMs_ != 0 && deadlineMs_ != 0 ? maxLatencyMs_ + deadlineMs_ : 0;
    }

    QueuedSubscriberImpl(const QueuedSubscriberImpl&) = delete;
    QueuedSubscriberImpl& operator=(const QueuedSubscriberImpl&) = delete;

    ~QueuedSubscriberImpl() {
        // Queued events and their instance queues point at each other; break those cycles, and
        // leave no expiry action that could call into this object.
        for (auto& entry : instances_) {
            Instance& instance = *entry.second;
            instance.setExpiryAction(nullptr);
            for (auto& event : instance.events()) event->instancePos_.reset();
            instance.events().clear();
        }
    }

    std::int64_t getMaxLatencyMs() const noexcept { return maxLatencyMs_; }
    std::int64_t getDeadlineMs() const noexcept { return deadlineMs_; }
    std::int64_t getInstanceExpiryMs() const noexcept { return instanceExpiryMs_; }

    /// A sample (or its absence) from the source. sourceTime: seconds since the Unix epoch;
    /// alive: 0 when the source was lost; receptionTimeMs: Unix milliseconds.
    void newData(std::unique_ptr<T> data, double sourceTime, long alive, long receptionTimeMs) {
        DataLock lock(*this, DataLock::unlessClosed);
        if (!lock) return;
        expireInstances(receptionTimeMs);

        if (alive == 0 && !data) {
            sourceLost(sourceTime, receptionTimeMs);
            return;
        }
        const InstanceState state = alive == 0 ? InstanceState::NotAlive : InstanceState::Alive;
        InstanceEvent event = alive == 0 ? InstanceNotAlive : lastSampleTimeMs_ != 0 ? InstanceUpdated : InstanceAppeared;

        InstancePtr instance;
        if (data && data->hasKey()) {
            auto key = data->cloneKey();
            const auto found = instances_.find(key);
            if (found != instances_.end()) {
                instance = found->second;
                const long previous = instance->aliveCount();
                instance->setAliveCount(alive);
                event = alive == 0 ? InstanceNotAlive : previous != 0 ? InstanceUpdated : InstanceAppeared;
            } else {
                instance = std::make_shared<Instance>(instanceQueueCapacity_, alive, data->cloneKey());
                if (instanceExpiryMs_ > 0) instance->setExpiryAction(makeExpiryAction(instance));
                instances_.emplace(std::move(key), instance);
                event = alive != 0 ? InstanceAppeared : InstanceNotAlive;
            }
        }

        const std::int64_t sourceMs = util::timestampFromDouble(sourceTime);
        lastSampleTimeMs_ = sourceMs;
        if (maxLatencyMs_ != 0 && receptionTimeMs - sourceMs > maxLatencyMs_) return;
        if (deadlineMs_ != 0 && sourceMs + deadlineMs_ < receptionTimeMs) return;

        if (instanceExpiryMs_ > 0) {
            if (instance)
                instance->setExpiryTimeMs(sourceMs + instanceExpiryMs_);
            else
                keylessExpiryMs_ = sourceMs + instanceExpiryMs_;
        }
        addToQueue(std::move(data), sourceTime, true, std::make_unique<InstanceState>(state), event,
                   std::move(instance), receptionTimeMs);
    }

    /// Takes up to maxCount samples (0: all), oldest first; events without data are dropped.
    std::vector<std::shared_ptr<T>> read(unsigned long maxCount) {
        stateCheck();
        DataLock lock(*this);
        housekeeping(util::currentTimeMillis());
        return takeFromGlobal(maxCount);
    }

    /// Takes all queued samples of the instance, oldest first.
    std::vector<std::shared_ptr<T>> readInstance(const T& instance) {
        stateCheck();
        checkSample(instance);
        DataLock lock(*this);
        housekeeping(util::currentTimeMillis());
        return takeFromInstance(instance, 0);
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

    unsigned long poll(unsigned long maxCount, const std::chrono::milliseconds& timeout) {
        stateCheck();
        const auto start = std::chrono::steady_clock::now();
        if (timeout.count() < 0) throw DuvoException("negative timeout given to poll");
        // Kept alive while waiting, and while a callback closes or drops the subscriber.
        const auto self = this->shared_from_this();

        // The scan takes the queued events for the callbacks, which then run with no lock held
        // like those of the events that arrive later: a callback that closes the subscriber
        // waits for a delivery in progress, and that delivery needs the data mutex.
        auto waiter = std::make_shared<PollWaiter<T>>();
        std::string key;
        {
            DataLock lock(*this);
            housekeeping(util::currentTimeMillis());
            DataEventPredicatePoll<T, ST> scan(syncSubscriptions_, waiter, maxCount);
            internalReadQueue(scan);
            if (!countReached(waiter->count.load(), maxCount) && timeout.count() != 0) {
                key = util::newUUID();
                predicates_.emplace(key, std::make_shared<DataEventPredicatePollListener<T, ST>>(syncSubscriptions_,
                                                                                              waiter, maxCount));
            }
        }

        unsigned long dispatched = 0;
        const auto deadline = start + timeout;
        for (;;) {
            typename PollWaiter<T>::Pending next;
            {
                std::unique_lock<std::mutex> lock(waiter->mutex);
                if (waiter->pending.empty()) {
                    // The listener leaves at the count; when a handed-over event belonged to
                    // a subscription closed meanwhile, the count is short but nothing more comes.
                    if (key.empty() || waiter->cancelled || waiter->finished ||
                        deadline - std::chrono::steady_clock::now() < std::chrono::milliseconds(1))
                        break;
                    waiter->wake.wait_until(lock, deadline);
                    continue;
                }
                next = std::move(waiter->pending.front());
                waiter->pending.pop_front();
            }
            if (dispatchPending(next)) ++dispatched;
            if (countReached(dispatched, maxCount) || closed_.load()) break;
        }
        if (!key.empty()) {
            DataLock lock(*this);
            predicates_.erase(key);
        }
        // Events handed over before the predicate left were taken from the stream: deliver them
        // rather than lose them.
        for (;;) {
            typename PollWaiter<T>::Pending next;
            {
                std::lock_guard<std::mutex> lock(waiter->mutex);
                if (waiter->pending.empty()) break;
                next = std::move(waiter->pending.front());
                waiter->pending.pop_front();
            }
            if (dispatchPending(next)) ++dispatched;
        }
        return dispatched;
    }

    void readDataEvents(const DataEventFilter<T>& filter, std::vector<std::shared_ptr<DataEvent<T>>>& events,
                        unsigned long maxCount, const std::chrono::milliseconds& timeout) {
        stateCheck();
        const auto start = std::chrono::steady_clock::now();
        if (timeout.count() < 0) throw DuvoException("negative timeout given to readDataEvents");
        if (filter.getInstance()) checkSample(*filter.getInstance());
        const auto self = this->shared_from_this();

        auto waiter = std::make_shared<ReadEventsWaiter<T>>();
        std::string key;
        {
            DataLock lock(*this);
            housekeeping(util::currentTimeMillis());
            DataEventPredicateReadEvents<T, ST> scan(filter, events, waiter->count, maxCount);
            internalReadQueue(scan);
            if (countReached(waiter->count.load(), maxCount) || timeout.count() == 0) return;
            key = util::newUUID();
            predicates_.emplace(key, std::make_shared<DataEventPredicateReadEventsListener<T, ST>>(filter, waiter,
                                                                                                  maxCount));
        }
        {
            std::unique_lock<std::mutex> lock(waiter->mutex);
            waiter->wake.wait_until(lock, start + timeout, [&] { return waiter->done || waiter->cancelled; });
        }
        {
            DataLock lock(*this);
            predicates_.erase(key);
        }
        std::lock_guard<std::mutex> lock(waiter->mutex);
        std::move(waiter->events.begin(), waiter->events.end(), std::back_inserter(events));
    }

    std::unique_ptr<Subscription> subscribe(const DataEventFilter<T>& filter, EventCallback callback) {
        stateCheck();
        if (filter.getInstance()) checkSample(*filter.getInstance());
        auto entry = std::make_shared<SyncSubscriptionEntry<T>>(filter, std::move(callback));
        const std::string key = util::newUUID();
        {
            DataLock lock(*this);
            filterCheck(filter, syncSubscriptions_, predicates_);
            syncSubscriptions_.emplace(key, std::move(entry));
        }
        return std::make_unique<SyncQueuedSubscription<T, ST>>(key, this->weak_from_this());
    }

    /// The callback runs for every matching event, queued or arriving, on the delivering thread.
    std::unique_ptr<Subscription> subscribeAsync(const DataEventFilter<T>& filter, EventCallback callback) {
        stateCheck();
        if (filter.getInstance()) checkSample(*filter.getInstance());
        auto predicate = std::make_shared<DataEventPredicateAsyncSubscriptionListener<T, ST>>(
            filter, std::move(callback), subscriber_);
        const std::string key = util::newUUID();
        const auto self = this->shared_from_this(); // a callback may drop the subscriber
        {
            DataLock lock(*this);
            filterCheck(filter, syncSubscriptions_, predicates_);
            internalReadQueue(*predicate);
            predicates_.emplace(key, std::move(predicate));
        }
        return std::make_unique<AsyncQueuedSubscription<T, ST>>(key, this->weak_from_this());
    }

    /// The callback is told of matching events, which stay queued; it is told at once when a
    /// matching event is already queued.
    std::unique_ptr<Subscription> subscribeAsync(const DataEventFilter<T>& filter, NotifyCallback callback) {
        stateCheck();
        if (filter.getInstance()) checkSample(*filter.getInstance());
        auto predicate = std::make_shared<DataEventPredicateAsyncSubscriptionNotifier<T, ST>>(
            filter, std::move(callback), subscriber_);
        const std::string key = util::newUUID();
        const auto self = this->shared_from_this(); // a callback may drop the subscriber
        {
            // The queue is walked under the data mutex too: the dispatch mutex alone does not
            // keep newData from changing it.
            DataLock lock(*this);
            std::lock_guard<std::mutex> dispatch(dispatchMutex_);
            filterCheck(filter, syncSubscriptions_, predicates_);
            internalReadQueue(*predicate);
            predicates_.emplace(key, std::move(predicate));
        }
        return std::make_unique<AsyncQueuedSubscription<T, ST>>(key, this->weak_from_this());
    }

    /// Takes the oldest queued sample; the loan holds no sample when nothing is queued.
    std::unique_ptr<LoanedDataEntity<T>> loanedRead() {
        stateCheck();
        DataLock lock(*this);
        housekeeping(util::currentTimeMillis());
        auto samples = takeFromGlobal(1);
        return std::make_unique<NoopLoanedDataEntityImpl<T, ST>>(samples.empty() ? nullptr : std::move(samples[0]));
    }

    /// Takes the oldest queued sample of the instance; the others stay queued.
    std::unique_ptr<LoanedDataEntity<T>> loanedReadInstance(const T& instance) {
        stateCheck();
        checkSample(instance);
        DataLock lock(*this);
        housekeeping(util::currentTimeMillis());
        auto samples = takeFromInstance(instance, 1);
        return std::make_unique<NoopLoanedDataEntityImpl<T, ST>>(samples.empty() ? nullptr : std::move(samples[0]));
    }

    std::shared_ptr<T> createDataEntity() {
        return opcua::detail::ps::createDataEntityInternal<T, ST>(logger_);
    }

    /// Later operations fail their state check; readers waiting in poll or readDataEvents
    /// return at once with what they have.
    void close() {
        {
            std::lock_guard<std::mutex> lock(stateMutex_);
            closed_ = true;
        }
        if (holdsDataLock()) {
            cancelWaiters();
        } else {
            DataLock lock(*this);
            cancelWaiters();
        }
    }

    void stateCheck() {
        std::lock_guard<std::mutex> lock(stateMutex_);
        if (closed_) {
            LOG4CPLUS_ERROR(logger_, "Subscriber already closed");
            throw IllegalStateException("Subscriber already closed");
        }
    }

    /// A delivery waiting for the data mutex gives up from now on: the entity closing the
    /// store may hold it (a callback of a scan) while it waits for that delivery to leave.
    void stopDeliveries() noexcept {
        deliveriesStopped_.store(true);
        std::lock_guard<std::mutex> waiting(releaseMutex_);
        released_.notify_all();
    }

    /// Called by SyncQueuedSubscription::close.
    void removeSyncSubscription(const std::string& key) {
        DataLock lock(*this);
        const auto found = syncSubscriptions_.find(key);
        if (found == syncSubscriptions_.end()) return;
        found->second->closed.store(true);
        syncSubscriptions_.erase(found);
    }

    /// Called by AsyncQueuedSubscription::close.
    void removeAsyncSubscription(const std::string& key) {
        DataLock lock(*this);
        predicates_.erase(key);
    }

private:
    struct KeyPtrHash {
        std::size_t operator()(const std::unique_ptr<T>& key) const { return KeyHash<T>{}(*key); }
    };
    struct KeyPtrEqual {
        bool operator()(const std::unique_ptr<T>& a, const std::unique_ptr<T>& b) const { return a->keyEquals(*b); }
    };
    using InstanceMap = std::unordered_map<std::unique_ptr<T>, InstancePtr, KeyPtrHash, KeyPtrEqual>;

    /// Holds the data mutex and records the holding thread, so that a callback calling back
    /// into the subscriber is refused rather than deadlocking.
    class DataLock {
    public:
        static constexpr struct UnlessClosed {
        } unlessClosed{};

        explicit DataLock(QueuedSubscriberImpl& impl) : impl_(impl) {
            refuseReentry();
            impl_.dataMutex_.lock();
            own();
        }
        /// A delivery's: gives up once deliveries are stopped. The closing thread may hold the
        /// data mutex (a callback run by a scan closes or drops the subscriber) and wait for
        /// this very delivery to leave the monitor or poller.
        DataLock(QueuedSubscriberImpl& impl, UnlessClosed) : impl_(impl) {
            refuseReentry();
            bool locked = impl_.dataMutex_.try_lock();
            if (!locked) {
                // Woken by each release; the bounded wait notices a close.
                std::unique_lock<std::mutex> waiting(impl_.releaseMutex_);
                ++impl_.deliveriesWaiting_;
                while (!(locked = impl_.dataMutex_.try_lock()) && !impl_.deliveriesStopped_.load())
                    impl_.released_.wait_for(waiting, std::chrono::milliseconds(2));
                --impl_.deliveriesWaiting_;
            }
            if (locked) own();
        }
        ~DataLock() {
            if (!owned_) return;
            impl_.dataOwner_.store(std::thread::id(), std::memory_order_relaxed);
            impl_.dataMutex_.unlock();
            if (impl_.deliveriesWaiting_.load() > 0) {
                std::lock_guard<std::mutex> waiting(impl_.releaseMutex_);
                impl_.released_.notify_all();
            }
        }
        DataLock(const DataLock&) = delete;
        DataLock& operator=(const DataLock&) = delete;
        explicit operator bool() const noexcept { return owned_; }

    private:
        void refuseReentry() const {
            if (impl_.holdsDataLock())
                throw IllegalStateException("Subscriber called from one of its own callbacks");
        }
        void own() {
            owned_ = true;
            impl_.dataOwner_.store(std::this_thread::get_id(), std::memory_order_relaxed);
        }

        QueuedSubscriberImpl& impl_;
        bool owned_ = false;
    };

    bool holdsDataLock() const noexcept {
        return dataOwner_.load(std::memory_order_relaxed) == std::this_thread::get_id();
    }

    const ST& checkSample(const T& sample) { return opcua::detail::ps::obtainImpl<T, ST>(sample, logger_); }

    /// With the data mutex: the source is lost and no sample came with the news.
    void sourceLost(double sourceTime, long nowMs) {
        if (instances_.empty()) {
            if (lastSampleTimeMs_ != 0)
                addToQueue(nullptr, sourceTime, false, std::make_unique<InstanceState>(InstanceState::NotAlive),
                           InstanceNotAlive, nullptr, nowMs);
        } else {
            for (auto& entry : instances_) {
                const InstancePtr& instance = entry.second;
                instance->setAliveCount(0);
                addToQueue(instance->key().clone(), sourceTime, false,
                           std::make_unique<InstanceState>(InstanceState::NotAlive), InstanceNotAlive, instance, nowMs);
            }
        }
        keylessExpiryMs_ = 0;
        lastSampleTimeMs_ = 0;
    }

    /// With the data mutex: builds one event and offers it to the predicates, then queues it
    /// unless a predicate took it.
    void addToQueue(std::unique_ptr<T> data, double sourceTime, bool validData, std::unique_ptr<InstanceState> state,
                    InstanceEvent event, InstancePtr instance, long nowMs) {
        // A callback of an earlier event may have closed the subscriber, or dropped its front.
        if (closed_.load()) return;
        auto created = std::make_shared<Event>(std::move(instance), sourceTime, std::shared_ptr<T>(std::move(data)),
                                               validData, std::move(state), event);
        bool taken = false;
        {
            std::lock_guard<std::mutex> dispatch(dispatchMutex_);
            const std::shared_ptr<DataEvent<T>> offered = created;
            for (auto it = predicates_.begin(); it != predicates_.end(); ++it) {
                const MatchResult result = it->second->matchAndProcess(offered);
                if (result == MatchResult::NoMatch) continue;
                if (result == MatchResult::Done) predicates_.erase(it);
                taken = result != MatchResult::Keep;
                break;
            }
        }
        purge(nowMs);
        if (taken) return;
        // When full, the newest sample is lost: queued ones are never evicted.
        if (queue_.size() >= queueCapacity_) return;
        const InstancePtr& owner = created->instance_;
        if (owner && owner->size() >= static_cast<std::size_t>(std::max<std::int32_t>(owner->capacity(), 0))) return;
        created->globalPos_ = queue_.insert(queue_.end(), created);
        if (owner) created->instancePos_ = owner->events().insert(owner->events().end(), created);
    }

    /// With the data mutex: offers queued events, oldest first, to a predicate.
    void internalReadQueue(Predicate& predicate) {
        for (auto it = queue_.begin(); it != queue_.end() && !closed_.load();) {
            const std::shared_ptr<DataEvent<T>> offered = *it;
            switch (predicate.matchAndProcess(offered)) {
            case MatchResult::NoMatch:
                ++it;
                break;
            case MatchResult::Keep:
                return;
            case MatchResult::Consume:
                it = unlink(it);
                break;
            case MatchResult::ConsumeAndStop:
            case MatchResult::Done: // the predicate took the event: leaving it queued would deliver it twice
                unlink(it);
                return;
            }
        }
    }

    /// With the data mutex: removes the event from both queues; returns the next position.
    typename EventList<T, ST>::iterator unlink(typename EventList<T, ST>::iterator it) {
        const EventPtr event = *it;
        event->globalPos_.reset();
        auto next = queue_.erase(it);
        event->removeFromInstanceQueue();
        return next;
    }

    /// With the data mutex: drops queued events older than the deadline, from the front.
    void purge(long nowMs) {
        if (deadlineMs_ == 0) return;
        const double oldest = util::timestampToDouble(nowMs - deadlineMs_);
        while (!queue_.empty() && queue_.front()->sourceTime_ < oldest) unlink(queue_.begin());
    }

    /// With the data mutex: the age purge and the instance expiry that every read runs first.
    void housekeeping(long nowMs) {
        purge(nowMs);
        expireInstances(nowMs);
    }

    /// With the data mutex: runs the expiry action of every alive instance whose last sample
    /// is older than the instance expiry. There is no timer (the plug-in starts no thread), so
    /// expiry is noticed by the next newData or read.
    void expireInstances(long nowMs) {
        if (instanceExpiryMs_ <= 0) return;
        expiryNowMs_ = nowMs;
        for (auto& entry : instances_) {
            Instance& instance = *entry.second;
            if (instance.expiryTimeMs() != 0 && instance.expiryTimeMs() < nowMs && instance.expiryAction())
                instance.expiryAction()();
        }
    }

    /// An instance that has sent nothing within the instance expiry is taken as lost: it goes
    /// not alive with an event of its own, as it would on a loss of the source, and a later
    /// sample brings it back with event 0.
    std::function<void()> makeExpiryAction(const InstancePtr& instance) {
        return [this, weak = std::weak_ptr<Instance>(instance)] {
            const InstancePtr expired = weak.lock();
            if (!expired) return;
            expired->setExpiryTimeMs(0);
            if (expired->aliveCount() == 0) return;
            expired->setAliveCount(0);
            addToQueue(expired->key().clone(), util::timestampToDouble(expiryNowMs_), false,
                       std::make_unique<InstanceState>(InstanceState::NotAlive), InstanceNotAlive, expired,
                       expiryNowMs_);
        };
    }

    /// With the data mutex: takes up to maxCount (0: all) samples from the global queue.
    std::vector<std::shared_ptr<T>> takeFromGlobal(unsigned long maxCount) {
        const std::size_t wanted = maxCount == 0 ? queue_.size() : std::min<std::size_t>(maxCount, queue_.size());
        std::vector<std::shared_ptr<T>> samples;
        samples.reserve(wanted);
        while (samples.size() < wanted && !queue_.empty()) {
            const EventPtr event = queue_.front();
            unlink(queue_.begin());
            if (event->hasValidData()) samples.push_back(event->data_);
        }
        return samples;
    }

    /// With the data mutex: takes up to maxCount (0: all) samples of one instance.
    std::vector<std::shared_ptr<T>> takeFromInstance(const T& sample, unsigned long maxCount) {
        std::vector<std::shared_ptr<T>> samples;
        if (!sample.hasKey()) return samples; // keyless samples belong to no instance
        const auto found = instances_.find(sample.cloneKey());
        if (found == instances_.end()) return samples;
        Instance& instance = *found->second;
        while (!instance.events().empty() && !countReached(samples.size(), maxCount)) {
            const EventPtr event = instance.events().front();
            unlink(*event->globalPos_);
            if (event->hasValidData()) samples.push_back(event->data_);
        }
        return samples;
    }

    /// Runs a callback taken for poll, with no subscriber lock held; a subscription closed
    /// meanwhile, or a closed subscriber, is not called.
    bool dispatchPending(const typename PollWaiter<T>::Pending& pending) {
        if (closed_.load() || pending.second->closed.load()) return false;
        runListenerCallback([&] { pending.second->callback(subscriber_, *pending.first); });
        return true;
    }

    /// With the data mutex.
    void cancelWaiters() {
        for (auto& entry : predicates_) entry.second->cancel();
    }

    Subscriber<T>& subscriber_;
    log4cplus::Logger logger_;

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
    EventList<T, ST> queue_;
    PredicateMap predicates_;
    SyncSubscriptionMap<T> syncSubscriptions_;
};

} // namespace vesk::duvo::ps::queue::detail
