#include <duvo/ps/queue/queuedSubscriberImpl.hpp>

#include <algorithm>

#include <vesk/duvo/util.hpp>

namespace vesk::duvo::ps::queue {

void SyncQueuedSubscription::close() {
    if (closed_.load()) return;
    if (auto subscriber = subscriber_.lock()) subscriber->removeSyncSubscription(key_);
    closed_.store(true);
}

void AsyncQueuedSubscription::close() {
    if (closed_.load()) return;
    if (auto subscriber = subscriber_.lock()) subscriber->removeAsyncSubscription(key_);
    closed_.store(true);
}

namespace detail {

/// Holds the data mutex and records the holding thread, so that a callback calling back
/// into the subscriber is refused rather than deadlocking.
class QueuedSubscriberCore::DataLock {
public:
    static constexpr struct UnlessClosed {
    } unlessClosed{};

    explicit DataLock(QueuedSubscriberCore& impl) : impl_(impl) {
        refuseReentry();
        impl_.dataMutex_.lock();
        own();
    }
    /// A delivery's: gives up once deliveries are stopped. The closing thread may hold the
    /// data mutex (a callback run by a scan closes or drops the subscriber) and wait for
    /// this very delivery to leave the monitor or poller.
    DataLock(QueuedSubscriberCore& impl, UnlessClosed) : impl_(impl) {
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
        if (impl_.holdsDataLock()) throw IllegalStateException("Subscriber called from one of its own callbacks");
    }
    void own() {
        owned_ = true;
        impl_.dataOwner_.store(std::this_thread::get_id(), std::memory_order_relaxed);
    }

    QueuedSubscriberCore& impl_;
    bool owned_ = false;
};

QueuedSubscriberCore::QueuedSubscriberCore(const SampleOps& ops, const QoSList& qos, const QueueCapacities& capacities)
    : logger_(log4cplus::Logger::getInstance("orsa.duvo.opcua.subscriber")), ops_(ops),
      instanceQueueCapacity_(capacities.instance), queueCapacity_(capacities.queue),
      instances_(0, KeyPtrHash{&ops}, KeyPtrEqual{&ops}) {
    for (const auto& q : qos) {
        if (const auto* latency = dynamic_cast<const ps::qos::Latency*>(q.get()))
            maxLatencyMs_ = latency->getValue().count();
        else if (const auto* deadline = dynamic_cast<const ps::qos::Deadline*>(q.get()))
            deadlineMs_ = deadline->getValue().count();
    }
    instanceExpiryMs_ = maxLatencyMs_ != 0 && deadlineMs_ != 0 ? maxLatencyMs_ + deadlineMs_ : 0;
}

QueuedSubscriberCore::~QueuedSubscriberCore() {
    // Queued events and their instance queues point at each other; break those cycles, and
    // leave no expiry action that could call into this object.
    for (auto& entry : instances_) {
        InstanceQueue& instance = *entry.second;
        instance.setExpiryAction(nullptr);
        for (auto& event : instance.events()) event->instancePos_.reset();
        instance.events().clear();
    }
}

void QueuedSubscriberCore::newData(OwnedSample data, double sourceTime, long alive, long receptionTimeMs) {
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
    if (data && ops_.hasKey(data.get())) {
        const auto found = instances_.find(data.get());
        if (found != instances_.end()) {
            instance = found->second;
            const long previous = instance->aliveCount();
            instance->setAliveCount(alive);
            event = alive == 0 ? InstanceNotAlive : previous != 0 ? InstanceUpdated : InstanceAppeared;
        } else {
            instance = std::make_shared<InstanceQueue>(instanceQueueCapacity_, alive, ops_.cloneKey(data.get()));
            if (instanceExpiryMs_ > 0) instance->setExpiryAction(makeExpiryAction(instance));
            instances_.emplace(instance->key(), instance);
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
    addToQueue(std::shared_ptr<void>(std::move(data)), sourceTime, true, state, event, std::move(instance),
               receptionTimeMs);
}

void QueuedSubscriberCore::deliver(OwnedSample data, double sourceTime, long alive) {
    // A callback of this delivery may drop the front: the store stays until it ends.
    const std::shared_ptr<QueuedSubscriberCore> self = shared_from_this();
    self->newData(std::move(data), sourceTime, alive, static_cast<long>(util::currentTimeMillis()));
}

void QueuedSubscriberCore::read(unsigned long maxCount, SamplesOut& out) {
    stateCheck();
    DataLock lock(*this);
    housekeeping(util::currentTimeMillis());
    takeFromGlobal(maxCount, out);
}

void QueuedSubscriberCore::readInstance(const void* instance, unsigned long maxCount, SamplesOut& out) {
    stateCheck();
    checkSample(instance);
    DataLock lock(*this);
    housekeeping(util::currentTimeMillis());
    takeFromInstance(instance, maxCount, out);
}

unsigned long QueuedSubscriberCore::poll(unsigned long maxCount, const std::chrono::milliseconds& timeout) {
    stateCheck();
    const auto start = std::chrono::steady_clock::now();
    if (timeout.count() < 0) throw DuvoException("negative timeout given to poll");
    // Kept alive while waiting, and while a callback closes or drops the subscriber.
    const auto self = shared_from_this();

    // The scan takes the queued events for the callbacks, which then run with no lock held
    // like those of the events that arrive later: a callback that closes the subscriber
    // waits for a delivery in progress, and that delivery needs the data mutex.
    auto waiter = std::make_shared<PollWaiter>();
    std::string key;
    {
        DataLock lock(*this);
        housekeeping(util::currentTimeMillis());
        DataEventPredicatePoll scan(ops_, syncSubscriptions_, waiter, maxCount);
        internalReadQueue(scan);
        if (!countReached(waiter->count.load(), maxCount) && timeout.count() != 0) {
            key = util::newUUID();
            predicates_.emplace(
                key, std::make_shared<DataEventPredicatePollListener>(ops_, syncSubscriptions_, waiter, maxCount));
        }
    }

    unsigned long dispatched = 0;
    const auto deadline = start + timeout;
    for (;;) {
        PollWaiter::Pending next;
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
        PollWaiter::Pending next;
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

void QueuedSubscriberCore::readDataEvents(const FilterCore& filter, EventsOut& out, unsigned long maxCount,
                                          const std::chrono::milliseconds& timeout) {
    stateCheck();
    const auto start = std::chrono::steady_clock::now();
    if (timeout.count() < 0) throw DuvoException("negative timeout given to readDataEvents");
    if (filter.instance) checkSample(filter.instance.get());
    const auto self = shared_from_this();

    auto waiter = std::make_shared<ReadEventsWaiter>();
    std::string key;
    {
        DataLock lock(*this);
        housekeeping(util::currentTimeMillis());
        DataEventPredicateReadEvents scan(ops_, filter, out, waiter->count, maxCount);
        internalReadQueue(scan);
        if (countReached(waiter->count.load(), maxCount) || timeout.count() == 0) return;
        key = util::newUUID();
        // The filter's instance is the caller's: the listener leaves before this returns.
        predicates_.emplace(key,
                            std::make_shared<DataEventPredicateReadEventsListener>(ops_, filter, waiter, maxCount));
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
    for (const auto& event : waiter->events) out.add(event);
}

std::unique_ptr<Subscription> QueuedSubscriberCore::subscribe(FilterCore filter, EventFn callback) {
    stateCheck();
    if (filter.instance) checkSample(filter.instance.get());
    auto entry = std::make_shared<SyncSubscriptionEntry>(std::move(filter), std::move(callback));
    const std::string key = util::newUUID();
    {
        DataLock lock(*this);
        filterCheck(ops_, entry->filter, syncSubscriptions_, predicates_);
        syncSubscriptions_.emplace(key, std::move(entry));
    }
    return std::make_unique<SyncQueuedSubscription>(key, weak_from_this());
}

std::unique_ptr<Subscription> QueuedSubscriberCore::subscribeAsync(FilterCore filter, EventFn callback) {
    stateCheck();
    if (filter.instance) checkSample(filter.instance.get());
    auto predicate =
        std::make_shared<DataEventPredicateAsyncSubscriptionListener>(ops_, std::move(filter), std::move(callback));
    const std::string key = util::newUUID();
    const auto self = shared_from_this(); // a callback may drop the subscriber
    {
        DataLock lock(*this);
        filterCheck(ops_, predicate->getFilter(), syncSubscriptions_, predicates_);
        internalReadQueue(*predicate);
        predicates_.emplace(key, std::move(predicate));
    }
    return std::make_unique<AsyncQueuedSubscription>(key, weak_from_this());
}

std::unique_ptr<Subscription> QueuedSubscriberCore::subscribeAsync(FilterCore filter, NotifyFn callback) {
    stateCheck();
    if (filter.instance) checkSample(filter.instance.get());
    auto predicate =
        std::make_shared<DataEventPredicateAsyncSubscriptionNotifier>(ops_, std::move(filter), std::move(callback));
    const std::string key = util::newUUID();
    const auto self = shared_from_this(); // a callback may drop the subscriber
    {
        // The queue is walked under the data mutex too: the dispatch mutex alone does not
        // keep newData from changing it.
        DataLock lock(*this);
        std::lock_guard<std::mutex> dispatch(dispatchMutex_);
        filterCheck(ops_, predicate->getFilter(), syncSubscriptions_, predicates_);
        internalReadQueue(*predicate);
        predicates_.emplace(key, std::move(predicate));
    }
    return std::make_unique<AsyncQueuedSubscription>(key, weak_from_this());
}

void QueuedSubscriberCore::close() {
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

void QueuedSubscriberCore::stateCheck() {
    std::lock_guard<std::mutex> lock(stateMutex_);
    if (closed_) {
        LOG4CPLUS_ERROR(logger_, "Subscriber already closed");
        throw IllegalStateException("Subscriber already closed");
    }
}

void QueuedSubscriberCore::stopDeliveries() noexcept {
    deliveriesStopped_.store(true);
    std::lock_guard<std::mutex> waiting(releaseMutex_);
    released_.notify_all();
}

void QueuedSubscriberCore::removeSyncSubscription(const std::string& key) {
    DataLock lock(*this);
    const auto found = syncSubscriptions_.find(key);
    if (found == syncSubscriptions_.end()) return;
    found->second->closed.store(true);
    syncSubscriptions_.erase(found);
}

void QueuedSubscriberCore::removeAsyncSubscription(const std::string& key) {
    DataLock lock(*this);
    predicates_.erase(key);
}

/// With the data mutex: the source is lost and no sample came with the news.
void QueuedSubscriberCore::sourceLost(double sourceTime, long nowMs) {
    if (instances_.empty()) {
        if (lastSampleTimeMs_ != 0)
            addToQueue(nullptr, sourceTime, false, InstanceState::NotAlive, InstanceNotAlive, nullptr, nowMs);
    } else {
        for (auto& entry : instances_) {
            const InstancePtr& instance = entry.second;
            instance->setAliveCount(0);
            addToQueue(std::shared_ptr<void>(ops_.clone(instance->key())), sourceTime, false, InstanceState::NotAlive,
                       InstanceNotAlive, instance, nowMs);
        }
    }
    keylessExpiryMs_ = 0;
    lastSampleTimeMs_ = 0;
}

/// With the data mutex: builds one event and offers it to the predicates, then queues it
/// unless a predicate took it.
void QueuedSubscriberCore::addToQueue(std::shared_ptr<void> data, double sourceTime, bool validData,
                                      InstanceState state, InstanceEvent event, InstancePtr instance, long nowMs) {
    // A callback of an earlier event may have closed the subscriber, or dropped its front.
    if (closed_.load()) return;
    auto created = ops_.newEvent(std::move(instance), sourceTime, std::move(data), validData, state, event);
    bool taken = false;
    {
        std::lock_guard<std::mutex> dispatch(dispatchMutex_);
        for (auto it = predicates_.begin(); it != predicates_.end(); ++it) {
            const MatchResult result = it->second->matchAndProcess(created);
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
void QueuedSubscriberCore::internalReadQueue(DataEventPredicate& predicate) {
    for (auto it = queue_.begin(); it != queue_.end() && !closed_.load();) {
        const std::shared_ptr<EventCore> offered = *it;
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
EventList::iterator QueuedSubscriberCore::unlink(EventList::iterator it) {
    const std::shared_ptr<EventCore> event = *it;
    event->globalPos_.reset();
    auto next = queue_.erase(it);
    event->removeFromInstanceQueue();
    return next;
}

/// With the data mutex: drops queued events older than the deadline, from the front.
void QueuedSubscriberCore::purge(long nowMs) {
    if (deadlineMs_ == 0) return;
    const double oldest = util::timestampToDouble(nowMs - deadlineMs_);
    while (!queue_.empty() && queue_.front()->sourceTime_ < oldest) unlink(queue_.begin());
}

/// With the data mutex: the age purge and the instance expiry that every read runs first.
void QueuedSubscriberCore::housekeeping(long nowMs) {
    purge(nowMs);
    expireInstances(nowMs);
}

/// With the data mutex: runs the expiry action of every alive instance whose last sample
/// is older than the instance expiry. There is no timer (the plug-in starts no thread), so
/// expiry is noticed by the next newData or read.
void QueuedSubscriberCore::expireInstances(long nowMs) {
    if (instanceExpiryMs_ <= 0) return;
    expiryNowMs_ = nowMs;
    for (auto& entry : instances_) {
        InstanceQueue& instance = *entry.second;
        if (instance.expiryTimeMs() != 0 && instance.expiryTimeMs() < nowMs && instance.expiryAction())
            instance.expiryAction()();
    }
}

/// An instance that has sent nothing within the instance expiry is taken as lost: it goes
/// not alive with an event of its own, as it would on a loss of the source, and a later
/// sample brings it back with event 0.
std::function<void()> QueuedSubscriberCore::makeExpiryAction(const InstancePtr& instance) {
    return [this, weak = std::weak_ptr<InstanceQueue>(instance)] {
        const InstancePtr expired = weak.lock();
        if (!expired) return;
        expired->setExpiryTimeMs(0);
        if (expired->aliveCount() == 0) return;
        expired->setAliveCount(0);
        addToQueue(std::shared_ptr<void>(ops_.clone(expired->key())), util::timestampToDouble(expiryNowMs_), false,
                   InstanceState::NotAlive, InstanceNotAlive, expired, expiryNowMs_);
    };
}

/// With the data mutex: takes up to maxCount (0: all) samples from the global queue.
void QueuedSubscriberCore::takeFromGlobal(unsigned long maxCount, SamplesOut& out) {
    const std::size_t wanted = maxCount == 0 ? queue_.size() : std::min<std::size_t>(maxCount, queue_.size());
    out.reserve(wanted);
    std::size_t taken = 0;
    while (taken < wanted && !queue_.empty()) {
        const std::shared_ptr<EventCore> event = queue_.front();
        unlink(queue_.begin());
        if (event->validData()) {
            out.add(event->data_);
            ++taken;
        }
    }
}

/// With the data mutex: takes up to maxCount (0: all) samples of one instance.
void QueuedSubscriberCore::takeFromInstance(const void* sample, unsigned long maxCount, SamplesOut& out) {
    if (!ops_.hasKey(sample)) return; // keyless samples belong to no instance
    const auto found = instances_.find(sample);
    if (found == instances_.end()) return;
    InstanceQueue& instance = *found->second;
    std::size_t taken = 0;
    while (!instance.events().empty() && !countReached(taken, maxCount)) {
        const std::shared_ptr<EventCore> event = instance.events().front();
        unlink(*event->globalPos_);
        if (event->validData()) {
            out.add(event->data_);
            ++taken;
        }
    }
}

/// Runs a callback taken for poll, with no subscriber lock held; a subscription closed
/// meanwhile, or a closed subscriber, is not called.
bool QueuedSubscriberCore::dispatchPending(const PollWaiter::Pending& pending) {
    if (closed_.load() || pending.second->closed.load()) return false;
    runListenerCallback([&] { pending.second->callback(*pending.first); });
    return true;
}

/// With the data mutex.
void QueuedSubscriberCore::cancelWaiters() {
    for (auto& entry : predicates_) entry.second->cancel();
}

} // namespace detail
} // namespace vesk::duvo::ps::queue
