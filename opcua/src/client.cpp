#include <vesk/duvo/opcua/client.hpp>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <stdexcept>

#include <boost/asio/post.hpp>
#include <log4cplus/loggingmacros.h>
#include <open62541/client_config_default.h>
#include <open62541/client_subscriptions.h>

#include "clientCore.hpp"

namespace vesk::duvo::opcua::detail {

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

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
constexpr auto shutdownGrace = 200ms;

// open62541's log lines go to the same logger, one level lower: what matters to the user (a lost
// connection, a failed request) is logged or reported by the client itself, while open62541
// repeats its errors at every reconnection attempt.
void forwardLog(void*, UA_LogLevel level, UA_LogCategory, const char* msg, va_list args) {
    const log4cplus::LogLevel target = level >= UA_LOGLEVEL_FATAL     ? log4cplus::ERROR_LOG_LEVEL
                                       : level >= UA_LOGLEVEL_ERROR   ? log4cplus::INFO_LOG_LEVEL
                                       : level >= UA_LOGLEVEL_WARNING ? log4cplus::DEBUG_LOG_LEVEL
                                                                      : log4cplus::TRACE_LOG_LEVEL;
    if (!clientLogger().isEnabledFor(target)) return;
    char text[512];
    std::vsnprintf(text, sizeof text, msg, args);
    clientLogger().forcedLog(target, LOG4CPLUS_C_STR_TO_TSTRING(text));
}

UA_Logger forwardingLogger{&forwardLog, nullptr, nullptr};

} // namespace

log4cplus::Logger& clientLogger() {
    static log4cplus::Logger instance = log4cplus::Logger::getInstance("orsa.duvo.opcua.internal");
    return instance;
}

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
        LOG4CPLUS_WARN(clientLogger(),
                       "cannot wake the OPC UA event loop of " << endpoint_ << "; deadlines are checked every 10 ms");
    work_.emplace(boost::asio::make_work_guard(io_));
    auto self = shared_from_this();
    ioThread_ = std::thread([self] {
        for (;;) {
            try {
                self->io_.run();
                break;
            } catch (const std::exception& e) {
                LOG4CPLUS_ERROR(clientLogger(), "exception in a handler of the I/O context: " << e.what());
            } catch (...) {
                LOG4CPLUS_ERROR(clientLogger(), "unknown exception in a handler of the I/O context");
            }
        }
    });
    netThread_ = std::thread([self] { self->networkLoop(); });
}

void ClientCore::stop() {
    {
        std::lock_guard<std::mutex> lock(pipeline_.mutex);
        pipeline_.stopRequested = true;
    }
    {
        std::lock_guard<std::mutex> lock(drive_.mutex);
        drive_.stop.store(true);
    }
    drive_.cv.notify_all();
    waker_.wake();
    // On one of our own threads, or on a caller's thread in the middle of its turn at the loop
    // (a completion dropped the last reference), the threads cannot be joined: they end by
    // themselves right after, holding the core until then.
    const auto self = std::this_thread::get_id();
    const bool onOwnThread = self == netThread_.get_id() || self == ioThread_.get_id() || onDrivingThread();
    if (netThread_.joinable()) {
        if (onOwnThread)
            netThread_.detach();
        else
            netThread_.join();
    }
    work_.reset();
    io_.stop();
    if (ioThread_.joinable()) {
        if (onOwnThread)
            ioThread_.detach();
        else
            ioThread_.join();
    }
}

void ClientCore::shutdownSequence() {
    stopping_.store(true);
    {
        std::lock_guard<std::mutex> lock(pipeline_.mutex);
        pipeline_.sessionActive = false;
        for (auto& p : pipeline_.queued) {
            p->decide(Pending::Outcome::ShutDown);
            pipeline_.completed.push_back(p);
        }
        pipeline_.queued.clear();
        for (auto& [raw, p] : pipeline_.inflight) {
            if (p->outcome != Pending::Outcome::None) continue;
            p->decide(Pending::Outcome::ShutDown);
            pipeline_.completed.push_back(p);
        }
    }
    const std::optional<UA_UInt32> subscription = endMonitoring(sessionActivated());
    fulfilCompleted();

    std::atomic<bool> done{false}; // outlives UA_Client_delete, which may still call back
    if (subscription) {
        UA_UInt32 subscriptionId = *subscription;
        UA_DeleteSubscriptionsRequest request;
        UA_DeleteSubscriptionsRequest_init(&request);
        request.subscriptionIds = &subscriptionId;
        request.subscriptionIdsSize = 1;
        const UA_StatusCode rc = sendIfUp([&] {
            return UA_Client_Subscriptions_delete_async(
                client_, request,
                [](UA_Client*, void* flag, UA_UInt32, void*) { static_cast<std::atomic<bool>*>(flag)->store(true); },
                &done, nullptr);
        });
        const auto until = Clock::now() + shutdownGrace;
        while (rc == UA_STATUSCODE_GOOD && !done.load() && Clock::now() < until) UA_Client_run_iterate(client_, 10);
    }
    UA_Client_disconnectAsync(client_);
    for (const auto until = Clock::now() + shutdownGrace; Clock::now() < until;) {
        {
            std::lock_guard<std::mutex> lock(connection_.mutex);
            if (connection_.channel == UA_SECURECHANNELSTATE_CLOSED) break;
        }
        UA_Client_run_iterate(client_, 10);
    }
    // Stopped here in short steps: UA_Client_delete would wait 100 ms per step.
    UA_EventLoop* loop = UA_Client_getConfig(client_)->eventLoop;
    if (loop->state == UA_EVENTLOOPSTATE_STARTED) loop->stop(loop);
    for (const auto until = Clock::now() + shutdownGrace;
         loop->state == UA_EVENTLOOPSTATE_STOPPING && Clock::now() < until;)
        loop->run(loop, 1);
    UA_Client_delete(client_); // calls back the requests still open with BadShutdown
    client_ = nullptr;
    {
        std::lock_guard<std::mutex> lock(pipeline_.mutex);
        pipeline_.inflight.clear();
    }
    fulfilCompleted();
}

// ---------------------------------------------------------------------------------------------
// Connection and session

void ClientCore::handleStateChanges() {
    // A vector: an empty deque would allocate on every turn of the loop.
    std::vector<ConnectionEvent> events;
    bool inactive = false;
    bool newSession = false;
    {
        std::lock_guard<std::mutex> lock(connection_.mutex);
        auto& queued = connection_.events;
        if (!queued.empty()) {
            events.assign(std::make_move_iterator(queued.begin()), std::make_move_iterator(queued.end()));
            queued.clear();
        }
        inactive = std::exchange(connection_.inactive, false);
        newSession = std::exchange(connection_.newSession, false);
    }
    if (newSession) resetMonitoring();
    if (inactive) {
        LOG4CPLUS_WARN(clientLogger(), "no answer from " << endpoint_ << ": closing the connection to open a new one");
        UA_Client_disconnectSecureChannelAsync(client_);
    }
    for (auto& event : events) {
        LOG4CPLUS_INFO(clientLogger(), (event.first ? "session activated with " : "connection lost to ") << endpoint_);
        boost::asio::post(io_, [event = std::move(event)] { dispatchConnection(event); });
    }
}

void ClientCore::maintainConnection(Clock::time_point now) {
    UA_SecureChannelState channel;
    UA_SessionState session;
    bool requested;
    UA_StatusCode previous;
    {
        std::lock_guard<std::mutex> lock(connection_.mutex);
        channel = connection_.channel;
        session = connection_.session;
        requested = std::exchange(connection_.connectRequested, false);
        previous = connection_.lastStatus;
        if (session == UA_SESSIONSTATE_ACTIVATED) connection_.securityWhy.reset();
    }
    if (session == UA_SESSIONSTATE_ACTIVATED) {
        security_.connected();
        connection_.backoff = Connection::firstBackoff;
        connection_.attemptStart.reset();
        return;
    }
    if (channel == UA_SECURECHANNELSTATE_CLOSED) {
        // open62541 re-opens a lost channel once by itself; after that it is up to us.
        connection_.attemptStart.reset();
        if (requested) {
            connection_.nextAttempt = now;
            connection_.backoff = Connection::firstBackoff;
        }
        if (now < connection_.nextAttempt) return;
        // A cause that only the user can remove: tried again at the longest backoff, so that a
        // fix (a trusted certificate, a password) is picked up.
        bool ready = true;
        const std::string why = security_.beforeAttempt(*UA_Client_getConfig(client_), previous, ready);
        {
            std::lock_guard<std::mutex> lock(connection_.mutex);
            connection_.lastStatus = UA_STATUSCODE_GOOD;
            if (why.empty())
                connection_.securityWhy.reset();
            else
                connection_.securityWhy = std::make_shared<const std::string>(why);
        }
        if (!why.empty()) connection_.backoff = maxBackoff;
        const UA_StatusCode rc = ready ? __UA_Client_connect(client_, true) : UA_STATUSCODE_GOOD;
        if (rc != UA_STATUSCODE_GOOD)
            LOG4CPLUS_DEBUG(clientLogger(), "connection attempt to " << endpoint_ << " failed: " << statusName(rc));
        connection_.nextAttempt = now + connection_.backoff;
        connection_.backoff = std::min<Clock::duration>(connection_.backoff * 2, maxBackoff);
        connection_.attemptStart = now;
        return;
    }
    if (!connection_.attemptStart) {
        connection_.attemptStart = now;
    } else if (now - *connection_.attemptStart >= connectTimeout) {
        LOG4CPLUS_WARN(clientLogger(), "connection attempt to " << endpoint_ << " got no answer: abandoned");
        connection_.attemptStart.reset();
        UA_Client_disconnectSecureChannelAsync(client_);
    }
}
Clock::time_point ClientCore::connectionDueLocked(Clock::time_point now, Clock::time_point next, bool& activated) {
    std::lock_guard<std::mutex> lock(connection_.mutex);
    const Connection& c = connection_;
    if (!c.events.empty() || c.newSession || c.inactive || c.connectRequested) next = now;
    activated = c.session == UA_SESSIONSTATE_ACTIVATED;
    if (activated) return next;
    if (c.channel == UA_SECURECHANNELSTATE_CLOSED) return std::min(next, c.nextAttempt);
    // open62541 takes the handshake's next step at the start of an iteration, not when the
    // answer arrives: while an attempt runs the loop turns often, or each step would wait.
    if (c.attemptStart) return std::min({next, *c.attemptStart + connectTimeout, now + connectStep});
    return now;
}

std::shared_ptr<const std::string> ClientCore::securityWhy() {
    std::lock_guard<std::mutex> lock(connection_.mutex);
    return connection_.securityWhy;
}

bool ClientCore::sessionActivated() {
    std::lock_guard<std::mutex> lock(connection_.mutex);
    return connection_.session == UA_SESSIONSTATE_ACTIVATED;
}

void ClientCore::onState(UA_Client* client, UA_SecureChannelState channel, UA_SessionState session,
                         UA_StatusCode status) {
    ClientCore* core = of(client);
    const bool up = session == UA_SESSIONSTATE_ACTIVATED;
    bool quiet = false; // a change seen while shutting down is not reported, nor woken for
    {
        Connection& c = core->connection_;
        std::lock_guard<std::mutex> lock(c.mutex);
        if (status != UA_STATUSCODE_GOOD) c.lastStatus = status;
        if (up) c.lastStatus = UA_STATUSCODE_GOOD;
        c.channel = channel;
        c.session = session;
        if (session == UA_SESSIONSTATE_CLOSED) c.sessionClosed = true;
        if (up != c.reportedUp) {
            c.reportedUp = up;
            quiet = core->stopping_.load();
            if (!quiet) {
                // A callback registered after this moment does not get this event.
                c.events.emplace_back(up, core->connectionCallbacks_.entries());
                // A session that went through "closed" is a new one: the server knows none of our items.
                if (up && std::exchange(c.sessionClosed, false)) c.newSession = true;
            }
        }
    }
    if (!up) {
        std::lock_guard<std::mutex> lock(core->pipeline_.mutex);
        core->pipeline_.sessionActive = false;
    }
    if (!quiet && !core->onDrivingThread()) core->requestWake();
}

void ClientCore::onInactivity(UA_Client* client) {
    ClientCore* core = of(client);
    std::lock_guard<std::mutex> lock(core->connection_.mutex);
    core->connection_.inactive = true;
}

void ClientCore::asyncConnect() {
    {
        std::lock_guard<std::mutex> lock(connection_.mutex);
        connection_.connectRequested = true;
    }
    requestWake();
}

bool ClientCore::isConnected() {
    std::lock_guard<std::mutex> lock(connection_.mutex);
    return connection_.reportedUp;
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
// OpcUaClient

OpcUaClient::OpcUaClient(const std::string& endpoint, const std::map<std::string, std::string>& properties)
    : core_(std::make_shared<ClientCore>(endpoint, properties)) {
    core_->start();
}

OpcUaClient::~OpcUaClient() { core_->stop(); }

const std::string& OpcUaClient::endpoint() const { return core_->endpoint(); }

void OpcUaClient::asyncConnect() { core_->asyncConnect(); }

bool OpcUaClient::isConnected() const { return core_->isConnected(); }

NotificationQueue<OpcUaClient::ConnectionCallback>::Handle
OpcUaClient::addConnectionCallback(ConnectionCallback callback) {
    return core_->addConnectionCallback(std::move(callback));
}

NotificationQueue<OpcUaClient::MonitoredNode>::Handle
OpcUaClient::monitor(const UA_NodeId& nodeId, double samplingIntervalMs, std::function<void(UA_DataValue*)> callback,
                     std::function<void(const UA_NodeId&, UA_StatusCode)> onStatus) {
    return core_->monitor(NodeId(nodeId), samplingIntervalMs, std::move(callback), std::move(onStatus));
}

NotificationQueue<OpcUaClient::MonitoredNode>::Handle
OpcUaClient::monitor(NodeId nodeId, double samplingIntervalMs, std::function<void(UA_DataValue*)> callback,
                     std::function<void(const UA_NodeId&, UA_StatusCode)> onStatus) {
    return core_->monitor(std::move(nodeId), samplingIntervalMs, std::move(callback), std::move(onStatus));
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

boost::future<OpcUaClient::ReadResponse> OpcUaClient::readValuesAsync(const std::vector<ReadValueId>& ids,
                                                                      std::size_t count, Clock::time_point deadline) {
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

boost::future<OpcUaClient::CallResponse> OpcUaClient::callMethodsAsync(UA_CallMethodRequest* requests,
                                                                       std::size_t count,
                                                                       Clock::time_point submitDeadline,
                                                                       long replyTimeMs) {
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
