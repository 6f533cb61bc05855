#pragma once
// The shared client's insides, in three parts that each keep their own state under their own
// lock: the connection and its session (client.cpp), the request pipeline with the loop that
// callers drive (clientRequests.cpp), the subscription and its monitored items
// (clientMonitoring.cpp). See OpcUaClient for who runs what.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <log4cplus/logger.h>
#include <open62541/client.h>

#include <vesk/duvo/opcua/client.hpp>
#include <vesk/duvo/opcua/notificationQueue.hpp>
#include <vesk/duvo/opcua/recycling.hpp>
#include <vesk/duvo/opcua/request.hpp>

#include "eventLoopWaker.hpp"
#include <vesk/duvo/opcua/detail/security.hpp>

namespace vesk::duvo::opcua::detail {

/// "orsa.duvo.opcua.internal": the client's logger, and open62541's.
log4cplus::Logger& clientLogger();

inline std::string statusName(UA_StatusCode rc) { return UA_StatusCode_name(rc); }

using MonitorQueue = NotificationQueue<OpcUaClient::MonitoredNode>;
using ConnectionQueue = NotificationQueue<OpcUaClient::ConnectionCallback>;

// Lock order: the pipeline's lock may be held while the connection's or the monitoring's is
// taken (to plan the loop's wait, or to enqueue a request), never the other way round, and
// those two are never held together. No lock is held while calling open62541 or user code.
class ClientCore : public std::enable_shared_from_this<ClientCore> {
public:
    using Clock = std::chrono::steady_clock;
    using Pending = PendingRequest;

    ClientCore(std::string endpoint, std::map<std::string, std::string> properties);
    ~ClientCore();
    void start();
    void stop();

    const std::string& endpoint() const { return endpoint_; }
    boost::asio::io_context& io() { return io_; }
    void asyncConnect();
    bool isConnected();
    ConnectionQueue::Handle addConnectionCallback(OpcUaClient::ConnectionCallback cb);
    MonitorQueue::Handle monitor(OpcUaClient::NodeId nodeId, double samplingIntervalMs,
                                 std::function<void(UA_DataValue*)> cb,
                                 std::function<void(const UA_NodeId&, UA_StatusCode)> onStatus);

    void submit(const std::shared_ptr<Pending>& p, void* request, Clock::time_point submitDeadline,
                Clock::time_point replyDeadline, long replyTimeMs);

    /// Until ready(context) or the deadline: drives open62541's loop on this thread while no
    /// other thread does, else waits for the thread that does.
    void awaitReady(bool (*ready)(const void*), const void* context, Clock::time_point deadline);

private:
    using ConnectionEvent = std::pair<bool, std::vector<std::shared_ptr<ConnectionQueue::Entry>>>;

    // Connection and session (client.cpp). open62541's state callbacks record here; the
    // driving thread acts on it, application threads ask whether a session is up.
    struct Connection {
        std::mutex mutex; // guards what follows
        UA_SecureChannelState channel = UA_SECURECHANNELSTATE_CLOSED;
        UA_SessionState session = UA_SESSIONSTATE_CLOSED;
        bool reportedUp = false;
        bool sessionClosed = true; // since the last activation: the next one is a new session
        bool newSession = false;
        bool inactive = false;
        bool connectRequested = false;
        UA_StatusCode lastStatus = UA_STATUSCODE_GOOD;  // why the last attempt or session ended
        std::shared_ptr<const std::string> securityWhy; // why no attempt can succeed, if security says
        std::deque<ConnectionEvent> events;             // with the callbacks registered at that moment

        // The driving thread's only.
        static constexpr std::chrono::milliseconds firstBackoff{50};
        Clock::time_point nextAttempt{};
        Clock::duration backoff = firstBackoff;
        std::optional<Clock::time_point> attemptStart;
    };

    // The request pipeline (clientRequests.cpp): application threads submit, the driving
    // thread sends what waited, expires and hands out what ended.
    struct Pipeline {
        std::mutex mutex; // guards what follows
        bool stopRequested = false;
        bool sessionActive = false; // requests may be sent at once (the queue is empty)
        std::unordered_map<Pending*, std::shared_ptr<Pending>, std::hash<Pending*>, std::equal_to<Pending*>,
                           Recycling<std::pair<Pending* const, std::shared_ptr<Pending>>>>
            inflight;
        std::deque<std::shared_ptr<Pending>> queued;
        std::vector<std::shared_ptr<Pending>> completed;
        Clock::time_point plannedWake = Clock::time_point::min(); // min: awake

        std::vector<std::shared_ptr<Pending>> fulfilling; // the driving thread's only
    };

    // Who drives open62541's loop: one thread at a time, a caller waiting for a reply first,
    // the network thread while no caller does (clientRequests.cpp).
    struct Drive {
        std::mutex mutex;           // guards what follows; never held with another lock or while driving
        std::condition_variable cv; // a turn ended, or the client stops
        bool driving = false;
        bool networkDriving = false;
        int callersWaiting = 0;
        Clock::time_point callerDroveAt{};
        std::atomic<bool> stop{false};
    };

    // The subscription and its monitored items (clientMonitoring.cpp): application threads
    // register and drop items, the driving thread makes them on the server.
    enum class ItemState { New, Creating, Created, Failed };
    struct ItemRecord {
        std::shared_ptr<MonitorQueue::Entry> entry;
        ItemState state = ItemState::New;
        std::uint64_t generation = 0; // of the subscription it was created in
        UA_UInt32 monitoredItemId = 0;
    };
    enum class SubscriptionState { None, Creating, Active };
    struct Subscription {
        SubscriptionState state = SubscriptionState::None;
        UA_UInt32 id = 0;
        std::uint64_t generation = 0;
        double requestedInterval = -1;
        bool modifying = false;
        Clock::time_point retryAt{};
    };
    struct ItemBatch {
        std::uint64_t generation;
        std::vector<std::uint64_t> keys;
    };
    struct Monitoring {
        std::mutex mutex; // guards what follows
        Subscription sub;
        std::unordered_map<std::uint64_t, ItemRecord> items;
        std::unordered_map<std::uint64_t, ItemBatch> batches;
        std::vector<std::pair<UA_UInt32, UA_UInt32>> pendingDeletes; // (subscription, item)
        std::vector<UA_UInt32> strayedSubscriptions;
        std::uint64_t nextKey = 1;
        bool dirty = false; // registrations, subscription or session changed: look again
        // Registrations are made and dropped by the thousand: a pass touches only what changed.
        std::vector<std::uint64_t> toCreate; // keys of items that may be New
        bool sweepNeeded = false;            // a registration ended: look through all of them
        double smallestInterval = -1;        // of the registrations not ended; -1: none
    };
    // What one pass of maintainMonitoring sends, decided under the monitoring lock.
    struct MonitoringWork;
    // The notifications of one turn, handed to the I/O context in one task: values taken
    // from open62541 without a copy, freed once their callbacks ran (or with the batch).
    struct Notification {
        std::shared_ptr<MonitorQueue::Entry> entry;
        UA_DataValue value;
    };
    struct NotificationBatch {
        NotificationBatch() = default;
        NotificationBatch(NotificationBatch&&) noexcept = default;
        ~NotificationBatch() {
            for (auto& n : items) UA_DataValue_clear(&n.value);
        }
        std::vector<Notification> items;
    };

    enum class SendResult { Sent, NotConnected, Decided };

    // The loop, run by whoever drives it: the network thread, or a caller in awaitReady.
    void networkLoop();
    void iterate(Clock::time_point limit);
    void standAside();
    class Turn;
    UA_UInt32 planWait(Clock::time_point now, Clock::time_point limit);
    void shutdownSequence();

    // Connection and session.
    void handleStateChanges();
    void maintainConnection(Clock::time_point now);
    // With the pipeline's lock held: when the connection needs the loop next.
    Clock::time_point connectionDueLocked(Clock::time_point now, Clock::time_point next, bool& activated);
    std::shared_ptr<const std::string> securityWhy();
    bool sessionActivated();
    static void dispatchConnection(const ConnectionEvent& event);

    // Requests.
    void flushQueue();
    void expire(Clock::time_point now);
    void fulfilCompleted();
    SendResult send(const std::shared_ptr<Pending>& p, void* request);
    void detach(const std::shared_ptr<Pending>& p);
    void enqueue(const std::shared_ptr<Pending>& p, const void* request);
    void wakeLocked(Clock::time_point by, bool& wake);
    void requestWake();
    // Callbacks that arrive on the driving thread are acted on by it before it waits again.
    bool onDrivingThread() const;
    // Monitoring may send: the session is up and no request waits for it.
    bool sessionUsable();

    // Monitoring.
    void maintainMonitoring(Clock::time_point now, bool sessionActive);
    void resetMonitoring();
    void resetMonitoringLocked();
    void requestSweep();
    void monitoringDirty();
    // With the pipeline's lock held: when monitoring needs the loop next.
    Clock::time_point monitoringDueLocked(Clock::time_point next, Clock::time_point now, bool sessionActive,
                                          bool activated);
    bool takeMonitoringWork(Clock::time_point now, bool sessionActive, MonitoringWork& work);
    void sweepLocked(std::vector<std::shared_ptr<MonitorQueue::Entry>>& ended);
    void planItemsLocked(MonitoringWork& work);
    void createSubscription(const MonitoringWork& work, Clock::time_point now);
    void modifySubscription(const MonitoringWork& work);
    void createItems(MonitoringWork& work);
    void deleteItems(const MonitoringWork& work);
    void deleteStrayed(const MonitoringWork& work);
    void postNotifications();
    // The subscription to delete at shutdown, if any (it is forgotten).
    std::optional<UA_UInt32> endMonitoring(bool sessionActivated);

    // open62541 loses the state of a subscription or monitored-item service that it cannot
    // send (a few hundred bytes each time), so these go out only over an open channel with an
    // activated session, read afresh: the state seen at the top of a round may be stale by the
    // time it sends.
    template <class Send>
    UA_StatusCode sendIfUp(Send&& send) {
        UA_SecureChannelState channel;
        UA_SessionState session;
        UA_StatusCode status;
        UA_Client_getState(client_, &channel, &session, &status);
        if (channel != UA_SECURECHANNELSTATE_OPEN || session != UA_SESSIONSTATE_ACTIVATED)
            return UA_STATUSCODE_BADSERVERNOTCONNECTED;
        return send();
    }

    // open62541 callbacks, on the driving thread: they only record; the loop acts.
    static ClientCore* of(UA_Client* client) { return static_cast<ClientCore*>(UA_Client_getContext(client)); }
    static void onState(UA_Client* client, UA_SecureChannelState channel, UA_SessionState session,
                        UA_StatusCode status);
    static void onInactivity(UA_Client* client);
    static void onResponse(UA_Client* client, void* userdata, UA_UInt32 requestId, void* response);
    static void onDetached(UA_Client*, void*, UA_UInt32, void*) {}
    static void onSubscriptionCreated(UA_Client* client, void* userdata, UA_UInt32 requestId, void* response);
    static void onSubscriptionDeleted(UA_Client* client, UA_UInt32 subId, void* subContext);
    static void onItemsCreated(UA_Client* client, void* userdata, UA_UInt32 requestId, void* response);
    static void onDataChange(UA_Client* client, UA_UInt32 subId, void* subContext, UA_UInt32 monId, void* monContext,
                             UA_DataValue* value);
    static void onSubscriptionModified(UA_Client* client, void* userdata, UA_UInt32 requestId, void* response);

    const std::string endpoint_;
    const std::map<std::string, std::string> properties_;
    ClientSecurity security_; // the driving thread's only, once the client runs
    UA_Client* client_ = nullptr;
    EventLoopWaker waker_;
    bool wakerOpen_ = false;
    // Set by the shutdown, on the driving thread: no connection event and no notification after it.
    std::atomic<bool> stopping_{false};

    Connection connection_;
    Pipeline pipeline_;
    Drive drive_;
    Monitoring monitoring_;
    NotificationBatch notifications_; // the driving thread's only

    ConnectionQueue connectionCallbacks_;
    MonitorQueue monitors_;
    boost::asio::io_context io_;
    std::optional<boost::asio::executor_work_guard<boost::asio::io_context::executor_type>> work_;
    std::thread netThread_;
    std::thread ioThread_;
};

} // namespace vesk::duvo::opcua::detail
