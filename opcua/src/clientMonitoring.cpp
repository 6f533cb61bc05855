#include <algorithm>
#include <cmath>
#include <cstdint>
#include <iostream>
#include <map>

#include <boost/asio/post.hpp>
#include <log4cplus/loggingmacros.h>
#include <open62541/client_subscriptions.h>

#include <vesk/duvo/opcua/uriHelper.hpp>

#include "clientCore.hpp"

// The subscription and its monitored items: made on the server by the driving thread, made
// again for a new session, their notifications and verdicts posted to the I/O context.
namespace vesk::duvo::opcua::detail {

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr UA_UInt32 itemQueueSize = 100;
constexpr auto subscriptionRetry = 1000ms;
constexpr double longestPublishingInterval = 100; // ms

// Keep-alives about once a second, and a lifetime of a minute or more.
template <class Request>
void setSubscriptionTiming(Request& request, double publishingInterval) {
    request.requestedPublishingInterval = publishingInterval;
    const double interval = std::max(1.0, publishingInterval);
    request.requestedMaxKeepAliveCount = static_cast<UA_UInt32>(std::clamp(std::ceil(1000.0 / interval), 3.0, 10000.0));
    request.requestedLifetimeCount =
        std::max<UA_UInt32>(3 * request.requestedMaxKeepAliveCount,
                            static_cast<UA_UInt32>(std::clamp(std::ceil(60000.0 / interval), 10000.0, 1e9)));
}
} // namespace

// ---------------------------------------------------------------------------------------------
// Monitored items

MonitorQueue::Handle ClientCore::monitor(OpcUaClient::NodeId nodeId, double samplingIntervalMs,
                                         std::function<void(UA_DataValue*)> cb,
                                         std::function<void(const UA_NodeId&, UA_StatusCode)> onStatus) {
    OpcUaClient::MonitoredNode node;
    node.nodeId = std::move(nodeId);
    node.samplingIntervalMs = std::max(0.0, samplingIntervalMs);
    node.callback = std::move(cb);
    node.onStatus = std::move(onStatus);
    {
        std::lock_guard<std::mutex> lock(monitoring_.mutex);
        node.clientKey = monitoring_.nextKey++;
    }
    const std::uint64_t key = node.clientKey;
    auto handle = monitors_.add(std::move(node));
    {
        std::lock_guard<std::mutex> lock(monitoring_.mutex);
        monitoring_.items[key] = ItemRecord{handle.entry()};
        monitoring_.toCreate.push_back(key);
        const double interval = handle.entry()->callback.samplingIntervalMs;
        double& smallest = monitoring_.smallestInterval;
        smallest = smallest < 0 ? interval : std::min(smallest, interval);
        monitoring_.dirty = true;
    }
    requestWake();
    return handle;
}

void ClientCore::requestSweep() {
    {
        std::lock_guard<std::mutex> lock(monitoring_.mutex);
        monitoring_.dirty = true;
        monitoring_.sweepNeeded = true;
    }
    requestWake();
}

void ClientCore::monitoringDirty() {
    std::lock_guard<std::mutex> lock(monitoring_.mutex);
    monitoring_.dirty = true;
}

void ClientCore::resetMonitoring() {
    std::lock_guard<std::mutex> lock(monitoring_.mutex);
    resetMonitoringLocked();
}

void ClientCore::resetMonitoringLocked() {
    monitoring_.sub.state = SubscriptionState::None;
    monitoring_.sub.id = 0;
    monitoring_.sub.modifying = false;
    monitoring_.sub.requestedInterval = -1;
    monitoring_.sub.retryAt = Clock::time_point{};
    ++monitoring_.sub.generation;
    monitoring_.dirty = true;
    monitoring_.sweepNeeded = true;
    monitoring_.toCreate.clear();
    for (auto& [key, record] : monitoring_.items) {
        record.state = ItemState::New; // a refused node may exist on a restarted server
        record.entry->callback.subscriptionId = 0;
        record.entry->callback.monitoredItemId = 0;
        monitoring_.toCreate.push_back(key);
    }
    monitoring_.pendingDeletes.clear();
}

Clock::time_point ClientCore::monitoringDueLocked(Clock::time_point next, Clock::time_point now, bool sessionActive,
                                                  bool activated) {
    std::lock_guard<std::mutex> lock(monitoring_.mutex);
    const Monitoring& m = monitoring_;
    if (m.dirty && sessionActive) next = now;
    if (activated && m.sub.state == SubscriptionState::None && !m.items.empty()) next = std::min(next, m.sub.retryAt);
    return next;
}

std::optional<UA_UInt32> ClientCore::endMonitoring(bool sessionActivated) {
    std::lock_guard<std::mutex> lock(monitoring_.mutex);
    std::optional<UA_UInt32> id;
    if (monitoring_.sub.state == SubscriptionState::Active && sessionActivated) id = monitoring_.sub.id;
    monitoring_.sub = Subscription{};
    return id;
}

struct ClientCore::MonitoringWork {
    std::optional<UA_CreateSubscriptionRequest> createSubscription;
    std::optional<UA_ModifySubscriptionRequest> modify;
    std::uint64_t generation = 0; // of the subscription that all of it is for
    UA_UInt32 subscriptionId = 0;
    std::vector<std::uint64_t> newKeys;
    std::vector<UA_MonitoredItemCreateRequest> newItems;
    std::vector<std::pair<UA_UInt32, UA_UInt32>> deletes; // (subscription, item)
    std::vector<UA_UInt32> strayed;
    // Ended registrations, released with the work after the lock: what their callbacks
    // captured may end another registration, which takes the lock.
    std::vector<std::shared_ptr<MonitorQueue::Entry>> ended;
};

// Decided under the lock, sent after it; a send that fails puts its part back for a later pass.
void ClientCore::maintainMonitoring(Clock::time_point now, bool sessionActive) {
    MonitoringWork work;
    if (!takeMonitoringWork(now, sessionActive, work)) return;
    if (work.createSubscription) createSubscription(work, now);
    if (work.modify) modifySubscription(work);
    if (!work.newItems.empty()) createItems(work);
    if (!work.deletes.empty()) deleteItems(work);
    deleteStrayed(work);
}

bool ClientCore::takeMonitoringWork(Clock::time_point now, bool sessionActive, MonitoringWork& work) {
    std::lock_guard<std::mutex> lock(monitoring_.mutex);
    Monitoring& m = monitoring_;
    if (m.sub.state == SubscriptionState::None && !m.items.empty() && now >= m.sub.retryAt) m.dirty = true;
    if (!m.dirty) return false;
    m.dirty = false;
    if (std::exchange(m.sweepNeeded, false)) sweepLocked(work.ended);
    if (!sessionActive) {
        m.dirty = true; // again once the session is up
        return false;
    }

    // The first value of an item made now comes with the next publish: a slow sampling
    // interval must not hold it back (nor any later change) by as long as itself.
    const double smallest = m.smallestInterval < 0 ? -1 : std::min(m.smallestInterval, longestPublishingInterval);

    if (m.sub.state == SubscriptionState::None && smallest >= 0 && now >= m.sub.retryAt) {
        UA_CreateSubscriptionRequest request = UA_CreateSubscriptionRequest_default();
        setSubscriptionTiming(request, smallest);
        work.createSubscription = request;
        m.sub.state = SubscriptionState::Creating;
        m.sub.requestedInterval = smallest;
        work.generation = ++m.sub.generation;
    } else if (m.sub.state == SubscriptionState::Active) {
        work.subscriptionId = m.sub.id;
        work.generation = m.sub.generation;
        planItemsLocked(work);
        if (smallest >= 0 && smallest != m.sub.requestedInterval && !m.sub.modifying) {
            UA_ModifySubscriptionRequest request;
            UA_ModifySubscriptionRequest_init(&request);
            request.subscriptionId = m.sub.id;
            setSubscriptionTiming(request, smallest);
            work.modify = request;
            m.sub.modifying = true;
            m.sub.requestedInterval = smallest;
        }
        work.deletes.swap(m.pendingDeletes);
    }
    work.strayed.swap(m.strayedSubscriptions);
    return true;
}

// Drops the registrations that ended (an item still being made waits for its verdict), and
// finds the smallest interval of those left.
void ClientCore::sweepLocked(std::vector<std::shared_ptr<MonitorQueue::Entry>>& ended) {
    Monitoring& m = monitoring_;
    m.smallestInterval = -1;
    for (auto it = m.items.begin(); it != m.items.end();) {
        ItemRecord& record = it->second;
        if (!record.entry->removed.load()) {
            const double interval = record.entry->callback.samplingIntervalMs;
            m.smallestInterval = m.smallestInterval < 0 ? interval : std::min(m.smallestInterval, interval);
            ++it;
            continue;
        }
        if (record.state == ItemState::Creating) { // swept again when its creation ends
            ++it;
            continue;
        }
        if (record.state == ItemState::Created && record.generation == m.sub.generation)
            m.pendingDeletes.emplace_back(m.sub.id, record.monitoredItemId);
        ended.push_back(std::move(record.entry));
        it = m.items.erase(it);
    }
    for (auto& entry : monitors_.purgeRemoved()) ended.push_back(std::move(entry));
}

void ClientCore::planItemsLocked(MonitoringWork& work) {
    Monitoring& m = monitoring_;
    std::vector<std::uint64_t> candidates;
    candidates.swap(m.toCreate);
    for (const std::uint64_t key : candidates) {
        const auto found = m.items.find(key);
        if (found == m.items.end()) continue;
        ItemRecord& record = found->second;
        if (record.state != ItemState::New || record.entry->removed.load()) continue;
        record.state = ItemState::Creating;
        record.generation = work.generation;
        UA_MonitoredItemCreateRequest item = UA_MonitoredItemCreateRequest_default(*record.entry->callback.nodeId);
        item.requestedParameters.samplingInterval = record.entry->callback.samplingIntervalMs;
        item.requestedParameters.queueSize = itemQueueSize;
        item.requestedParameters.discardOldest = true;
        work.newItems.push_back(item);
        work.newKeys.push_back(key);
    }
}

void ClientCore::createSubscription(const MonitoringWork& work, Clock::time_point now) {
    void* const context = reinterpret_cast<void*>(static_cast<std::uintptr_t>(work.generation));
    const UA_StatusCode rc = sendIfUp([&] {
        return UA_Client_Subscriptions_create_async(client_, *work.createSubscription, context, nullptr,
                                                    &ClientCore::onSubscriptionDeleted,
                                                    &ClientCore::onSubscriptionCreated, context, nullptr);
    });
    if (rc == UA_STATUSCODE_GOOD) return;
    std::lock_guard<std::mutex> lock(monitoring_.mutex);
    Subscription& sub = monitoring_.sub;
    if (sub.generation == work.generation) {
        sub.state = SubscriptionState::None;
        sub.retryAt = now + subscriptionRetry;
        monitoring_.dirty = true;
    }
}

void ClientCore::modifySubscription(const MonitoringWork& work) {
    const UA_StatusCode rc = sendIfUp([&] {
        return UA_Client_Subscriptions_modify_async(client_, *work.modify, &ClientCore::onSubscriptionModified, nullptr,
                                                    nullptr);
    });
    if (rc == UA_STATUSCODE_GOOD) return;
    // No reply will come: asked again next round.
    std::lock_guard<std::mutex> lock(monitoring_.mutex);
    Subscription& sub = monitoring_.sub;
    if (sub.generation == work.generation) {
        sub.modifying = false;
        sub.requestedInterval = -1;
        monitoring_.dirty = true;
    }
}

void ClientCore::createItems(MonitoringWork& work) {
    std::uint64_t batchId;
    {
        std::lock_guard<std::mutex> lock(monitoring_.mutex);
        batchId = monitoring_.nextKey++;
        monitoring_.batches[batchId] = ItemBatch{work.generation, work.newKeys};
    }
    UA_CreateMonitoredItemsRequest request;
    UA_CreateMonitoredItemsRequest_init(&request);
    request.subscriptionId = work.subscriptionId;
    request.timestampsToReturn = UA_TIMESTAMPSTORETURN_BOTH;
    request.itemsToCreate = work.newItems.data();
    request.itemsToCreateSize = work.newItems.size();
    std::vector<void*> contexts;
    for (const auto key : work.newKeys) contexts.push_back(reinterpret_cast<void*>(static_cast<std::uintptr_t>(key)));
    std::vector<UA_Client_DataChangeNotificationCallback> callbacks(work.newItems.size(), &ClientCore::onDataChange);
    std::vector<UA_Client_DeleteMonitoredItemCallback> deleteCallbacks(work.newItems.size(), nullptr);
    const UA_StatusCode rc = sendIfUp([&] {
        return UA_Client_MonitoredItems_createDataChanges_async(
            client_, request, contexts.data(), callbacks.data(), deleteCallbacks.data(), &ClientCore::onItemsCreated,
            reinterpret_cast<void*>(static_cast<std::uintptr_t>(batchId)), nullptr);
    });
    if (rc == UA_STATUSCODE_GOOD) return;
    std::lock_guard<std::mutex> lock(monitoring_.mutex);
    Monitoring& m = monitoring_;
    m.batches.erase(batchId);
    m.dirty = true;
    m.sweepNeeded = true; // an item may have ended meanwhile
    for (const auto key : work.newKeys) {
        const auto it = m.items.find(key);
        if (it != m.items.end() && it->second.state == ItemState::Creating) {
            it->second.state = ItemState::New;
            m.toCreate.push_back(key);
        }
    }
}

void ClientCore::deleteItems(const MonitoringWork& work) {
    std::map<UA_UInt32, std::vector<UA_UInt32>> bySubscription;
    for (const auto& [subId, monId] : work.deletes) bySubscription[subId].push_back(monId);
    for (auto& [subId, ids] : bySubscription) {
        UA_DeleteMonitoredItemsRequest request;
        UA_DeleteMonitoredItemsRequest_init(&request);
        request.subscriptionId = subId;
        request.monitoredItemIds = ids.data();
        request.monitoredItemIdsSize = ids.size();
        const UA_StatusCode rc = sendIfUp([&] {
            return UA_Client_MonitoredItems_delete_async(client_, request, &ClientCore::onDetached, nullptr, nullptr);
        });
        if (rc == UA_STATUSCODE_GOOD) continue;
        // Not connected: tried again once a session is up, unless the subscription goes.
        std::lock_guard<std::mutex> lock(monitoring_.mutex);
        Monitoring& m = monitoring_;
        if (m.sub.state == SubscriptionState::Active && m.sub.id == subId)
            for (const auto id : ids) m.pendingDeletes.emplace_back(subId, id);
        m.dirty = true;
    }
}

void ClientCore::deleteStrayed(const MonitoringWork& work) {
    for (const auto id : work.strayed) {
        UA_DeleteSubscriptionsRequest request;
        UA_DeleteSubscriptionsRequest_init(&request);
        UA_UInt32 subId = id;
        request.subscriptionIds = &subId;
        request.subscriptionIdsSize = 1;
        // Not sent without a session: the server drops it with its session or at the end of its lifetime.
        sendIfUp([&] {
            return UA_Client_Subscriptions_delete_async(client_, request, &ClientCore::onDetached, nullptr, nullptr);
        });
    }
}

// ---------------------------------------------------------------------------------------------
// open62541's answers and notifications

void ClientCore::onSubscriptionCreated(UA_Client* client, void* userdata, UA_UInt32, void* response) {
    ClientCore* core = of(client);
    Monitoring& m = core->monitoring_;
    const auto generation = static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(userdata));
    const auto* r = static_cast<const UA_CreateSubscriptionResponse*>(response);
    std::lock_guard<std::mutex> lock(m.mutex);
    const bool current = m.sub.generation == generation && m.sub.state == SubscriptionState::Creating;
    if (r->responseHeader.serviceResult != UA_STATUSCODE_GOOD) {
        if (!current) return;
        LOG4CPLUS_ERROR(clientLogger(), "cannot create a subscription on "
                                            << core->endpoint_ << ": " << statusName(r->responseHeader.serviceResult));
        m.sub.state = SubscriptionState::None;
        m.sub.retryAt = Clock::now() + subscriptionRetry;
        return;
    }
    m.dirty = true;
    if (!current) {
        m.strayedSubscriptions.push_back(r->subscriptionId);
        return;
    }
    m.sub.state = SubscriptionState::Active;
    m.sub.id = r->subscriptionId;
}

void ClientCore::onSubscriptionDeleted(UA_Client* client, UA_UInt32, void* subContext) {
    ClientCore* core = of(client);
    Monitoring& m = core->monitoring_;
    const auto generation = static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(subContext));
    std::lock_guard<std::mutex> lock(m.mutex);
    // open62541 dropped it (a new session, or the server lost it): everything is made again.
    if (m.sub.generation == generation && m.sub.state != SubscriptionState::None && !core->stopping_.load())
        core->resetMonitoringLocked();
}

void ClientCore::onSubscriptionModified(UA_Client* client, void*, UA_UInt32, void*) {
    ClientCore* core = of(client);
    Monitoring& m = core->monitoring_;
    std::lock_guard<std::mutex> lock(m.mutex);
    m.sub.modifying = false;
}

namespace {
// On the I/O-context thread, in order with the item's notifications, which come after it.
void postStatus(boost::asio::io_context& io, std::shared_ptr<MonitorQueue::Entry> entry, UA_StatusCode status) {
    boost::asio::post(io, [entry = std::move(entry), status] {
        MonitorQueue::invoke(*entry, [status](OpcUaClient::MonitoredNode& node) {
            try {
                node.onStatus(*node.nodeId, status);
            } catch (const std::exception& e) {
                std::cerr << "Exception occurred in monitored item status callback: " << e.what() << "\n";
            } catch (...) {
                std::cerr << "Exception occurred in monitored item status callback\n";
            }
        });
    });
}
} // namespace

void ClientCore::onItemsCreated(UA_Client* client, void* userdata, UA_UInt32, void* response) {
    ClientCore* core = of(client);
    Monitoring& m = core->monitoring_;
    const auto batchId = static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(userdata));
    const auto* r = static_cast<const UA_CreateMonitoredItemsResponse*>(response);
    std::lock_guard<std::mutex> lock(m.mutex);
    const auto batch = m.batches.find(batchId);
    if (batch == m.batches.end()) return;
    const ItemBatch items = std::move(batch->second);
    m.batches.erase(batch);
    const bool current = items.generation == m.sub.generation;
    const bool serviceOk = r->responseHeader.serviceResult == UA_STATUSCODE_GOOD && r->resultsSize == items.keys.size();
    for (std::size_t i = 0; i < items.keys.size(); ++i) {
        const auto it = m.items.find(items.keys[i]);
        if (it == m.items.end() || it->second.state != ItemState::Creating || it->second.generation != items.generation)
            continue;
        ItemRecord& record = it->second;
        if (record.entry->removed.load()) m.sweepNeeded = true; // it can go now
        if (!current || !serviceOk) {
            record.state = ItemState::New; // made again with the next subscription or session
            m.toCreate.push_back(items.keys[i]);
            m.dirty = true;
            continue;
        }
        const UA_MonitoredItemCreateResult& result = r->results[i];
        record.entry->callback.firstVerdict.set(result.statusCode);
        if (record.entry->callback.onStatus) postStatus(core->io_, record.entry, result.statusCode);
        if (result.statusCode != UA_STATUSCODE_GOOD) {
            // Reported once: by the registration's owner when it listens, else here.
            const std::string what = "cannot monitor " + nodeIdToString(*record.entry->callback.nodeId) + " on " +
                                     core->endpoint_ + ": " + statusName(result.statusCode);
            if (record.entry->callback.onStatus)
                LOG4CPLUS_DEBUG(clientLogger(), what);
            else
                LOG4CPLUS_ERROR(clientLogger(), what);
            record.state = ItemState::Failed;
            continue;
        }
        record.state = ItemState::Created;
        record.monitoredItemId = result.monitoredItemId;
        record.entry->callback.subscriptionId = m.sub.id;
        record.entry->callback.monitoredItemId = result.monitoredItemId;
        if (record.entry->removed.load()) m.dirty = true;
    }
}

void ClientCore::onDataChange(UA_Client* client, UA_UInt32, void*, UA_UInt32, void* monContext, UA_DataValue* value) {
    ClientCore* core = of(client);
    Monitoring& m = core->monitoring_;
    const auto key = static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(monContext));
    {
        std::lock_guard<std::mutex> lock(m.mutex);
        const auto it = m.items.find(key);
        if (core->stopping_.load() || it == m.items.end() || it->second.entry->removed.load()) return;
        core->notifications_.items.push_back(Notification{it->second.entry, *value});
    }
    // Taken, not copied: open62541 clears what it leaves behind.
    UA_DataValue_init(value);
}

void ClientCore::postNotifications() {
    if (notifications_.items.empty()) return;
    NotificationBatch batch;
    batch.items.swap(notifications_.items);
    boost::asio::post(io_, [batch = std::move(batch)]() mutable {
        for (Notification& n : batch.items) {
            MonitorQueue::invoke(*n.entry, [&n](OpcUaClient::MonitoredNode& node) {
                try {
                    node.callback(&n.value);
                } catch (const std::exception& e) {
                    std::cerr << "Exception occurred in monitored item callback: " << e.what() << "\n";
                } catch (...) {
                    std::cerr << "Exception occurred in monitored item callback\n";
                }
            });
            UA_DataValue_clear(&n.value);
            n.entry.reset(); // what its callback holds goes now, not with the batch
        }
    });
}

} // namespace vesk::duvo::opcua::detail
