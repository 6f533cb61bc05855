#pragma once
#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <log4cplus/logger.h>
#include <open62541/types.h>

#include <duvo/opcua/detail/ps/sinks.hpp>
#include <vesk/duvo/opcua/client.hpp>
#include <vesk/duvo/opcua/time.hpp>
#include <vesk/duvo/opcua/uriHelper.hpp>

namespace vesk::duvo::opcua::detail::ps {

/// Reads all nodes of a subscription in one OPC UA read, periodically or when a monitor
/// triggers it, and delivers the sample when its data time is newer than the last one.
/// Compiled once for every sample type: the sink makes and takes the samples.
///
/// A poll only sends its read: the reply is handled in a handler posted to the I/O context when
/// it comes, so a slow server holds up no other handler there. One read at a time: a poll that
/// finds the last read unanswered before its deadline asks for one more read after the reply
/// (triggers during a read coalesce into it); past the deadline the read counts as timed out
/// and the poll reads nothing.
class DataPollerCore {
public:
    using NodeId = UaCpp<UA_NodeId, std::shared_ptr<UA_NodeId>>;

    /// A period below 1 ms gives a poller that only serves triggered polls, with 1000 ms reads.
    /// The sink outlives the poller.
    DataPollerCore(const DeliverySink& sink, std::shared_ptr<OpcUaClient> client, const std::vector<NodeId>& nodeIds,
                   std::int64_t periodMs);

    /// After this returns no handler of the poller runs any more; a handler in progress on the
    /// I/O thread is waited for (it never waits for the server). A reply still to come is dropped.
    ~DataPollerCore();

    DataPollerCore(const DataPollerCore&) = delete;
    DataPollerCore& operator=(const DataPollerCore&) = delete;

    /// Queues a triggered poll on the client's I/O context; never polls on the caller's thread.
    void postTriggeredPoll();

    /// Re-arms the timer for 1 ms, cancelling a pending wait, so a burst becomes one read.
    void scheduleTriggeredPoll();

    /// Sends the read, on the I/O thread; its reply is handled by onReply.
    void poll();

    std::int64_t getPeriodMs() const noexcept { return periodMs_; }
    const std::string& getId() const noexcept { return id_; }

private:
    struct Guard;
    struct Reply;

    template <class F>
    auto guarded(F f);
    template <class F>
    void post(F f);

    void timedOut();
    void onReply(Reply& r);
    void handle(Reply& r);
    void onPeriodicPollTimer(const boost::system::error_code& ec);
    void onTriggerPollTimer(const boost::system::error_code& ec);

    log4cplus::Logger logger_;
    const DeliverySink& sink_;
    std::shared_ptr<OpcUaClient> client_;
    std::int64_t periodMs_;
    std::vector<OpcUaClient::ReadValueId> readValueIds_;
    std::vector<NodeId> nodeIds_;
    double lastDataTime_ = 0.0;
    std::string id_;
    boost::asio::steady_timer timer_;
    std::shared_ptr<Guard> guard_;
    // I/O thread only: the read in flight, if any, and whether another should follow it.
    bool outstanding_ = false;
    bool pollAgain_ = false;
    std::uint64_t serial_ = 0;
    std::chrono::steady_clock::time_point readDeadline_{};
};

/// A poller delivering to a sink of the typed form (see SinkAdapter).
template <class ST, class Sink>
class BasicDataPoller : private SinkSlot<ST, Sink>, public DataPollerCore {
public:
    using NodeId = DataPollerCore::NodeId;

    BasicDataPoller(Sink sink, std::shared_ptr<OpcUaClient> client, const std::vector<NodeId>& nodeIds,
                    std::int64_t periodMs)
        : SinkSlot<ST, Sink>(std::move(sink)), DataPollerCore(this->adapted, std::move(client), nodeIds, periodMs) {}
};

template <class T, class ST>
using OpcUaDataPoller = BasicDataPoller<ST, QueuedSink<T, ST>>;
template <class T, class ST>
using OpcUaMrvDataPoller = BasicDataPoller<ST, MrvSink<T, ST>>;

} // namespace vesk::duvo::opcua::detail::ps
