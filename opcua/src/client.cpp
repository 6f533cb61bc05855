#include <vesk/duvo/opcua/client.hpp>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <iostream>
#include <iterator>
#include <limits>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <thread>
#include <unordered_map>
#include <utility>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/post.hpp>
#include <boost/thread/exceptions.hpp>
#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>
#include <open62541/client.h>
#include <open62541/client_config_default.h>
#include <open62541/client_highlevel_async.h>
#include <open62541/client_subscriptions.h>

#include <vesk/duvo/exceptions.hpp>
#include <vesk/duvo/opcua/uriHelper.hpp>

#include "eventLoopWaker.hpp"
#include "security.hpp"
#include <vesk/duvo/opcua/recycling.hpp>

namespace vesk::duvo::opcua::detail {

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr auto firstBackoff = 50ms;
// A server back from a restart is found within a quarter of a second; an attempt on loopback
// or a LAN costs one refused connection.
constexpr auto maxBackoff = 250ms;
// An attempt stuck in the handshake (a peer that accepts and never answers) is abandoned.
constexpr auto connectTimeout = 3000ms;
constexpr auto connectStep = 5ms;
// open62541's own service timeout: the connectivity read and the handshake steps use it. With
// a read every 250 ms, a silent peer is noticed after 1.4 to 2.7 s (open62541 looks for timed-out
// requests once a second), inside the 3 s that users are promised.
constexpr UA_UInt32 serviceTimeoutMs = 1400;
constexpr UA_UInt32 connectivityCheckMs = 250;
// open62541 must never time out a request that may still be answered (a late reply would
// close the channel): its hint is twice ours plus this margin.
constexpr UA_UInt32 hintMarginMs = 10000;
constexpr UA_UInt32 noDeadlineHintMs = 24u * 3600u * 1000u;
constexpr auto longestWait = 1000ms;
// Without the waker, deadlines are met to within this tick.
constexpr auto fallbackWait = 10ms;
constexpr UA_UInt32 itemQueueSize = 100;
constexpr auto subscriptionRetry = 1000ms;
constexpr double longestPublishingInterval = 100; // ms
constexpr auto shutdownGrace = 200ms;
// After a waiting caller drove the loop, the network thread stays aside this long: a caller
// that waits again soon (a loop of synchronous publishes) drives at once, without first waking
// the network thread out of its wait and waiting for it to let go.
constexpr auto callerLinger = 2ms;

log4cplus::Logger& logger() {
    static log4cplus::Logger instance = log4cplus::Logger::getInstance("orsa.duvo.opcua.internal");
    return instance;
}

// open62541's log lines go to the same logger, one level lower: what matters to the user (a lost
// connection, a failed request) is logged or reported by the client itself, while open62541
// repeats its errors at every reconnection attempt.
void forwardLog(void*, UA_LogLevel level, UA_LogCategory, const char* msg, va_list args) {
    const log4cplus::LogLevel target = level >= UA_LOGLEVEL_FATAL     ? log4cplus::ERROR_LOG_LEVEL
                                       : level >= UA_LOGLEVEL_ERROR   ? log4cplus::INFO_LOG_LEVEL
                                       : level >= UA_LOGLEVEL_WARNING ? log4cplus::DEBUG_LOG_LEVEL
                                                                      : log4cplus::TRACE_LOG_LEVEL;
    if (!logger().isEnabledFor(target)) return;
    char text[512];
    std::vsnprintf(text, sizeof text, msg, args);
    logger().forcedLog(target, LOG4CPLUS_C_STR_TO_TSTRING(text));
}

UA_Logger forwardingLogger{&forwardLog, nullptr, nullptr};

UA_UInt32 timeoutHint(Clock::time_point deadline, Clock::time_point now) {
    if (deadline == Clock::time_point::max()) return noDeadlineHintMs;
    const auto remaining = std::max<long long>(0, std::chrono::ceil<std::chrono::milliseconds>(deadline - now).count());
    return static_cast<UA_UInt32>(std::min<long long>(2 * remaining + hintMarginMs, std::numeric_limits<UA_Int32>::max()));
}

bool meansNotConnected(UA_StatusCode rc) {
    return rc == UA_STATUSCODE_BADSERVERNOTCONNECTED || rc == UA_STATUSCODE_BADCONNECTIONCLOSED ||
           rc == UA_STATUSCODE_BADSECURECHANNELCLOSED || rc == UA_STATUSCODE_BADSESSIONCLOSED;
}

std::string statusName(UA_StatusCode rc) { return UA_StatusCode_name(rc); }

using Pending = PendingRequest;

} // namespace

using MonitorQueue = NotificationQueue<OpcUaClient::MonitoredNode>;
using ConnectionQueue = NotificationQueue<OpcUaClient::ConnectionCallback>;

class ClientCore : public std::enable_shared_from_this<ClientCore> {
public:
    ClientCore(std::string endpoint, std::map<std::string, std::string> properties);
    ~ClientCore();
    void start();
    void stop();

    const std::string& endpoint() const { return endpoint_; }
    boost::asio::io_context& io() { return io_; }
    void asyncConnect();
    bool isConnected();
    ConnectionQueue::Handle addConnectionCallback(OpcUaClient::ConnectionCallback cb);
    MonitorQueue::Handle monitor(const UA_NodeId& nodeId, double samplingIntervalMs, std::function<void(UA_DataValue*)> cb,
                                 std::function<void(UA_StatusCode)> onStatus);

    void submit(const std::shared_ptr<Pending>& p, void* request, Clock::time_point submitDeadline,
                Clock::time_point replyDeadline, long replyTimeMs);

    /// Until ready(context) or the deadline: drives open62541's loop on this thread while no
    /// other thread does, else waits for the thread that does.
    void awaitReady(bool (*ready)(const void*), const void* context, Clock::time_point deadline);

private:
    template <class Send> UA_StatusCode sendIfUp(Send&& send);

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
    enum class SendResult { Sent, NotConnected, Decided };

    // Whoever drives the loop: the network thread, or a caller in awaitReady.
    void networkLoop();
    void iterate(Clock::time_point limit);
    void standAside();
    class Turn;
    void handleStateChanges();
    void maintainConnection(Clock::time_point now);
    void flushQueue();
    void expire(Clock::time_point now);
    void maintainMonitoring(Clock::time_point now);
    void fulfilCompleted();
    UA_UInt32 planWait(Clock::time_point now, Clock::time_point limit);
    bool workPendingLocked() const; // the loop has something to do at once
    void shutdownSequence();
    void resetMonitoringLocked();

    SendResult send(const std::shared_ptr<Pending>& p, void* request);
    void detach(const std::shared_ptr<Pending>& p);
    void enqueue(const std::shared_ptr<Pending>& p, const void* request);
    void wakeLocked(Clock::time_point by, bool& wake);
    void requestWake();
    void requestSweep();
    // Callbacks that arrive on the driving thread are acted on by it before it waits again.
    bool onDrivingThread() const;
    using ConnectionEvent = std::pair<bool, std::vector<std::shared_ptr<ConnectionQueue::Entry>>>;
    static void dispatchConnection(const ConnectionEvent& event);

    // open62541 callbacks: they only record, under mutex_; the network loop acts.
    static ClientCore* of(UA_Client* client) { return static_cast<ClientCore*>(UA_Client_getContext(client)); }
    static void onState(UA_Client* client, UA_SecureChannelState channel, UA_SessionState session, UA_StatusCode status);
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
    ClientSecurity security_; // driving thread only, once the client runs
    UA_Client* client_ = nullptr;
    EventLoopWaker waker_;
    bool wakerOpen_ = false;

    std::mutex mutex_; // guards what follows; never held while calling open62541 or user code
    bool stopRequested_ = false;
    bool stopping_ = false;
    bool sessionActive_ = false; // requests may be sent at once (the queue is empty)
    UA_SecureChannelState channelState_ = UA_SECURECHANNELSTATE_CLOSED;
    UA_SessionState sessionState_ = UA_SESSIONSTATE_CLOSED;
    bool reportedUp_ = false;
    bool sessionClosed_ = true; // since the last activation: the next one is a new session
    bool newSession_ = false;
    bool inactive_ = false;
    bool connectRequested_ = false;
    UA_StatusCode lastStatus_ = UA_STATUSCODE_GOOD;  // why the last attempt or session ended
    std::shared_ptr<const std::string> securityWhy_; // why no attempt can succeed, if security says
    std::deque<ConnectionEvent> connectionEvents_; // with the callbacks registered at that moment
    std::unordered_map<Pending*, std::shared_ptr<Pending>, std::hash<Pending*>, std::equal_to<Pending*>,
                       Recycling<std::pair<Pending* const, std::shared_ptr<Pending>>>>
        inflight_;
    std::deque<std::shared_ptr<Pending>> queued_;
    std::vector<std::shared_ptr<Pending>> completed_;
    std::vector<std::shared_ptr<Pending>> fulfilling_; // network thread only
    Clock::time_point plannedWake_ = Clock::time_point::min(); // min: awake
    Subscription sub_;
    std::unordered_map<std::uint64_t, ItemRecord> items_;
    std::unordered_map<std::uint64_t, ItemBatch> batches_;
    std::vector<std::pair<UA_UInt32, UA_UInt32>> pendingDeletes_; // (subscription, item)
    std::vector<UA_UInt32> strayedSubscriptions_;
    std::uint64_t nextKey_ = 1;
    bool monitoringDirty_ = false; // registrations, subscription or session changed: look again
    // Registrations are made and dropped by the thousand: a pass touches only what changed.
    std::vector<std::uint64_t> toCreate_; // keys of items that may be New
    bool sweepNeeded_ = false;            // a registration ended: look through all of them
    double smallestInterval_ = -1;        // of the registrations not ended; -1: none

    // Network thread only.
    Clock::time_point nextAttempt_{};
    Clock::duration backoff_ = firstBackoff;
    std::optional<Clock::time_point> attemptStart_;

    ConnectionQueue connectionCallbacks_;
    MonitorQueue monitors_;
    // One thread at a time drives open62541's loop: a caller waiting for a reply first, the
    // network thread while no caller does. Never held with mutex_ or while driving.
    std::mutex driveMutex_;
    std::condition_variable driveCv_; // a turn ended, or the client stops
    bool driving_ = false;
    bool networkDriving_ = false;
    int callersWaiting_ = 0;
    Clock::time_point callerDroveAt_{};
    std::atomic<bool> stopFlag_{false};
    boost::asio::io_context io_;
    std::optional<boost::asio::executor_work_guard<boost::asio::io_context::executor_type>> work_;
    std::thread netThread_;
    std::thread ioThread_;
};

// ---------------------------------------------------------------------------------------------
// Life cycle

ClientCore::ClientCore(std::string endpoint, std::map<std::string, std::string> properties)
    : endpoint_(std::move(endpoint)), properties_(std::move(properties)), security_(endpoint_, properties_) {
    UA_ClientConfig config;
    std::memset(&config, 0, sizeof config);
    config.logging = &forwardingLogger;
    if (UA_ClientConfig_setDefault(&config) != UA_STATUSCODE_GOOD) {
        UA_ClientConfig_clear(&config);
        throw std::runtime_error("cannot configure the OPC UA client for " + endpoint_);
    }
    security_.configure(config);
    config.clientContext = this;
    config.timeout = serviceTimeoutMs;
    config.connectivityCheckInterval = connectivityCheckMs;
    config.stateCallback = &ClientCore::onState;
    config.inactivityCallback = &ClientCore::onInactivity;
    UA_String_clear(&config.endpointUrl);
    config.endpointUrl = UA_STRING_ALLOC(endpoint_.c_str());
    client_ = UA_Client_newWithConfig(&config);
    if (client_ == nullptr) throw std::runtime_error("cannot create the OPC UA client for " + endpoint_);
}

ClientCore::~ClientCore() {
    // Only when the network thread never ran its shutdown (construction failed half-way).
    if (client_ != nullptr) UA_Client_delete(client_);
}

void ClientCore::start() {
    std::weak_ptr<ClientCore> weak = weak_from_this();
    monitors_.setOnRemoved([weak] {
        if (auto core = weak.lock()) core->requestSweep();
    });
    wakerOpen_ = waker_.open(UA_Client_getConfig(client_)->eventLoop);
    if (!wakerOpen_)
        LOG4CPLUS_WARN(logger(), "cannot wake the OPC UA event loop of " << endpoint_ << "; deadlines are checked every 10 ms");
    work_.emplace(boost::asio::make_work_guard(io_));
    auto self = shared_from_this();
    ioThread_ = std::thread([self] {
        for (;;) {
            try {
                self->io_.run();
                break;
            } catch (const std::exception& e) {
                LOG4CPLUS_ERROR(logger(), "exception in a handler of the I/O context: " << e.what());
            } catch (...) {
                LOG4CPLUS_ERROR(logger(), "unknown exception in a handler of the I/O context");
            }
        }
    });
    netThread_ = std::thread([self] { self->networkLoop(); });
}

void ClientCore::stop() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopRequested_ = true;
    }
    {
        std::lock_guard<std::mutex> lock(driveMutex_);
        stopFlag_.store(true);
    }
    driveCv_.notify_all();
    waker_.wake();
    // On one of our own threads, or on a caller's thread in the middle of its turn at the loop
    // (a completion dropped the last reference), the threads cannot be joined: they end by
    // themselves right after, holding the core until then.
    const auto self = std::this_thread::get_id();
    const bool onOwnThread = self == netThread_.get_id() || self == ioThread_.get_id() || onDrivingThread();
    if (netThread_.joinable()) {
        if (onOwnThread) netThread_.detach();
        else netThread_.join();
    }
    work_.reset();
    io_.stop();
    if (ioThread_.joinable()) {
        if (onOwnThread) ioThread_.detach();
        else ioThread_.join();
    }
}

void ClientCore::shutdownSequence() {
    bool deleteSubscription = false;
    UA_UInt32 subscriptionId = 0;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
        sessionActive_ = false;
        for (auto& p : queued_) {
            p->decide(Pending::Outcome::ShutDown);
            completed_.push_back(p);
        }
        queued_.clear();
        for (auto& [raw, p] : inflight_) {
            if (p->outcome != Pending::Outcome::None) continue;
            p->decide(Pending::Outcome::ShutDown);
            completed_.push_back(p);
        }
        deleteSubscription = sub_.state == SubscriptionState::Active && sessionState_ == UA_SESSIONSTATE_ACTIVATED;
        subscriptionId = sub_.id;
        sub_ = Subscription{};
    }
    fulfilCompleted();

    std::atomic<bool> done{false}; // outlives UA_Client_delete, which may still call back
    if (deleteSubscription) {
        UA_DeleteSubscriptionsRequest request;
        UA_DeleteSubscriptionsRequest_init(&request);
        request.subscriptionIds = &subscriptionId;
        request.subscriptionIdsSize = 1;
        const UA_StatusCode rc = sendIfUp([&] {
            return UA_Client_Subscriptions_delete_async(
                client_, request,
                [](UA_Client*, void* flag, UA_UInt32, void*) { static_cast<std::atomic<bool>*>(flag)->store(true); }, &done,
                nullptr);
        });
        const auto until = Clock::now() + shutdownGrace;
        while (rc == UA_STATUSCODE_GOOD && !done.load() && Clock::now() < until) UA_Client_run_iterate(client_, 10);
    }
    UA_Client_disconnectAsync(client_);
    for (const auto until = Clock::now() + shutdownGrace; Clock::now() < until;) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (channelState_ == UA_SECURECHANNELSTATE_CLOSED) break;
        }
        UA_Client_run_iterate(client_, 10);
    }
    // Stopped here in short steps: UA_Client_delete would wait 100 ms per step.
    UA_EventLoop* loop = UA_Client_getConfig(client_)->eventLoop;
    if (loop->state == UA_EVENTLOOPSTATE_STARTED) loop->stop(loop);
    for (const auto until = Clock::now() + shutdownGrace; loop->state == UA_EVENTLOOPSTATE_STOPPING && Clock::now() < until;)
        loop->run(loop, 1);
    UA_Client_delete(client_); // calls back the requests still open with BadShutdown
    client_ = nullptr;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        inflight_.clear();
    }
    fulfilCompleted();
}

// ---------------------------------------------------------------------------------------------
// Network loop

namespace {
thread_local const ClientCore* drivingCore = nullptr;
thread_local bool onNetworkThread = false; // nobody can interrupt it
} // namespace

bool ClientCore::onDrivingThread() const { return drivingCore == this; }

/// One thread's turn at the loop: taken with driving_ set, and given back however it ends (an
/// exception, a cancelled thread), so the loop is never left without a driver.
class ClientCore::Turn {
public:
    Turn(ClientCore& core, bool network) : core_(core), network_(network), previous_(drivingCore) {
        drivingCore = &core;
    }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;
    ~Turn() {
        drivingCore = previous_;
        bool wakeOthers;
        {
            std::lock_guard<std::mutex> lock(core_.driveMutex_);
            core_.driving_ = false;
            core_.networkDriving_ = false;
            if (!network_) core_.callerDroveAt_ = Clock::now();
            // Callers whose replies this turn fulfilled, or who wait to drive next.
            wakeOthers = core_.callersWaiting_ > (network_ ? 0 : 1);
        }
        if (wakeOthers) core_.driveCv_.notify_all();
    }

private:
    ClientCore& core_;
    bool network_;
    const ClientCore* previous_;
};

// One round of the loop: act on what the callbacks recorded, send what waited, fail what
// expired, then wait for the network until the next thing to do (at most until limit), and
// hand out the replies that came.
void ClientCore::iterate(Clock::time_point limit) {
    handleStateChanges();
    maintainConnection(Clock::now());
    flushQueue();
    expire(Clock::now());
    maintainMonitoring(Clock::now());
    fulfilCompleted();
    // No spinning before the wait: it wins a quiet benchmark and loses on a loaded machine,
    // where the spinning thread takes the core from the server or the thread that would answer.
    UA_Client_run_iterate(client_, planWait(Clock::now(), limit));
    {
        std::lock_guard<std::mutex> lock(mutex_);
        plannedWake_ = Clock::time_point::min();
    }
    fulfilCompleted();
}

// The network thread waits while a caller drives or wants to, and a little after.
void ClientCore::standAside() {
    std::unique_lock<std::mutex> lock(driveMutex_);
    for (;;) {
        if (stopFlag_.load()) break;
        const auto now = Clock::now();
        if (driving_ || callersWaiting_ > 0) {
            driveCv_.wait_for(lock, callerLinger);
        } else if (now < callerDroveAt_ + callerLinger) {
            driveCv_.wait_until(lock, callerDroveAt_ + callerLinger);
        } else {
            break;
        }
    }
    // At shutdown it waits only for the turn in progress.
    while (driving_) driveCv_.wait_for(lock, callerLinger);
    driving_ = true;
    networkDriving_ = true;
}

void ClientCore::networkLoop() {
    onNetworkThread = true;
    for (;;) {
        standAside();
        Turn turn(*this, true);
        // After stop no caller takes a turn; those still waiting see their futures failed here.
        if (stopFlag_.load()) return shutdownSequence();
        iterate(Clock::time_point::max());
    }
}

void ClientCore::awaitReady(bool (*ready)(const void*), const void* context, Clock::time_point deadline) {
    if (ready(context)) return;
    std::unique_lock<std::mutex> lock(driveMutex_);
    ++callersWaiting_;
    struct Leave {
        ClientCore& core;
        std::unique_lock<std::mutex>& lock;
        ~Leave() {
            if (!lock.owns_lock()) lock.lock();
            --core.callersWaiting_;
        }
    } leave{*this, lock};
    bool askedNetwork = false;
    while (!ready(context) && Clock::now() < deadline) {
        if (!driving_ && !stopFlag_.load()) {
            driving_ = true;
            lock.unlock();
            {
                Turn turn(*this, false);
                iterate(deadline);
            }
            lock.lock();
            continue;
        }
        // The network thread may sit in a long wait for the network: end it, once.
        if (networkDriving_ && !askedNetwork) {
            askedNetwork = true;
            lock.unlock();
            waker_.wake();
            lock.lock();
            continue;
        }
        driveCv_.wait_until(lock, deadline);
    }
}

void ClientCore::handleStateChanges() {
    // A vector: an empty deque would allocate on every turn of the loop.
    std::vector<ConnectionEvent> events;
    bool inactive = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!connectionEvents_.empty()) {
            events.assign(std::make_move_iterator(connectionEvents_.begin()), std::make_move_iterator(connectionEvents_.end()));
            connectionEvents_.clear();
        }
        inactive = std::exchange(inactive_, false);
        if (std::exchange(newSession_, false)) resetMonitoringLocked();
    }
    if (inactive) {
        LOG4CPLUS_WARN(logger(), "no answer from " << endpoint_ << ": closing the connection to open a new one");
        UA_Client_disconnectSecureChannelAsync(client_);
    }
    for (auto& event : events) {
        LOG4CPLUS_INFO(logger(), (event.first ? "session activated with " : "connection lost to ") << endpoint_);
        boost::asio::post(io_, [event = std::move(event)] { dispatchConnection(event); });
    }
}

void ClientCore::maintainConnection(Clock::time_point now) {
    UA_SecureChannelState channel;
    UA_SessionState session;
    bool requested;
    UA_StatusCode previous;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        channel = channelState_;
        session = sessionState_;
        requested = std::exchange(connectRequested_, false);
        previous = lastStatus_;
        if (session == UA_SESSIONSTATE_ACTIVATED) securityWhy_.reset();
    }
    if (session == UA_SESSIONSTATE_ACTIVATED) {
        security_.connected();
        backoff_ = firstBackoff;
        attemptStart_.reset();
        return;
    }
    if (channel == UA_SECURECHANNELSTATE_CLOSED) {
        // open62541 re-opens a lost channel once by itself; after that it is up to us.
        attemptStart_.reset();
        if (requested) {
            nextAttempt_ = now;
            backoff_ = firstBackoff;
        }
        if (now < nextAttempt_) return;
        // A cause that only the user can remove: tried again at the longest backoff, so that a
        // fix (a trusted certificate, a password) is picked up.
        bool ready = true;
        const std::string why = security_.beforeAttempt(*UA_Client_getConfig(client_), previous, ready);
        {
            std::lock_guard<std::mutex> lock(mutex_);
            lastStatus_ = UA_STATUSCODE_GOOD;
            if (why.empty()) securityWhy_.reset();
            else securityWhy_ = std::make_shared<const std::string>(why);
        }
        if (!why.empty()) backoff_ = maxBackoff;
        const UA_StatusCode rc = ready ? __UA_Client_connect(client_, true) : UA_STATUSCODE_GOOD;
        if (rc != UA_STATUSCODE_GOOD)
            LOG4CPLUS_DEBUG(logger(), "connection attempt to " << endpoint_ << " failed: " << statusName(rc));
        nextAttempt_ = now + backoff_;
        backoff_ = std::min<Clock::duration>(backoff_ * 2, maxBackoff);
        attemptStart_ = now;
        return;
    }
    if (!attemptStart_) {
        attemptStart_ = now;
    } else if (now - *attemptStart_ >= connectTimeout) {
        LOG4CPLUS_WARN(logger(), "connection attempt to " << endpoint_ << " got no answer: abandoned");
        attemptStart_.reset();
        UA_Client_disconnectSecureChannelAsync(client_);
    }
}

void ClientCore::flushQueue() {
    for (;;) {
        std::shared_ptr<Pending> p;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (sessionState_ != UA_SESSIONSTATE_ACTIVATED || stopRequested_) return;
            if (queued_.empty()) {
                if (!sessionActive_) monitoringDirty_ = true; // what waited for the session
                sessionActive_ = true;
                return;
            }
            p = queued_.front();
            queued_.pop_front();
        }
        const auto now = Clock::now();
        if (p->replyTimeMs >= 0)
            p->replyDeadline = p->replyTimeMs > 0 ? now + std::chrono::milliseconds(p->replyTimeMs) : Clock::time_point::max();
        const SendResult result = send(p, p->request);
        if (result == SendResult::NotConnected) {
            std::lock_guard<std::mutex> lock(mutex_);
            p->phase = Pending::Phase::Queued;
            queued_.push_front(p);
            return;
        }
        // open62541 has encoded it; the copy is no longer needed.
        p->dropCopy();
        if (result == SendResult::Decided) {
            std::lock_guard<std::mutex> lock(mutex_);
            completed_.push_back(p);
        }
    }
}

void ClientCore::expire(Clock::time_point now) {
    std::vector<std::shared_ptr<Pending>> toDetach;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (auto it = queued_.begin(); it != queued_.end();) {
            if ((*it)->submitDeadline > now) {
                ++it;
                continue;
            }
            (*it)->decide(Pending::Outcome::NotConnected);
            (*it)->why = securityWhy_;
            completed_.push_back(*it);
            it = queued_.erase(it);
        }
        for (auto& [raw, p] : inflight_) {
            if (p->outcome != Pending::Outcome::None || p->replyDeadline > now) continue;
            p->decide(Pending::Outcome::Timeout);
            completed_.push_back(p);
            // While Sending, the submitting thread detaches it once it knows the request id.
            if (p->phase == Pending::Phase::InFlight) toDetach.push_back(p);
        }
    }
    for (auto& p : toDetach) detach(p);
}

void ClientCore::fulfilCompleted() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (completed_.empty()) return;
        fulfilling_.swap(completed_); // both keep their capacity: no allocation per reply
    }
    // A completion that throws must neither cost the others theirs nor end the driving
    // thread: it is logged. An interruption is for the caller whose turn this is, after the rest.
    bool interrupted = false;
    for (auto& p : fulfilling_) {
        try {
            p->fulfil(endpoint_);
        } catch (const boost::thread_interrupted&) {
            interrupted = true;
        } catch (const std::exception& e) {
            LOG4CPLUS_ERROR(logger(), "exception in the completion of a request to " << endpoint_ << ": " << e.what());
        } catch (...) {
            LOG4CPLUS_ERROR(logger(), "unknown exception in the completion of a request to " << endpoint_);
        }
    }
    fulfilling_.clear();
    if (interrupted) {
        if (!onNetworkThread) throw boost::thread_interrupted();
        LOG4CPLUS_ERROR(logger(), "a completion of a request to " << endpoint_ << " threw an interruption");
    }
}

bool ClientCore::workPendingLocked() const {
    return stopRequested_ || !completed_.empty() || !connectionEvents_.empty() || newSession_ || inactive_ ||
           connectRequested_ || (monitoringDirty_ && sessionActive_);
}

UA_UInt32 ClientCore::planWait(Clock::time_point now, Clock::time_point limit) {
    std::lock_guard<std::mutex> lock(mutex_);
    Clock::time_point next = std::min(limit, now + (wakerOpen_ && waker_.usable() ? longestWait : fallbackWait));
    if (workPendingLocked()) next = now;
    for (const auto& p : queued_) next = std::min(next, p->submitDeadline);
    for (const auto& [raw, p] : inflight_)
        if (p->outcome == Pending::Outcome::None) next = std::min(next, p->replyDeadline);
    if (sessionState_ != UA_SESSIONSTATE_ACTIVATED) {
        if (channelState_ == UA_SECURECHANNELSTATE_CLOSED) next = std::min(next, nextAttempt_);
        // open62541 takes the handshake's next step at the start of an iteration, not when the
        // answer arrives: while an attempt runs the loop turns often, or each step would wait.
        else if (attemptStart_) next = std::min({next, *attemptStart_ + connectTimeout, now + connectStep});
        else next = now;
    } else {
        if (!queued_.empty() || !sessionActive_) next = now;
        if (sub_.state == SubscriptionState::None && !items_.empty()) next = std::min(next, sub_.retryAt);
    }
    plannedWake_ = std::max(next, now);
    return static_cast<UA_UInt32>(std::chrono::ceil<std::chrono::milliseconds>(plannedWake_ - now).count());
}

void ClientCore::wakeLocked(Clock::time_point by, bool& wake) {
    if (by < plannedWake_) {
        plannedWake_ = Clock::time_point::min();
        wake = true;
    }
}

void ClientCore::requestWake() {
    bool wake = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        wakeLocked(Clock::time_point::min() + Clock::duration(1), wake);
    }
    if (wake) waker_.wake();
}

// ---------------------------------------------------------------------------------------------
// Requests

void ClientCore::submit(const std::shared_ptr<Pending>& p, void* request, Clock::time_point submitDeadline,
                        Clock::time_point replyDeadline, long replyTimeMs) {
    p->submitDeadline = submitDeadline;
    p->replyDeadline = replyDeadline;
    p->replyTimeMs = replyTimeMs;
    const auto now = Clock::now();
    // No time to wait (a zero-timeout publish): sent now if possible, and its future reports
    // the reply whenever it comes, since nobody waits for it.
    if (replyTimeMs < 0 && replyDeadline <= now) p->replyDeadline = Clock::time_point::max();
    bool direct = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (stopRequested_) p->decide(Pending::Outcome::ShutDown);
        else if (sessionActive_) direct = true;
        else if (submitDeadline <= now) {
            p->decide(Pending::Outcome::NotConnected);
            p->why = securityWhy_;
        }
    }
    if (p->outcome != Pending::Outcome::None) {
        p->fulfil(endpoint_);
        return;
    }
    if (!direct) {
        enqueue(p, request);
        return;
    }
    if (replyTimeMs >= 0)
        p->replyDeadline = replyTimeMs > 0 ? now + std::chrono::milliseconds(replyTimeMs) : Clock::time_point::max();
    switch (send(p, request)) {
    case SendResult::Sent: break;
    case SendResult::NotConnected: enqueue(p, request); break;
    case SendResult::Decided: p->fulfil(endpoint_); break;
    }
    return;
}

void ClientCore::enqueue(const std::shared_ptr<Pending>& p, const void* request) {
    p->keepCopyOf(request);
    bool wake = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        p->phase = Pending::Phase::Queued;
        queued_.push_back(p);
        sessionActive_ = false; // keeps later requests behind this one
        // With a session the loop sends it at once; without, only its deadline matters.
        wakeLocked(sessionState_ == UA_SESSIONSTATE_ACTIVATED ? Clock::now() : p->submitDeadline, wake);
    }
    if (wake) waker_.wake();
}

ClientCore::SendResult ClientCore::send(const std::shared_ptr<Pending>& p, void* request) {
    const auto now = Clock::now();
    static_cast<UA_RequestHeader*>(request)->timeoutHint = timeoutHint(p->replyDeadline, now);
    bool wake = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        p->phase = Pending::Phase::Sending;
        inflight_[p.get()] = p;
        wakeLocked(p->replyDeadline, wake);
    }
    if (wake) waker_.wake();

    UA_UInt32 requestId = 0;
    const UA_StatusCode rc = __UA_Client_AsyncService(client_, request, p->requestType, &ClientCore::onResponse,
                                                      p->responseType, p.get(), &requestId);
    bool detachNow = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (rc == UA_STATUSCODE_GOOD) {
            if (p->phase == Pending::Phase::Sending) {
                p->requestId = requestId;
                p->phase = Pending::Phase::InFlight;
                detachNow = p->outcome != Pending::Outcome::None; // its deadline passed meanwhile
            }
        } else {
            inflight_.erase(p.get());
            if (p->outcome != Pending::Outcome::None) return SendResult::Sent; // completed already
            if (meansNotConnected(rc)) return SendResult::NotConnected;
            p->decide(Pending::Outcome::Failed, rc);
            return SendResult::Decided;
        }
    }
    if (detachNow) detach(p);
    return SendResult::Sent;
}

void ClientCore::detach(const std::shared_ptr<Pending>& p) {
    // NotFound: open62541's callback has run (or is running) and drops the request itself.
    if (UA_Client_modifyAsyncCallback(client_, p->requestId, nullptr, &ClientCore::onDetached) == UA_STATUSCODE_GOOD) {
        std::lock_guard<std::mutex> lock(mutex_);
        inflight_.erase(p.get());
    }
}

void ClientCore::onResponse(UA_Client* client, void* userdata, UA_UInt32, void* response) {
    ClientCore* core = of(client);
    std::shared_ptr<Pending> keep; // released after the lock
    {
        std::lock_guard<std::mutex> lock(core->mutex_);
        const auto it = core->inflight_.find(static_cast<Pending*>(userdata));
        if (it == core->inflight_.end()) return;
        keep = std::move(it->second);
        core->inflight_.erase(it);
        keep->phase = Pending::Phase::Done;
        if (keep->outcome != Pending::Outcome::None) return;
        const auto* header = static_cast<const UA_ResponseHeader*>(response);
        // open62541 answers by itself (request handle 0) when the request could not be completed.
        if (header->requestHandle == 0 && header->serviceResult != UA_STATUSCODE_GOOD) {
            const UA_StatusCode rc = header->serviceResult;
            keep->decide(rc == UA_STATUSCODE_BADSHUTDOWN ? Pending::Outcome::ShutDown
                         : rc == UA_STATUSCODE_BADTIMEOUT ? Pending::Outcome::Timeout
                                                          : Pending::Outcome::ConnectionLost,
                         rc);
        } else {
            keep->response = UA_new(keep->responseType);
            if (keep->response == nullptr) {
                keep->decide(Pending::Outcome::Failed, UA_STATUSCODE_BADOUTOFMEMORY);
            } else {
                std::memcpy(keep->response, response, keep->responseType->memSize);
                UA_init(response, keep->responseType);
                keep->decide(Pending::Outcome::Response);
            }
        }
        core->completed_.push_back(keep);
    }
    if (!core->onDrivingThread()) core->requestWake();
}

// ---------------------------------------------------------------------------------------------
// Connection state

void ClientCore::onState(UA_Client* client, UA_SecureChannelState channel, UA_SessionState session,
                         UA_StatusCode status) {
    ClientCore* core = of(client);
    {
        std::lock_guard<std::mutex> lock(core->mutex_);
        if (status != UA_STATUSCODE_GOOD) core->lastStatus_ = status;
        if (session == UA_SESSIONSTATE_ACTIVATED) core->lastStatus_ = UA_STATUSCODE_GOOD;
        core->channelState_ = channel;
        core->sessionState_ = session;
        if (session == UA_SESSIONSTATE_CLOSED) core->sessionClosed_ = true;
        const bool up = session == UA_SESSIONSTATE_ACTIVATED;
        if (!up) core->sessionActive_ = false;
        if (up != core->reportedUp_) {
            core->reportedUp_ = up;
            if (core->stopping_) return;
            // A callback registered after this moment does not get this event.
            core->connectionEvents_.emplace_back(up, core->connectionCallbacks_.entries());
            // A session that went through "closed" is a new one: the server knows none of our items.
            if (up && std::exchange(core->sessionClosed_, false)) core->newSession_ = true;
        }
    }
    if (!core->onDrivingThread()) core->requestWake();
}

// open62541 loses the state of a subscription or monitored-item service that it cannot send
// (a few hundred bytes each time), so these go out only over an open channel with an activated
// session, read afresh: the state seen at the top of a round may be stale by the time it sends.
template <class Send> UA_StatusCode ClientCore::sendIfUp(Send&& send) {
    UA_SecureChannelState channel;
    UA_SessionState session;
    UA_StatusCode status;
    UA_Client_getState(client_, &channel, &session, &status);
    if (channel != UA_SECURECHANNELSTATE_OPEN || session != UA_SESSIONSTATE_ACTIVATED)
        return UA_STATUSCODE_BADSERVERNOTCONNECTED;
    return send();
}

namespace {
// Keep-alives about once a second, and a lifetime of a minute or more.
template <class Request> void setSubscriptionTiming(Request& request, double publishingInterval) {
    request.requestedPublishingInterval = publishingInterval;
    const double interval = std::max(1.0, publishingInterval);
    request.requestedMaxKeepAliveCount = static_cast<UA_UInt32>(std::clamp(std::ceil(1000.0 / interval), 3.0, 10000.0));
    request.requestedLifetimeCount =
        std::max<UA_UInt32>(3 * request.requestedMaxKeepAliveCount,
                            static_cast<UA_UInt32>(std::clamp(std::ceil(60000.0 / interval), 10000.0, 1e9)));
}
} // namespace

void ClientCore::onInactivity(UA_Client* client) {
    ClientCore* core = of(client);
    std::lock_guard<std::mutex> lock(core->mutex_);
    core->inactive_ = true;
}

void ClientCore::asyncConnect() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        connectRequested_ = true;
    }
    requestWake();
}

bool ClientCore::isConnected() {
    std::lock_guard<std::mutex> lock(mutex_);
    return reportedUp_;
}

ConnectionQueue::Handle ClientCore::addConnectionCallback(OpcUaClient::ConnectionCallback cb) {
    return connectionCallbacks_.add(std::move(cb));
}

void ClientCore::dispatchConnection(const ConnectionEvent& event) {
    const bool up = event.first;
    for (const auto& entry : event.second) {
        ConnectionQueue::invoke(*entry, [up](OpcUaClient::ConnectionCallback& cb) {
            try {
                cb(up);
            } catch (const std::exception& e) {
                std::cerr << "Exception occurred in connection callback: " << e.what() << "\n";
            } catch (...) {
                std::cerr << "Exception occurred in connection callback\n";
            }
        });
    }
}

// ---------------------------------------------------------------------------------------------
// Monitored items

MonitorQueue::Handle ClientCore::monitor(const UA_NodeId& nodeId, double samplingIntervalMs,
                                         std::function<void(UA_DataValue*)> cb,
                                         std::function<void(UA_StatusCode)> onStatus) {
    OpcUaClient::MonitoredNode node;
    node.nodeId = OpcUaClient::NodeId(nodeId);
    node.samplingIntervalMs = std::max(0.0, samplingIntervalMs);
    node.callback = std::move(cb);
    node.onStatus = std::move(onStatus);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        node.clientKey = nextKey_++;
    }
    const std::uint64_t key = node.clientKey;
    auto handle = monitors_.add(std::move(node));
    {
        std::lock_guard<std::mutex> lock(mutex_);
        items_[key] = ItemRecord{handle.entry()};
        toCreate_.push_back(key);
        const double interval = handle.entry()->callback.samplingIntervalMs;
        smallestInterval_ = smallestInterval_ < 0 ? interval : std::min(smallestInterval_, interval);
        monitoringDirty_ = true;
    }
    requestWake();
    return handle;
}

void ClientCore::requestSweep() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        monitoringDirty_ = true;
        sweepNeeded_ = true;
    }
    requestWake();
}

void ClientCore::resetMonitoringLocked() {
    sub_.state = SubscriptionState::None;
    sub_.id = 0;
    sub_.modifying = false;
    sub_.requestedInterval = -1;
    sub_.retryAt = Clock::time_point{};
    ++sub_.generation;
    monitoringDirty_ = true;
    sweepNeeded_ = true;
    toCreate_.clear();
    for (auto& [key, record] : items_) {
        record.state = ItemState::New; // a refused node may exist on a restarted server
        record.entry->callback.subscriptionId = 0;
        record.entry->callback.monitoredItemId = 0;
        toCreate_.push_back(key);
    }
    pendingDeletes_.clear();
}

void ClientCore::maintainMonitoring(Clock::time_point now) {
    std::optional<UA_CreateSubscriptionRequest> createSubscription;
    std::uint64_t generation = 0;
    std::optional<UA_ModifySubscriptionRequest> modify;
    std::vector<std::uint64_t> newKeys;
    std::vector<UA_MonitoredItemCreateRequest> newItems;
    std::vector<std::pair<UA_UInt32, UA_UInt32>> deletes;
    std::vector<UA_UInt32> strayed;
    UA_UInt32 subscriptionId = 0;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (sub_.state == SubscriptionState::None && !items_.empty() && now >= sub_.retryAt) monitoringDirty_ = true;
        if (!monitoringDirty_) return;
        monitoringDirty_ = false;
        if (std::exchange(sweepNeeded_, false)) {
            smallestInterval_ = -1;
            for (auto it = items_.begin(); it != items_.end();) {
                ItemRecord& record = it->second;
                if (!record.entry->removed.load()) {
                    const double interval = record.entry->callback.samplingIntervalMs;
                    smallestInterval_ = smallestInterval_ < 0 ? interval : std::min(smallestInterval_, interval);
                    ++it;
                    continue;
                }
                if (record.state == ItemState::Creating) { // swept again when its creation ends
                    ++it;
                    continue;
                }
                if (record.state == ItemState::Created && record.generation == sub_.generation)
                    pendingDeletes_.emplace_back(sub_.id, record.monitoredItemId);
                it = items_.erase(it);
            }
            monitors_.purgeRemoved();
        }
        if (!sessionActive_ || sessionState_ != UA_SESSIONSTATE_ACTIVATED) {
            monitoringDirty_ = true; // again once the session is up
            return;
        }

        // The first value of an item made now comes with the next publish: a slow sampling
        // interval must not hold it back (nor any later change) by as long as itself.
        const double smallest = smallestInterval_ < 0 ? -1 : std::min(smallestInterval_, longestPublishingInterval);

        if (sub_.state == SubscriptionState::None && smallest >= 0 && now >= sub_.retryAt) {
            UA_CreateSubscriptionRequest request = UA_CreateSubscriptionRequest_default();
            setSubscriptionTiming(request, smallest);
            createSubscription = request;
            sub_.state = SubscriptionState::Creating;
            sub_.requestedInterval = smallest;
            generation = ++sub_.generation;
        } else if (sub_.state == SubscriptionState::Active) {
            subscriptionId = sub_.id;
            generation = sub_.generation;
            std::vector<std::uint64_t> candidates;
            candidates.swap(toCreate_);
            for (const std::uint64_t key : candidates) {
                const auto found = items_.find(key);
                if (found == items_.end()) continue;
                ItemRecord& record = found->second;
                if (record.state != ItemState::New || record.entry->removed.load()) continue;
                record.state = ItemState::Creating;
                record.generation = generation;
                UA_MonitoredItemCreateRequest item = UA_MonitoredItemCreateRequest_default(*record.entry->callback.nodeId);
                item.requestedParameters.samplingInterval = record.entry->callback.samplingIntervalMs;
                item.requestedParameters.queueSize = itemQueueSize;
                item.requestedParameters.discardOldest = true;
                newItems.push_back(item);
                newKeys.push_back(key);
            }
            if (smallest >= 0 && smallest != sub_.requestedInterval && !sub_.modifying) {
                UA_ModifySubscriptionRequest request;
                UA_ModifySubscriptionRequest_init(&request);
                request.subscriptionId = sub_.id;
                setSubscriptionTiming(request, smallest);
                modify = request;
                sub_.modifying = true;
                sub_.requestedInterval = smallest;
            }
            deletes.swap(pendingDeletes_);
        }
        strayed.swap(strayedSubscriptions_);
    }

    if (createSubscription) {
        void* const context = reinterpret_cast<void*>(static_cast<std::uintptr_t>(generation));
        const UA_StatusCode rc = sendIfUp([&] {
            return UA_Client_Subscriptions_create_async(client_, *createSubscription, context, nullptr,
                                                        &ClientCore::onSubscriptionDeleted,
                                                        &ClientCore::onSubscriptionCreated, context, nullptr);
        });
        if (rc != UA_STATUSCODE_GOOD) {
            std::lock_guard<std::mutex> lock(mutex_);
            if (sub_.generation == generation) {
                sub_.state = SubscriptionState::None;
                sub_.retryAt = now + subscriptionRetry;
                monitoringDirty_ = true;
            }
        }
    }
    if (modify) {
        const UA_StatusCode rc = sendIfUp([&] {
            return UA_Client_Subscriptions_modify_async(client_, *modify, &ClientCore::onSubscriptionModified, nullptr,
                                                        nullptr);
        });
        if (rc != UA_STATUSCODE_GOOD) { // no reply will come: asked again next round
            std::lock_guard<std::mutex> lock(mutex_);
            if (sub_.generation == generation) {
                sub_.modifying = false;
                sub_.requestedInterval = -1;
                monitoringDirty_ = true;
            }
        }
    }
    if (!newItems.empty()) {
        std::uint64_t batchId;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            batchId = nextKey_++;
            batches_[batchId] = ItemBatch{generation, newKeys};
        }
        UA_CreateMonitoredItemsRequest request;
        UA_CreateMonitoredItemsRequest_init(&request);
        request.subscriptionId = subscriptionId;
        request.timestampsToReturn = UA_TIMESTAMPSTORETURN_BOTH;
        request.itemsToCreate = newItems.data();
        request.itemsToCreateSize = newItems.size();
        std::vector<void*> contexts;
        for (const auto key : newKeys) contexts.push_back(reinterpret_cast<void*>(static_cast<std::uintptr_t>(key)));
        std::vector<UA_Client_DataChangeNotificationCallback> callbacks(newItems.size(), &ClientCore::onDataChange);
        std::vector<UA_Client_DeleteMonitoredItemCallback> deleteCallbacks(newItems.size(), nullptr);
        const UA_StatusCode rc = sendIfUp([&] {
            return UA_Client_MonitoredItems_createDataChanges_async(
                client_, request, contexts.data(), callbacks.data(), deleteCallbacks.data(), &ClientCore::onItemsCreated,
                reinterpret_cast<void*>(static_cast<std::uintptr_t>(batchId)), nullptr);
        });
        if (rc != UA_STATUSCODE_GOOD) {
            std::lock_guard<std::mutex> lock(mutex_);
            batches_.erase(batchId);
            monitoringDirty_ = true;
            sweepNeeded_ = true; // an item may have ended meanwhile
            for (const auto key : newKeys) {
                const auto it = items_.find(key);
                if (it != items_.end() && it->second.state == ItemState::Creating) {
                    it->second.state = ItemState::New;
                    toCreate_.push_back(key);
                }
            }
        }
    }
    if (!deletes.empty()) {
        std::map<UA_UInt32, std::vector<UA_UInt32>> bySubscription;
        for (const auto& [subId, monId] : deletes) bySubscription[subId].push_back(monId);
        for (auto& [subId, ids] : bySubscription) {
            UA_DeleteMonitoredItemsRequest request;
            UA_DeleteMonitoredItemsRequest_init(&request);
            request.subscriptionId = subId;
            request.monitoredItemIds = ids.data();
            request.monitoredItemIdsSize = ids.size();
            const UA_StatusCode rc = sendIfUp([&] {
                return UA_Client_MonitoredItems_delete_async(client_, request, &ClientCore::onDetached, nullptr, nullptr);
            });
            if (rc != UA_STATUSCODE_GOOD) {
                // Not connected: tried again once a session is up, unless the subscription goes.
                std::lock_guard<std::mutex> lock(mutex_);
                if (sub_.state == SubscriptionState::Active && sub_.id == subId)
                    for (const auto id : ids) pendingDeletes_.emplace_back(subId, id);
                monitoringDirty_ = true;
            }
        }
    }
    for (const auto id : strayed) {
        UA_DeleteSubscriptionsRequest request;
        UA_DeleteSubscriptionsRequest_init(&request);
        UA_UInt32 subId = id;
        request.subscriptionIds = &subId;
        request.subscriptionIdsSize = 1;
        // Not sent without a session: the server drops it with its session or at the end of its lifetime.
        sendIfUp([&] { return UA_Client_Subscriptions_delete_async(client_, request, &ClientCore::onDetached, nullptr, nullptr); });
    }
}

void ClientCore::onSubscriptionCreated(UA_Client* client, void* userdata, UA_UInt32, void* response) {
    ClientCore* core = of(client);
    const auto generation = static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(userdata));
    const auto* r = static_cast<const UA_CreateSubscriptionResponse*>(response);
    std::lock_guard<std::mutex> lock(core->mutex_);
    const bool current = core->sub_.generation == generation && core->sub_.state == SubscriptionState::Creating;
    if (r->responseHeader.serviceResult != UA_STATUSCODE_GOOD) {
        if (!current) return;
        LOG4CPLUS_ERROR(logger(), "cannot create a subscription on " << core->endpoint_ << ": "
                                                                     << statusName(r->responseHeader.serviceResult));
        core->sub_.state = SubscriptionState::None;
        core->sub_.retryAt = Clock::now() + subscriptionRetry;
        return;
    }
    core->monitoringDirty_ = true;
    if (!current) {
        core->strayedSubscriptions_.push_back(r->subscriptionId);
        return;
    }
    core->sub_.state = SubscriptionState::Active;
    core->sub_.id = r->subscriptionId;
}

void ClientCore::onSubscriptionDeleted(UA_Client* client, UA_UInt32, void* subContext) {
    ClientCore* core = of(client);
    const auto generation = static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(subContext));
    std::lock_guard<std::mutex> lock(core->mutex_);
    // open62541 dropped it (a new session, or the server lost it): everything is made again.
    if (core->sub_.generation == generation && core->sub_.state != SubscriptionState::None && !core->stopping_)
        core->resetMonitoringLocked();
}

void ClientCore::onSubscriptionModified(UA_Client* client, void*, UA_UInt32, void*) {
    ClientCore* core = of(client);
    std::lock_guard<std::mutex> lock(core->mutex_);
    core->sub_.modifying = false;
}

namespace {
// On the I/O-context thread, in order with the item's notifications, which come after it.
void postStatus(boost::asio::io_context& io, std::shared_ptr<MonitorQueue::Entry> entry, UA_StatusCode status) {
    boost::asio::post(io, [entry = std::move(entry), status] {
        MonitorQueue::invoke(*entry, [status](OpcUaClient::MonitoredNode& node) {
            try {
                node.onStatus(status);
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
    const auto batchId = static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(userdata));
    const auto* r = static_cast<const UA_CreateMonitoredItemsResponse*>(response);
    std::lock_guard<std::mutex> lock(core->mutex_);
    const auto batch = core->batches_.find(batchId);
    if (batch == core->batches_.end()) return;
    const ItemBatch items = std::move(batch->second);
    core->batches_.erase(batch);
    const bool current = items.generation == core->sub_.generation;
    const bool serviceOk = r->responseHeader.serviceResult == UA_STATUSCODE_GOOD && r->resultsSize == items.keys.size();
    for (std::size_t i = 0; i < items.keys.size(); ++i) {
        const auto it = core->items_.find(items.keys[i]);
        if (it == core->items_.end() || it->second.state != ItemState::Creating || it->second.generation != items.generation)
            continue;
        ItemRecord& record = it->second;
        if (record.entry->removed.load()) core->sweepNeeded_ = true; // it can go now
        if (!current || !serviceOk) {
            record.state = ItemState::New; // made again with the next subscription or session
            core->toCreate_.push_back(items.keys[i]);
            core->monitoringDirty_ = true;
            continue;
        }
        const UA_MonitoredItemCreateResult& result = r->results[i];
        if (record.entry->callback.onStatus) postStatus(core->io_, record.entry, result.statusCode);
        if (result.statusCode != UA_STATUSCODE_GOOD) {
            // Reported once: by the registration's owner when it listens, else here.
            const std::string what = "cannot monitor " + nodeIdToString(*record.entry->callback.nodeId) + " on " +
                                     core->endpoint_ + ": " + statusName(result.statusCode);
            if (record.entry->callback.onStatus) LOG4CPLUS_DEBUG(logger(), what);
            else LOG4CPLUS_ERROR(logger(), what);
            record.state = ItemState::Failed;
            continue;
        }
        record.state = ItemState::Created;
        record.monitoredItemId = result.monitoredItemId;
        record.entry->callback.subscriptionId = core->sub_.id;
        record.entry->callback.monitoredItemId = result.monitoredItemId;
        if (record.entry->removed.load()) core->monitoringDirty_ = true;
    }
}

void ClientCore::onDataChange(UA_Client* client, UA_UInt32, void*, UA_UInt32, void* monContext, UA_DataValue* value) {
    ClientCore* core = of(client);
    const auto key = static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(monContext));
    std::shared_ptr<MonitorQueue::Entry> entry;
    {
        std::lock_guard<std::mutex> lock(core->mutex_);
        const auto it = core->items_.find(key);
        if (core->stopping_ || it == core->items_.end() || it->second.entry->removed.load()) return;
        entry = it->second.entry;
    }
    // The value is taken, not copied; open62541 clears what it leaves behind.
    auto taken = UaShared<UA_DataValue>::take(*value);
    boost::asio::post(core->io_, [entry = std::move(entry), taken = std::move(taken)] {
        MonitorQueue::invoke(*entry, [&taken](OpcUaClient::MonitoredNode& node) {
            try {
                node.callback(taken.get());
            } catch (const std::exception& e) {
                std::cerr << "Exception occurred in monitored item callback: " << e.what() << "\n";
            } catch (...) {
                std::cerr << "Exception occurred in monitored item callback\n";
            }
        });
    });
}

// ---------------------------------------------------------------------------------------------
// OpcUaClient

OpcUaClient::OpcUaClient(const std::string& endpoint, const std::map<std::string, std::string>& properties)
    : core_(std::make_shared<ClientCore>(endpoint, properties)) {
    core_->start();
}

OpcUaClient::~OpcUaClient() { core_->stop(); }

const std::string& OpcUaClient::endpoint() const { return core_->endpoint(); }

void OpcUaClient::asyncConnect() { core_->asyncConnect(); }

bool OpcUaClient::isConnected() const { return core_->isConnected(); }

NotificationQueue<OpcUaClient::ConnectionCallback>::Handle OpcUaClient::addConnectionCallback(ConnectionCallback callback) {
    return core_->addConnectionCallback(std::move(callback));
}

NotificationQueue<OpcUaClient::MonitoredNode>::Handle
OpcUaClient::monitor(const UA_NodeId& nodeId, double samplingIntervalMs, std::function<void(UA_DataValue*)> callback,
                     std::function<void(UA_StatusCode)> onStatus) {
    return core_->monitor(nodeId, samplingIntervalMs, std::move(callback), std::move(onStatus));
}

std::vector<OpcUaClient::ReadValueId> OpcUaClient::makeReadValueIds(const std::vector<NodeId>& nodeIds) {
    std::vector<ReadValueId> ids;
    ids.reserve(nodeIds.size());
    for (const auto& nodeId : nodeIds) {
        ReadValueId id;
        if (UA_NodeId_copy(nodeId.get(), &id->nodeId) != UA_STATUSCODE_GOOD) throw std::bad_alloc();
        id->attributeId = UA_ATTRIBUTEID_VALUE;
        ids.push_back(std::move(id));
    }
    return ids;
}

boost::future<OpcUaClient::ReadResponse> OpcUaClient::readValuesAsync(const std::vector<ReadValueId>& ids, std::size_t count,
                                                                      Clock::time_point deadline) {
    FulfilPromise<UA_ReadResponse> done;
    auto future = done.promise.get_future();
    readValues(ids, count, deadline, std::move(done));
    return future;
}

boost::future<OpcUaClient::WriteResponse> OpcUaClient::writeValuesAsync(UA_WriteValue* values, std::size_t count,
                                                                        Clock::time_point deadline) {
    FulfilPromise<UA_WriteResponse> done;
    auto future = done.promise.get_future();
    writeValues(values, count, deadline, std::move(done));
    return future;
}

boost::future<OpcUaClient::CallResponse> OpcUaClient::callMethodsAsync(UA_CallMethodRequest* requests, std::size_t count,
                                                                       Clock::time_point submitDeadline, long replyTimeMs) {
    FulfilPromise<UA_CallResponse> done;
    auto future = done.promise.get_future();
    callMethods(requests, count, submitDeadline, replyTimeMs, std::move(done));
    return future;
}

void OpcUaClient::submit(const std::shared_ptr<PendingRequest>& p, void* request, Clock::time_point submitDeadline,
                         Clock::time_point replyDeadline, long replyTimeMs) {
    core_->submit(p, request, submitDeadline, replyDeadline, replyTimeMs);
}

boost::asio::io_context& OpcUaClient::ioContext() { return core_->io(); }

void OpcUaClient::awaitReady(bool (*ready)(const void*), const void* context, Clock::time_point deadline) {
    const std::shared_ptr<ClientCore> core = core_; // the wait may outlast this handle
    core->awaitReady(ready, context, deadline);
}

} // namespace vesk::duvo::opcua::detail
