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
    return [g = guard_, f = std::move(f)](auto&&... args) mutable {
        std::lock_guard<std::mutex> lock(g->mutex);
        if (!g->alive) return;
        g->runner.store(std::this_thread::get_id());
        f(std::forward<decltype(args)>(args)...);
        g->runner.store(std::thread::id());
    };
}

template <class F>
void DataPollerCore::post(F f) {
    boost::asio::post(client_->ioContext(), guarded(std::move(f)));
}

DataPollerCore::DataPollerCore(const DeliverySink& sink, std::shared_ptr<OpcUaClient> client,
                               const std::vector<NodeId>& nodeIds, std::int64_t periodMs)
    : logger_(log4cplus::Logger::getInstance("orsa.duvo.opcua.subscriber")), sink_(sink), client_(std::move(client)),
      periodMs_(periodMs), readValueIds_(this->client_->makeReadValueIds(nodeIds)), nodeIds_(nodeIds),
      timer_(this->client_->ioContext()), guard_(std::make_shared<Guard>()) {
    id_ = sink.pollerName;
    for (const auto& node : nodeIds) id_ += " " + nodeIdToString(*node);
    if (this->periodMs_ < 1) {
        this->periodMs_ = 1000;
    } else {
        post([this] { onPeriodicPollTimer({}); });
    }
}

DataPollerCore::~DataPollerCore() {
    if (guard_->runner.load() == std::this_thread::get_id()) {
        // Inside one of its own handlers (the application closed the subscriber from a
        // callback of what this poll delivered): that handler holds the guard already,
        // and stops once the delivery returns.
        guard_->alive = false;
        timer_.cancel();
        return;
    }
    std::lock_guard<std::mutex> lock(guard_->mutex);
    guard_->alive = false;
    timer_.cancel();
}

void DataPollerCore::postTriggeredPoll() {
    post([this] { scheduleTriggeredPoll(); });
}

void DataPollerCore::scheduleTriggeredPoll() {
    timer_.expires_after(std::chrono::milliseconds(1));
    timer_.async_wait(guarded([this](const boost::system::error_code& ec) { onTriggerPollTimer(ec); }));
}

void DataPollerCore::poll() {
    if (outstanding_) {
        // A reply that came in time but waits behind other handlers here is no timeout.
        if (std::chrono::steady_clock::now() < readDeadline_ || guard_->answered.load() == serial_) {
            pollAgain_ = true;
            return;
        }
        // Noticed before the client's own deadline did: the late reply is dropped. The next
        // read waits for the next poll, so that a server too slow for the period is not sent
        // reads faster than it gave them up.
        outstanding_ = false;
        ++serial_;
        return timedOut();
    }
    pollAgain_ = false;
    outstanding_ = true;
    readDeadline_ = std::chrono::steady_clock::now() + std::chrono::milliseconds(periodMs_);
    try {
        client_->readValues(
            readValueIds_, readValueIds_.size(), readDeadline_,
            [io = &client_->ioContext(), g = guard_, reply = guarded([this](Reply& r) { onReply(r); }), read = serial_,
             deadline = readDeadline_](OpcUaClient::ReadResponse response, const RequestFailure* failure) mutable {
                // On the thread that drives the client: handled on the I/O
                // thread, never inline here.
                Reply r{read, std::move(response), failure != nullptr,
                        failure != nullptr && (failure->timedOut || std::chrono::steady_clock::now() >= deadline)};
                if (!r.timedOut) g->answered.store(read);
                boost::asio::post(*io, [reply = std::move(reply), r = std::move(r)]() mutable { reply(r); });
            });
    } catch (...) {
        outstanding_ = false;
        sink_.pollThrew();
    }
}

void DataPollerCore::timedOut() { sink_.pollTimedOut(logger_, "Msg:" + id_ + ": read timed out"); }

void DataPollerCore::onReply(Reply& r) {
    if (!outstanding_ || r.read != serial_) return; // given up as timed out already
    outstanding_ = false;
    ++serial_;
    const std::shared_ptr<Guard> g = guard_; // what the reply delivers may destroy the poller
    handle(r);
    // A sink may ask to hear of every read's end, delivered or not (the benchmark's does).
    if (g->alive) sink_.readEnded();
    if (g->alive && pollAgain_) poll();
}

void DataPollerCore::handle(Reply& r) {
    if (r.timedOut) return timedOut();
    if (r.failed) return sink_.pollThrew(); // the connection went, or the client did
    try {
        const OpcUaClient::ReadResponse& response = r.response;
        const UA_StatusCode service = response->responseHeader.serviceResult;
        if (service != UA_STATUSCODE_GOOD) {
            sink_.pollFailed(logger_, "Msg:" + id_ + ": read returned " + UA_StatusCode_name(service));
            return;
        }
        if (response->resultsSize != nodeIds_.size()) {
            sink_.pollFailed(logger_, "Msg:" + id_ + ": read returned " + std::to_string(response->resultsSize) +
                                          " values, " + "expected " + std::to_string(nodeIds_.size()));
            return;
        }
        for (std::size_t i = 0; i < response->resultsSize; ++i) {
            const UA_DataValue& value = response->results[i];
            if (value.hasStatus && UA_StatusCode_isBad(value.status)) {
                sink_.pollFailed(logger_, "Msg:" + id_ + ": failed to read node " + nodeIdToString(*nodeIds_[i]) +
                                              ": " + UA_StatusCode_name(value.status));
                return;
            }
        }
        const double t = maxDataTimestamp(*response);
        if (lastDataTime_ == 0.0 || lastDataTime_ < t) {
            lastDataTime_ = t;
            sink_.sample(sink_.convert(response->results), t);
        }
    } catch (...) {
        sink_.pollThrew();
    }
}

void DataPollerCore::onPeriodicPollTimer(const boost::system::error_code& ec) {
    if (ec == boost::asio::error::operation_aborted) return;
    // The next period starts now, whatever this read takes.
    timer_.expires_after(std::chrono::milliseconds(periodMs_));
    timer_.async_wait(guarded([this](const boost::system::error_code& e) { onPeriodicPollTimer(e); }));
    poll();
}

void DataPollerCore::onTriggerPollTimer(const boost::system::error_code& ec) {
    if (ec == boost::asio::error::operation_aborted) return;
    poll();
}

} // namespace vesk::duvo::opcua::detail::ps
