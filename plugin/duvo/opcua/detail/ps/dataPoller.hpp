#pragma once
#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <type_traits>
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

template <class ST, class = void>
struct TakesOwnedValues : std::false_type {};
template <class ST>
struct TakesOwnedValues<ST, std::void_t<decltype(std::declval<ST&>().takeOpcUaDataValues(std::declval<UA_DataValue*>()))>>
    : std::true_type {};

/// Fills a new sample from values that the caller owns and gives up: a binding that can take
/// numeric arrays over does so rather than copy their elements.
template <class ST>
void fillFromOwnedValues(ST& sample, UA_DataValue* values) {
    if constexpr (TakesOwnedValues<ST>::value)
        sample.takeOpcUaDataValues(values);
    else
        sample.setOpcUaDataValues(values);
}

/// Reads all nodes of a subscription in one OPC UA read, periodically or when a monitor
/// triggers it, and delivers the sample when its data time is newer than the last one.
///
/// A poll only sends its read: the reply is handled in a handler posted to the I/O context when
/// it comes, so a slow server holds up no other handler there. One read at a time: a poll that
/// finds the last read unanswered before its deadline asks for one more read after the reply
/// (triggers during a read coalesce into it); past the deadline the read counts as timed out
/// and the poll reads nothing.
template <class ST, class Sink>
class BasicDataPoller {
public:
    using NodeId = UaCpp<UA_NodeId, std::shared_ptr<UA_NodeId>>;

    /// A period below 1 ms gives a poller that only serves triggered polls, with 1000 ms reads.
    BasicDataPoller(Sink sink, std::shared_ptr<OpcUaClient> client, const std::vector<NodeId>& nodeIds,
                    std::int64_t periodMs)
        : logger(log4cplus::Logger::getInstance("orsa.duvo.opcua.subscriber")),
          sink(sink),
          client(std::move(client)),
          periodMs(periodMs),
          readValueIds(this->client->makeReadValueIds(nodeIds)),
          nodeIds(nodeIds),
          timer(this->client->ioContext()),
          guard(std::make_shared<Guard>()) {
        id = Sink::pollerName;
        for (const auto& node : nodeIds) id += " " + nodeIdToString(*node);
        if (this->periodMs < 1) {
            this->periodMs = 1000;
        } else {
            post([this] { onPeriodicPollTimer({}); });
        }
    }

    /// After this returns no handler of the poller runs any more; a handler in progress on the
    /// I/O thread is waited for (it never waits for the server). A reply still to come is dropped.
    ~BasicDataPoller() {
        if (guard->runner.load() == std::this_thread::get_id()) {
            // Inside one of its own handlers (the application closed the subscriber from a
            // callback of what this poll delivered): that handler holds the guard already,
            // and stops once the delivery returns.
            guard->alive = false;
            timer.cancel();
            return;
        }
        std::lock_guard<std::mutex> lock(guard->mutex);
        guard->alive = false;
        timer.cancel();
    }

    BasicDataPoller(const BasicDataPoller&) = delete;
    BasicDataPoller& operator=(const BasicDataPoller&) = delete;

    /// Queues a triggered poll on the client's I/O context; never polls on the caller's thread.
    void postTriggeredPoll() {
        post([this] { scheduleTriggeredPoll(); });
    }

    /// Re-arms the timer for 1 ms, cancelling a pending wait, so a burst becomes one read.
    void scheduleTriggeredPoll() {
        timer.expires_after(std::chrono::milliseconds(1));
        timer.async_wait(guarded([this](const boost::system::error_code& ec) { onTriggerPollTimer(ec); }));
    }

    /// Sends the read, on the I/O thread; its reply is handled by onReply.
    void poll() {
        if (outstanding) {
            // A reply that came in time but waits behind other handlers here is no timeout.
            if (std::chrono::steady_clock::now() < readDeadline || guard->answered.load() == serial) {
                pollAgain = true;
                return;
            }
            // Noticed before the client's own deadline did: the late reply is dropped. The next
            // read waits for the next poll, so that a server too slow for the period is not sent
            // reads faster than it gave them up.
            outstanding = false;
            ++serial;
            return timedOut();
        }
        pollAgain = false;
        outstanding = true;
        readDeadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(periodMs);
        try {
            client->readValues(readValueIds, readValueIds.size(), readDeadline,
                               [io = &client->ioContext(), g = guard, reply = guarded([this](Reply& r) { onReply(r); }),
                                read = serial, deadline = readDeadline](OpcUaClient::ReadResponse response,
                                                                        const RequestFailure* failure) mutable {
                                   // On the thread that drives the client: handled on the I/O
                                   // thread, never inline here.
                                   Reply r{read, std::move(response), failure != nullptr,
                                           failure != nullptr && (failure->timedOut ||
                                                                  std::chrono::steady_clock::now() >= deadline)};
                                   if (!r.timedOut) g->answered.store(read);
                                   boost::asio::post(*io, [reply = std::move(reply), r = std::move(r)]() mutable {
                                       reply(r);
                                   });
                               });
        } catch (...) {
            outstanding = false;
            sink.pollThrew();
        }
    }

    std::int64_t getPeriodMs() const noexcept { return periodMs; }
    const std::string& getId() const noexcept { return id; }

private:
    struct Guard {
        std::mutex mutex;
        bool alive = true;
        std::atomic<std::thread::id> runner{}; // the thread running a handler, under the mutex
        std::atomic<std::uint64_t> answered{~std::uint64_t(0)}; // the last read that ended in time
    };

    /// How a read ended: the response, or a failure (timed out: at or after its deadline).
    struct Reply {
        std::uint64_t read = 0;
        OpcUaClient::ReadResponse response;
        bool failed = false;
        bool timedOut = false;
    };

    /// Wraps a handler so that it runs only while the poller lives, never beside its destructor.
    template <class F>
    auto guarded(F f) {
        return [g = guard, f = std::move(f)](auto&&... args) mutable {
            std::lock_guard<std::mutex> lock(g->mutex);
            if (!g->alive) return;
            g->runner.store(std::this_thread::get_id());
            f(std::forward<decltype(args)>(args)...);
            g->runner.store(std::thread::id());
        };
    }

    void timedOut() { sink.pollTimedOut(logger, "Msg:" + id + ": read timed out"); }

    template <class F>
    void post(F f) {
        boost::asio::post(client->ioContext(), guarded(std::move(f)));
    }

    void onReply(Reply& r) {
        if (!outstanding || r.read != serial) return; // given up as timed out already
        outstanding = false;
        ++serial;
        const std::shared_ptr<Guard> g = guard; // what the reply delivers may destroy the poller
        handle(r);
        if (g->alive) readEnded(sink, 0);
        if (g->alive && pollAgain) poll();
    }

    /// A sink may ask to hear of every read's end, delivered or not (the benchmark's does).
    template <class S>
    static auto readEnded(const S& s, int) -> decltype(s.readEnded()) {
        return s.readEnded();
    }
    template <class S>
    static void readEnded(const S&, long) {}

    void handle(Reply& r) {
        if (r.timedOut) return timedOut();
        if (r.failed) return sink.pollThrew(); // the connection went, or the client did
        try {
            const OpcUaClient::ReadResponse& response = r.response;
            const UA_StatusCode service = response->responseHeader.serviceResult;
            if (service != UA_STATUSCODE_GOOD) {
                sink.pollFailed(logger, "Msg:" + id + ": read returned " + UA_StatusCode_name(service));
                return;
            }
            if (response->resultsSize != nodeIds.size()) {
                sink.pollFailed(logger, "Msg:" + id + ": read returned " + std::to_string(response->resultsSize) +
                                            " values, " + "expected " + std::to_string(nodeIds.size()));
                return;
            }
            for (std::size_t i = 0; i < response->resultsSize; ++i) {
                const UA_DataValue& value = response->results[i];
                if (value.hasStatus && UA_StatusCode_isBad(value.status)) {
                    sink.pollFailed(logger, "Msg:" + id + ": failed to read node " + nodeIdToString(*nodeIds[i]) +
                                                ": " + UA_StatusCode_name(value.status));
                    return;
                }
            }
            const double t = maxDataTimestamp(*response);
            if (lastDataTime == 0.0 || lastDataTime < t) {
                lastDataTime = t;
                auto sample = std::make_unique<ST>();
                fillFromOwnedValues(*sample, response->results);
                sink.sample(std::move(sample), t);
            }
        } catch (...) {
            sink.pollThrew();
        }
    }

    void onPeriodicPollTimer(const boost::system::error_code& ec) {
        if (ec == boost::asio::error::operation_aborted) return;
        // The next period starts now, whatever this read takes.
        timer.expires_after(std::chrono::milliseconds(periodMs));
        timer.async_wait(guarded([this](const boost::system::error_code& e) { onPeriodicPollTimer(e); }));
        poll();
    }

    void onTriggerPollTimer(const boost::system::error_code& ec) {
        if (ec == boost::asio::error::operation_aborted) return;
        poll();
    }

    log4cplus::Logger logger;
    Sink sink;
    std::shared_ptr<OpcUaClient> client;
    std::int64_t periodMs;
    std::vector<OpcUaClient::ReadValueId> readValueIds;
    std::vector<NodeId> nodeIds;
    double lastDataTime = 0.0;
    std::string id;
    boost::asio::steady_timer timer;
    std::shared_ptr<Guard> guard;
    // I/O thread only: the read in flight, if any, and whether another should follow it.
    bool outstanding = false;
    bool pollAgain = false;
    std::uint64_t serial = 0;
    std::chrono::steady_clock::time_point readDeadline{};
};

template <class T, class ST>
using OpcUaDataPoller = BasicDataPoller<ST, QueuedSink<T, ST>>;
template <class T, class ST>
using OpcUaMrvDataPoller = BasicDataPoller<ST, MrvSink<T, ST>>;

} // namespace vesk::duvo::opcua::detail::ps
