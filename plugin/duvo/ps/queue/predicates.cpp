#include <duvo/ps/queue/predicates.hpp>

#include <algorithm>
#include <stdexcept>

namespace vesk::duvo::ps::queue::detail {

bool matches(const SampleOps& ops, const EventCore& event, const FilterCore& filter) {
    if (filter.instance) {
        if (!event.data_ || !ops.keyEquals(filter.instance.get(), event.data_.get())) return false;
    }
    if (filter.state != InstanceState::Any && event.instanceState() != filter.state) return false;
    return filter.events.empty() || filter.events.count(event.event_) != 0;
}

DataEventPredicate::~DataEventPredicate() = default;

namespace {

/// The first synchronous subscription whose filter selects the event, or none.
std::shared_ptr<SyncSubscriptionEntry>
findSyncSubscription(const SampleOps& ops, const SyncSubscriptionMap& subscriptions, const EventCore& event) {
    for (const auto& entry : subscriptions)
        if (matches(ops, event, entry.second->filter)) return entry.second;
    return nullptr;
}

/// True when the two event sets share an element.
bool filterIntersect(const std::set<InstanceEvent>& a, const std::set<InstanceEvent>& b) {
    return std::any_of(a.begin(), a.end(), [&](InstanceEvent e) { return b.count(e) != 0; });
}

/// A filter that selects every event of every instance. An empty event set means all events.
bool selectsEverything(const FilterCore& f) {
    return f.instance == nullptr && f.state == InstanceState::Any &&
           (f.events.empty() ||
            f.events == std::set<InstanceEvent>{InstanceAppeared, InstanceUpdated, InstanceNotAlive});
}

} // namespace

MatchResult DataEventPredicateReadEvents::matchAndProcess(const std::shared_ptr<EventCore>& event) {
    if (!matches(*event)) return MatchResult::NoMatch;
    out_.add(event);
    return countReached(++count_, maxCount_) ? MatchResult::ConsumeAndStop : MatchResult::Consume;
}

MatchResult DataEventPredicateReadEventsListener::matchAndProcess(const std::shared_ptr<EventCore>& event) {
    if (!matches(*event)) return MatchResult::NoMatch;
    std::lock_guard<std::mutex> lock(waiter_->mutex);
    waiter_->events.push_back(event);
    if (!countReached(++waiter_->count, maxCount_)) return MatchResult::Consume;
    waiter_->done = true;
    waiter_->wake.notify_one();
    return MatchResult::Done;
}

void DataEventPredicateReadEventsListener::cancel() {
    std::lock_guard<std::mutex> lock(waiter_->mutex);
    waiter_->cancelled = true;
    waiter_->wake.notify_one();
}

MatchResult DataEventPredicatePoll::matchAndProcess(const std::shared_ptr<EventCore>& event) {
    if (!matches(*event)) return MatchResult::NoMatch;
    auto subscription = findSyncSubscription(ops_, subscriptions_, *event);
    if (!subscription) return MatchResult::NoMatch;
    std::lock_guard<std::mutex> lock(waiter_->mutex);
    waiter_->pending.emplace_back(event, std::move(subscription));
    return countReached(++waiter_->count, maxCount_) ? MatchResult::ConsumeAndStop : MatchResult::Consume;
}

MatchResult DataEventPredicatePollListener::matchAndProcess(const std::shared_ptr<EventCore>& event) {
    if (!matches(*event)) return MatchResult::NoMatch;
    auto subscription = findSyncSubscription(ops_, subscriptions_, *event);
    if (!subscription) return MatchResult::NoMatch;
    const bool reached = countReached(++waiter_->count, maxCount_);
    std::lock_guard<std::mutex> lock(waiter_->mutex);
    waiter_->pending.emplace_back(event, std::move(subscription));
    waiter_->finished = reached;
    waiter_->wake.notify_one();
    return reached ? MatchResult::Done : MatchResult::Consume;
}

void DataEventPredicatePollListener::cancel() {
    std::lock_guard<std::mutex> lock(waiter_->mutex);
    waiter_->cancelled = true;
    waiter_->wake.notify_one();
}

MatchResult DataEventPredicateAsyncSubscriptionListener::matchAndProcess(const std::shared_ptr<EventCore>& event) {
    if (!matches(*event)) return MatchResult::NoMatch;
    runListenerCallback([&] { callback_(*event); });
    return MatchResult::Consume;
}

MatchResult DataEventPredicateAsyncSubscriptionNotifier::matchAndProcess(const std::shared_ptr<EventCore>& event) {
    if (!matches(*event)) return MatchResult::NoMatch;
    runNotifierCallback([&] { callback_(); });
    return MatchResult::Keep;
}

bool filtersOverlap(const SampleOps& ops, const FilterCore& a, const FilterCore& b) {
    // A catch-all filter conflicts with anything, whichever side it is on.
    if (selectsEverything(a) || selectsEverything(b)) return true;
    const void* ia = a.instance.get();
    const void* ib = b.instance.get();
    const bool sameInstance =
        (ia == nullptr && ib == nullptr) || (ia != nullptr && ib != nullptr && ops.keyEquals(ia, ib));
    const auto sa = a.state;
    const auto sb = b.state;
    const bool sameState = sa == sb || sa == InstanceState::Any || sb == InstanceState::Any;
    const auto& ea = a.events;
    const auto& eb = b.events;
    const bool sameEvents = ea.empty() || eb.empty() || filterIntersect(ea, eb);
    return sameInstance && sameState && sameEvents;
}

void filterCheck(const SampleOps& ops, const FilterCore& filter, const SyncSubscriptionMap& subscriptions,
                 const PredicateMap& predicates) {
    for (const auto& entry : subscriptions)
        if (filtersOverlap(ops, filter, entry.second->filter)) throw std::runtime_error("filter intersection");
    for (const auto& entry : predicates)
        if (entry.second->selectsByFilter() && filtersOverlap(ops, filter, entry.second->getFilter()))
            throw std::runtime_error("filter intersection");
}

} // namespace vesk::duvo::ps::queue::detail
