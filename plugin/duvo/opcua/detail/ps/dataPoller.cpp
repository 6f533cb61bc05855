#include <duvo/opcua/detail/ps/dataPoller.hpp>

#include <boost/asio/post.hpp>

#include <vesk/duvo/opcua/time.hpp>
#include <vesk/duvo/opcua/uriHelper.hpp>

namespace vesk::duvo::opcua::detail::ps {

struct DataPollerCore::Guard {
    std::mutex mutex;
    bool alive = true;
    std::atomic<std::thread::id> runner{};                  // the thread running a handler, under the mutex
    std::atomic<std::uint64_t> answered{~std::uint64_t(0)}; // the last read that ended in time
};

/// How a read ended: the response, or a failure (timed out: at or after its deadline).
struct DataPollerCore::Reply {
    std::uint64_t read = 0;
    OpcUaClient::ReadResponse response;
    bool failed = false;
    bool timedOut = false;
};

/// Wraps a handler so that it runs only while the poller lives, never beside its destructor.
template <class F>
auto DataPollerCore::guarded(F f) {
    return [g = guard, f = std::move(f)](auto&&... args) mutable {
        std::lock_guard<std::mutex> lock(g->mutex);
        if (!g->alive) return;
        g->runner.store(std::this_thread::get_id());
        f(std::forward<decltype(args)>(args)...);
        g->runner.store(std::thread::id());
    };
}

template <class F>
void DataPollerCore::post(F f) {
    boost::asio::post(client->ioContext(), guarded(std::move(f)));
}

DataPollerCore::DataPollerCore(const DeliverySink& sink, std::shared_ptr<OpcUaClient> client,
                               const std::vector<NodeId>& nodeIds, std::int64_t periodMs)
    : logger(log4cplus::Logger::getInstance("orsa.duvo.opcua.subscriber")), sink(sink), client(std::move(client)),
      periodMs(periodMs), readValueIds(this->client->makeReadValueIds(nodeIds)), nodeIds(nodeIds),
      timer(this->client->ioContext()), guard(std::make_shared<Guard>()) {
    id = sink.pollerName;
    for (const auto& node : nodeIds) id += " " + nodeIdToString(*node);
    if (this->periodMs < 1) {
        this->periodMs = 1000;
    } else {
        post([this] { onPeriodicPollTimer({}); });
    }
}

DataPollerCore::~DataPollerCore() {
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

void DataPollerCore::postTriggeredPoll() {
    post([this] { scheduleTriggeredPoll(); });
}

void DataPollerCore::scheduleTriggeredPoll() {
    timer.expires_after(std::chrono::milliseconds(1));
    timer.async_wait(guarded([this](const boost::system::error_code& ec) { onTriggerPollTimer(ec); }));
}

void DataPollerCore::poll() {
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
        client->readValues(
            readValueIds, readValueIds.size(), readDeadline,
            [io = &client->ioContext(), g = guard, reply = guarded([this](Reply& r) { onReply(r); }), read = serial,
             deadline = readDeadline](OpcUaClient::ReadResponse response, const RequestFailure* failure) mutable {
                // On the thread that drives the client: handled on the I/O
                // thread, never inline here.
                Reply r{read, std::move(response), failure != nullptr,
                        failure != nullptr && (failure->timedOut || std::chrono::steady_clock::now() >= deadline)};
                if (!r.timedOut) g->answered.store(read);
                boost::asio::post(*io, [reply = std::move(reply), r = std::move(r)]() mutable { reply(r); });
            });
    } catch (...) {
        outstanding = false;
        sink.pollThrew();
    }
}

void DataPollerCore::timedOut() { sink.pollTimedOut(logger, "Msg:" + id + ": read timed out"); }

void DataPollerCore::onReply(Reply& r) {
    if (!outstanding || r.read != serial) return; // given up as timed out already
    outstanding = false;
    ++serial;
    const std::shared_ptr<Guard> g = guard; // what the reply delivers may destroy the poller
    handle(r);
    // A sink may ask to hear of every read's end, delivered or not (the benchmark's does).
    if (g->alive) sink.readEnded();
    if (g->alive && pollAgain) poll();
}

void DataPollerCore::handle(Reply& r) {
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
                sink.pollFailed(logger, "Msg:" + id + ": failed to read node " + nodeIdToString(*nodeIds[i]) + ": " +
                                            UA_StatusCode_name(value.status));
                return;
            }
        }
        const double t = maxDataTimestamp(*response);
        if (lastDataTime == 0.0 || lastDataTime < t) {
            lastDataTime = t;
            sink.sample(sink.convert(response->results), t);
        }
    } catch (...) {
        sink.pollThrew();
    }
}

void DataPollerCore::onPeriodicPollTimer(const boost::system::error_code& ec) {
    if (ec == boost::asio::error::operation_aborted) return;
    // The next period starts now, whatever this read takes.
    timer.expires_after(std::chrono::milliseconds(periodMs));
    timer.async_wait(guarded([this](const boost::system::error_code& e) { onPeriodicPollTimer(e); }));
    poll();
}

void DataPollerCore::onTriggerPollTimer(const boost::system::error_code& ec) {
    if (ec == boost::asio::error::operation_aborted) return;
    poll();
}

} // namespace vesk::duvo::opcua::detail::ps
