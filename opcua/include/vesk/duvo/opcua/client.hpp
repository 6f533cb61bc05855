#pragma once
// The shared OPC UA connection to one server endpoint.
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/chrono/system_clocks.hpp>
#include <boost/thread/future.hpp>
#include <open62541/types.h>
#include <open62541/types_generated.h>

#include <vesk/duvo/opcua/notificationQueue.hpp>
#include <vesk/duvo/opcua/recycling.hpp>
#include <vesk/duvo/opcua/request.hpp>
#include <vesk/duvo/opcua/uaCpp.hpp>

namespace vesk::duvo::opcua::detail {

class ClientCore;

/// One open62541 client with two threads of its own:
/// - the network thread drives open62541 while no caller does: a thread that waits for a
///   reply (awaitReady, awaitReply) drives it itself, one thread at a time, and the network
///   thread stands aside until a moment after the last such turn. Every open62541 callback
///   arrives on the driving thread, and the futures below are completed there (so
///   `.then(boost::launch::sync, ...)` continuations run on it: they must not block);
/// - the I/O-context thread runs ioContext(): pollers' timers and posted work, monitored-item
///   notifications and connection callbacks.
///
/// It connects when created and reconnects by itself (backoff from 50 ms doubling to 250 ms; an
/// attempt that has not activated a session within 3 s is abandoned). A peer that goes
/// silent is noticed within 3 s by a read every 250 ms: a server that answers nothing for
/// 1.4 s is taken as gone, and the client reconnects.
///
/// Requests are encoded and sent from the caller's thread before the call returns; without a
/// session they are kept (deep-copied, in order) until a session is up or their submit
/// deadline passes. Every future completes exactly once: with the server's response (whose
/// service result the caller checks), or with an exception whose message begins with one of
///   "timeout"          vesk::duvo::TimeoutException: the reply deadline passed;
///   "not connected"    vesk::duvo::DuvoException: no session before the submit deadline;
///   "connection lost"  vesk::duvo::DuvoException: the connection closed before the reply;
///   "client shut down" vesk::duvo::DuvoException: the client was destroyed first;
///   "request failed"   vesk::duvo::DuvoException: open62541 could not send it;
/// followed by ": " and details (status name, endpoint). A read or write whose deadline has
/// passed when it is made (a zero timeout) is not kept: without a session it fails at once with
/// "not connected"; with one it is sent, and its future completes with the reply whenever that
/// comes (or "connection lost", "client shut down"), since nobody waits for it.
///
/// The destructor stops both threads (it may run on either of them: the thread then ends on
/// its own right after), fails pending futures with "client shut down", deletes the
/// subscription and closes the session.
///
/// Who owns what:
/// - application threads submit requests (and send them while a session is up), register and
///   drop monitored items and connection callbacks, and ask isConnected();
/// - the driving thread, one at a time (a caller that waits, or else the network thread), runs
///   open62541's loop: it gets every open62541 callback, which only records under the lock of
///   its part, and then acts on what they recorded: connection attempts, backoff and security
///   set-up (its own state, no lock), queued requests, deadlines, the subscription and its
///   items. No open62541 call is made from inside one of its callbacks;
/// - the I/O-context thread runs the user's callbacks, posted to it.
/// Each part of the state has its own lock, held neither while open62541 nor user code runs:
/// the connection's (channel and session state, the connection events to report, why no
/// attempt can succeed), the request pipeline's (queued, in-flight and ended requests, whether
/// requests may go at once, when the loop plans to wake), the monitoring's (the subscription,
/// the items and their state on the server). The pipeline's lock may be held while one of the
/// other two is taken, never the reverse. Turns at the loop are handed over under a lock of
/// their own, held with no other.
class OpcUaClient {
public:
    using Clock = std::chrono::steady_clock;
    using NodeId = UaCpp<UA_NodeId, std::shared_ptr<UA_NodeId>>;
    using ReadValueId = UaCpp<UA_ReadValueId, std::shared_ptr<UA_ReadValueId>>;
    using ReadResponse = UaCpp<UA_ReadResponse, std::unique_ptr<UA_ReadResponse, void (*)(UA_ReadResponse*)>>;
    using WriteResponse = UaCpp<UA_WriteResponse, std::unique_ptr<UA_WriteResponse, void (*)(UA_WriteResponse*)>>;
    using CallResponse = UaCpp<UA_CallResponse, std::unique_ptr<UA_CallResponse, void (*)(UA_CallResponse*)>>;
    using ConnectionCallback = std::function<void(bool)>;

    /// A monitored-item registration.
    struct MonitoredNode {
        NodeId nodeId;
        double samplingIntervalMs = 0;
        std::function<void(UA_DataValue*)> callback;
        /// The server's verdict each time the item is made there (Good, or why it refused).
        std::function<void(const UA_NodeId&, UA_StatusCode)> onStatus;
        /// The server's first verdict, set once by the driving thread as it arrives (before
        /// onStatus is posted): a thread that waits for it while driving the loop needs no
        /// other thread.
        class FirstVerdict {
        public:
            FirstVerdict() = default;
            FirstVerdict(FirstVerdict&& other) noexcept : value_(other.value_.load()) {}
            FirstVerdict& operator=(FirstVerdict&& other) noexcept {
                value_.store(other.value_.load());
                return *this;
            }
            void set(UA_StatusCode status) noexcept {
                std::uint64_t none = 0;
                value_.compare_exchange_strong(none, answered | status);
            }
            bool has() const noexcept { return value_.load() != 0; }
            UA_StatusCode get() const noexcept { return static_cast<UA_StatusCode>(value_.load()); }

        private:
            static constexpr std::uint64_t answered = std::uint64_t(1) << 32;
            std::atomic<std::uint64_t> value_{0};
        } firstVerdict;
        /// Maintained by the client under its monitoring lock: its key for the item, and the server's ids
        /// while the item exists there.
        std::uint64_t clientKey = 0;
        UA_UInt32 subscriptionId = 0;
        UA_UInt32 monitoredItemId = 0;
    };
    using MonitorHandle = NotificationQueue<MonitoredNode>::Handle;
    using ConnectionHandle = NotificationQueue<ConnectionCallback>::Handle;

    /// endpoint: "opc.tcp://host:port[/path]". properties: the middleware properties.
    explicit OpcUaClient(const std::string& endpoint, const std::map<std::string, std::string>& properties = {});
    OpcUaClient(const OpcUaClient&) = delete;
    OpcUaClient& operator=(const OpcUaClient&) = delete;
    ~OpcUaClient();

    const std::string& endpoint() const;

    /// Starts a connection attempt at once unless connected or connecting (resets the backoff).
    void asyncConnect();

    /// Whether a session is activated now.
    bool isConnected() const;

    /// callback(true) each time a session is activated, callback(false) once when it is lost.
    /// No call for the state at registration. Called on the I/O-context thread.
    NotificationQueue<ConnectionCallback>::Handle addConnectionCallback(ConnectionCallback callback);

    /// Monitors the node's Value: callback gets every data change (on the I/O-context thread;
    /// the value may be taken). Sampling interval 0 asks for every change; the server revises
    /// it. The subscription's publishing interval follows the smallest registered interval, at
    /// most 100 ms, and each item's first value comes with the first publish after it is made.
    /// Items are re-created once when a new session replaces a lost one; a refused item is
    /// tried again only then. onStatus (optional, same thread) gets the node and the server's
    /// verdict each time the item is made: whoever passes it reports a refusal, the client only
    /// traces it.
    /// Destroying the handle deletes the item on the server.
    NotificationQueue<MonitoredNode>::Handle
    monitor(const UA_NodeId& nodeId, double samplingIntervalMs, std::function<void(UA_DataValue*)> callback,
            std::function<void(const UA_NodeId&, UA_StatusCode)> onStatus = {});
    /// As above, sharing the node id instead of copying it.
    NotificationQueue<MonitoredNode>::Handle
    monitor(NodeId nodeId, double samplingIntervalMs, std::function<void(UA_DataValue*)> callback,
            std::function<void(const UA_NodeId&, UA_StatusCode)> onStatus = {});

    /// One read of the Value attribute per node id, for readValuesAsync.
    std::vector<ReadValueId> makeReadValueIds(const std::vector<NodeId>& nodeIds);

    /// Reads the first count ids (source and server timestamps). Fails at the deadline.
    boost::future<ReadResponse> readValuesAsync(const std::vector<ReadValueId>& ids, std::size_t count,
                                                Clock::time_point deadline);

    /// Writes count values; they stay the caller's and may go as soon as the call returns.
    /// Fails at the deadline.
    boost::future<WriteResponse> writeValuesAsync(UA_WriteValue* values, std::size_t count, Clock::time_point deadline);

    /// Calls count methods; the requests stay the caller's. Without a session the call waits
    /// until submitDeadline; once sent, replyTimeMs bounds the reply (0 or less: no bound).
    boost::future<CallResponse> callMethodsAsync(UA_CallMethodRequest* requests, std::size_t count,
                                                 Clock::time_point submitDeadline, long replyTimeMs);

    /// As readValuesAsync, writeValuesAsync and callMethodsAsync, with the end going to done
    /// instead of a future (see PendingWith): for callers that need neither a future nor a
    /// continuation.
    template <class Done>
    void readValues(const std::vector<ReadValueId>& ids, std::size_t count, Clock::time_point deadline, Done done) {
        if (count > ids.size()) throw std::invalid_argument("readValuesAsync: count exceeds the read value ids");
        // Shallow copies: the ids stay the caller's.
        std::vector<UA_ReadValueId> nodes(count);
        for (std::size_t i = 0; i < count; ++i) nodes[i] = *ids[i];
        UA_ReadRequest request;
        UA_ReadRequest_init(&request);
        request.timestampsToReturn = UA_TIMESTAMPSTORETURN_BOTH;
        request.nodesToRead = nodes.data();
        request.nodesToReadSize = count;
        submit(makePending<UA_ReadResponse>(&UA_TYPES[UA_TYPES_READREQUEST], std::move(done)), &request, deadline,
               deadline, -1);
    }
    template <class Done>
    void writeValues(UA_WriteValue* values, std::size_t count, Clock::time_point deadline, Done done) {
        UA_WriteRequest request;
        UA_WriteRequest_init(&request);
        request.nodesToWrite = values;
        request.nodesToWriteSize = count;
        submit(makePending<UA_WriteResponse>(&UA_TYPES[UA_TYPES_WRITEREQUEST], std::move(done)), &request, deadline,
               deadline, -1);
    }
    template <class Done>
    void callMethods(UA_CallMethodRequest* requests, std::size_t count, Clock::time_point submitDeadline,
                     long replyTimeMs, Done done) {
        UA_CallRequest request;
        UA_CallRequest_init(&request);
        request.methodsToCall = requests;
        request.methodsToCallSize = count;
        submit(makePending<UA_CallResponse>(&UA_TYPES[UA_TYPES_CALLREQUEST], std::move(done)), &request, submitDeadline,
               Clock::time_point::max(), replyTimeMs > 0 ? replyTimeMs : 0);
    }

    /// The I/O context run by the client's second thread.
    boost::asio::io_context& ioContext();

    /// Until ready(context) or the deadline: this thread drives the client's loop while no
    /// other thread does (a caller that waits first, the network thread only while none does),
    /// else it waits for the one that does, whose turn hands out every reply that came.
    void awaitReady(bool (*ready)(const void*), const void* context, Clock::time_point deadline);

private:
    template <class Resp, class Done>
    static std::shared_ptr<PendingRequest> makePending(const UA_DataType* requestType, Done done) {
        using P = PendingWith<Resp, Done>;
        return std::allocate_shared<P>(Recycling<P>(), requestType, std::move(done));
    }
    void submit(const std::shared_ptr<PendingRequest>& p, void* request, Clock::time_point submitDeadline,
                Clock::time_point replyDeadline, long replyTimeMs);

    std::shared_ptr<ClientCore> core_;
};

/// Waits for a reply until the deadline, driving the client's loop on this thread while no
/// other thread does: the reply reaches its caller without a hand-over between threads.
template <class R>
boost::future_status awaitReply(OpcUaClient& client, boost::future<R>& future,
                                boost::chrono::steady_clock::time_point deadline) {
    if (!future.is_ready()) {
        const auto now = boost::chrono::steady_clock::now();
        const auto until = deadline == boost::chrono::steady_clock::time_point::max()
                               ? OpcUaClient::Clock::time_point::max()
                               : OpcUaClient::Clock::now() + std::chrono::nanoseconds((deadline - now).count());
        client.awaitReady([](const void* f) { return static_cast<const boost::future<R>*>(f)->is_ready(); }, &future,
                          until);
    }
    return future.is_ready() ? boost::future_status::ready : boost::future_status::timeout;
}

} // namespace vesk::duvo::opcua::detail
