#include <algorithm>
#include <chrono>
#include <cstring>
#include <limits>
#include <optional>

#include <boost/thread/exceptions.hpp>
#include <log4cplus/loggingmacros.h>
#include <open62541/client_highlevel_async.h>

#include "clientCore.hpp"

// The request pipeline and its deadlines, and the loop that callers drive while they wait.
namespace vesk::duvo::opcua::detail {

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

// open62541 must never time out a request that may still be answered (a late reply would
// close the channel): its hint is twice ours plus this margin.
constexpr UA_UInt32 hintMarginMs = 10000;
constexpr UA_UInt32 noDeadlineHintMs = 24u * 3600u * 1000u;
constexpr auto longestWait = 1000ms;
// Without the waker, deadlines are met to within this tick.
constexpr auto fallbackWait = 10ms;
// After a waiting caller drove the loop, the network thread stays aside this long: a caller
// that waits again soon (a loop of synchronous publishes) drives at once, without first waking
// the network thread out of its wait and waiting for it to let go.
constexpr auto callerLinger = 2ms;

UA_UInt32 timeoutHint(Clock::time_point deadline, Clock::time_point now) {
    if (deadline == Clock::time_point::max()) return noDeadlineHintMs;
    const auto remaining = std::max<long long>(0, std::chrono::ceil<std::chrono::milliseconds>(deadline - now).count());
    return static_cast<UA_UInt32>(
        std::min<long long>(2 * remaining + hintMarginMs, std::numeric_limits<UA_Int32>::max()));
}

bool meansNotConnected(UA_StatusCode rc) {
    return rc == UA_STATUSCODE_BADSERVERNOTCONNECTED || rc == UA_STATUSCODE_BADCONNECTIONCLOSED ||
           rc == UA_STATUSCODE_BADSECURECHANNELCLOSED || rc == UA_STATUSCODE_BADSESSIONCLOSED;
}

} // namespace

// ---------------------------------------------------------------------------------------------
// The loop

namespace {
thread_local const ClientCore* drivingCore = nullptr;
thread_local bool onNetworkThread = false; // nobody can interrupt it
} // namespace

bool ClientCore::onDrivingThread() const { return drivingCore == this; }

/// One thread's turn at the loop: taken with drive_.driving set, and given back however it ends (an
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
            std::lock_guard<std::mutex> lock(core_.drive_.mutex);
            core_.drive_.driving = false;
            core_.drive_.networkDriving = false;
            if (!network_) core_.drive_.callerDroveAt = Clock::now();
            // Callers whose replies this turn fulfilled, or who wait to drive next.
            wakeOthers = core_.drive_.callersWaiting > (network_ ? 0 : 1);
        }
        if (wakeOthers) core_.drive_.cv.notify_all();
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
    maintainMonitoring(Clock::now(), sessionUsable());
    fulfilCompleted();
    // No spinning before the wait: it wins a quiet benchmark and loses on a loaded machine,
    // where the spinning thread takes the core from the server or the thread that would answer.
    UA_Client_run_iterate(client_, planWait(Clock::now(), limit));
    {
        std::lock_guard<std::mutex> lock(pipeline_.mutex);
        pipeline_.plannedWake = Clock::time_point::min();
    }
    postNotifications();
    fulfilCompleted();
}

// The network thread waits while a caller drives or wants to, and a little after.
void ClientCore::standAside() {
    std::unique_lock<std::mutex> lock(drive_.mutex);
    for (;;) {
        if (drive_.stop.load()) break;
        const auto now = Clock::now();
        if (drive_.driving || drive_.callersWaiting > 0) {
            drive_.cv.wait_for(lock, callerLinger);
        } else if (now < drive_.callerDroveAt + callerLinger) {
            drive_.cv.wait_until(lock, drive_.callerDroveAt + callerLinger);
        } else {
            break;
        }
    }
    // At shutdown it waits only for the turn in progress.
    while (drive_.driving) drive_.cv.wait_for(lock, callerLinger);
    drive_.driving = true;
    drive_.networkDriving = true;
}

void ClientCore::networkLoop() {
    onNetworkThread = true;
    for (;;) {
        standAside();
        Turn turn(*this, true);
        // After stop no caller takes a turn; those still waiting see their futures failed here.
        if (drive_.stop.load()) return shutdownSequence();
        iterate(Clock::time_point::max());
    }
}

void ClientCore::awaitReady(bool (*ready)(const void*), const void* context, Clock::time_point deadline) {
    if (ready(context)) return;
    std::unique_lock<std::mutex> lock(drive_.mutex);
    ++drive_.callersWaiting;
    struct Leave {
        ClientCore& core;
        std::unique_lock<std::mutex>& lock;
        ~Leave() {
            if (!lock.owns_lock()) lock.lock();
            --core.drive_.callersWaiting;
        }
    } leave{*this, lock};
    bool askedNetwork = false;
    while (!ready(context) && Clock::now() < deadline) {
        if (!drive_.driving && !drive_.stop.load()) {
            drive_.driving = true;
            lock.unlock();
            {
                Turn turn(*this, false);
                iterate(deadline);
            }
            lock.lock();
            continue;
        }
        // The network thread may sit in a long wait for the network: end it, once.
        if (drive_.networkDriving && !askedNetwork) {
            askedNetwork = true;
            lock.unlock();
            waker_.wake();
            lock.lock();
            continue;
        }
        drive_.cv.wait_until(lock, deadline);
    }
}

void ClientCore::flushQueue() {
    bool opened = false;
    for (;;) {
        std::shared_ptr<Pending> p;
        {
            // Read afresh each time: a send may have ended the session.
            const bool activated = sessionActivated();
            std::lock_guard<std::mutex> lock(pipeline_.mutex);
            if (!activated || pipeline_.stopRequested) return;
            if (pipeline_.queued.empty()) {
                opened = !pipeline_.sessionActive; // what waited for the session
                pipeline_.sessionActive = true;
                break;
            }
            p = pipeline_.queued.front();
            pipeline_.queued.pop_front();
        }
        const auto now = Clock::now();
        if (p->replyTimeMs >= 0)
            p->replyDeadline =
                p->replyTimeMs > 0 ? now + std::chrono::milliseconds(p->replyTimeMs) : Clock::time_point::max();
        const SendResult result = send(p, p->request);
        if (result == SendResult::NotConnected) {
            std::lock_guard<std::mutex> lock(pipeline_.mutex);
            p->phase = Pending::Phase::Queued;
            pipeline_.queued.push_front(p);
            return;
        }
        // open62541 has encoded it; the copy is no longer needed.
        p->dropCopy();
        if (result == SendResult::Decided) {
            std::lock_guard<std::mutex> lock(pipeline_.mutex);
            pipeline_.completed.push_back(p);
        }
    }
    if (opened) monitoringDirty();
}

void ClientCore::expire(Clock::time_point now) {
    std::vector<std::shared_ptr<Pending>> toDetach;
    std::optional<std::shared_ptr<const std::string>> why;
    {
        std::lock_guard<std::mutex> lock(pipeline_.mutex);
        for (auto it = pipeline_.queued.begin(); it != pipeline_.queued.end();) {
            if ((*it)->submitDeadline > now) {
                ++it;
                continue;
            }
            (*it)->decide(Pending::Outcome::NotConnected);
            if (!why) why = securityWhy();
            (*it)->why = *why;
            pipeline_.completed.push_back(*it);
            it = pipeline_.queued.erase(it);
        }
        for (auto& [raw, p] : pipeline_.inflight) {
            if (p->outcome != Pending::Outcome::None || p->replyDeadline > now) continue;
            p->decide(Pending::Outcome::Timeout);
            pipeline_.completed.push_back(p);
            // While Sending, the submitting thread detaches it once it knows the request id.
            if (p->phase == Pending::Phase::InFlight) toDetach.push_back(p);
        }
    }
    for (auto& p : toDetach) detach(p);
}

void ClientCore::fulfilCompleted() {
    {
        std::lock_guard<std::mutex> lock(pipeline_.mutex);
        if (pipeline_.completed.empty()) return;
        pipeline_.fulfilling.swap(pipeline_.completed); // both keep their capacity: no allocation per reply
    }
    // A completion that throws must neither cost the others theirs nor end the driving
    // thread: it is logged. An interruption is for the caller whose turn this is, after the rest.
    bool interrupted = false;
    for (auto& p : pipeline_.fulfilling) {
        try {
            p->fulfil(endpoint_);
        } catch (const boost::thread_interrupted&) {
            interrupted = true;
        } catch (const std::exception& e) {
            LOG4CPLUS_ERROR(clientLogger(),
                            "exception in the completion of a request to " << endpoint_ << ": " << e.what());
        } catch (...) {
            LOG4CPLUS_ERROR(clientLogger(), "unknown exception in the completion of a request to " << endpoint_);
        }
    }
    pipeline_.fulfilling.clear();
    if (interrupted) {
        if (!onNetworkThread) throw boost::thread_interrupted();
        LOG4CPLUS_ERROR(clientLogger(), "a completion of a request to " << endpoint_ << " threw an interruption");
    }
}

UA_UInt32 ClientCore::planWait(Clock::time_point now, Clock::time_point limit) {
    // Under the pipeline's lock throughout: what is recorded after this look wakes the loop.
    std::lock_guard<std::mutex> lock(pipeline_.mutex);
    Pipeline& q = pipeline_;
    Clock::time_point next = std::min(limit, now + (wakerOpen_ && waker_.usable() ? longestWait : fallbackWait));
    if (q.stopRequested || !q.completed.empty()) next = now;
    bool activated = false;
    next = connectionDueLocked(now, next, activated);
    for (const auto& p : q.queued) next = std::min(next, p->submitDeadline);
    for (const auto& [raw, p] : q.inflight)
        if (p->outcome == Pending::Outcome::None) next = std::min(next, p->replyDeadline);
    if (activated && (!q.queued.empty() || !q.sessionActive)) next = now;
    next = monitoringDueLocked(next, now, q.sessionActive, activated);
    q.plannedWake = std::max(next, now);
    return static_cast<UA_UInt32>(std::chrono::ceil<std::chrono::milliseconds>(q.plannedWake - now).count());
}

void ClientCore::wakeLocked(Clock::time_point by, bool& wake) {
    if (by < pipeline_.plannedWake) {
        pipeline_.plannedWake = Clock::time_point::min();
        wake = true;
    }
}

void ClientCore::requestWake() {
    bool wake = false;
    {
        std::lock_guard<std::mutex> lock(pipeline_.mutex);
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
        std::lock_guard<std::mutex> lock(pipeline_.mutex);
        if (pipeline_.stopRequested)
            p->decide(Pending::Outcome::ShutDown);
        else if (pipeline_.sessionActive)
            direct = true;
        else if (submitDeadline <= now) {
            p->decide(Pending::Outcome::NotConnected);
            p->why = securityWhy();
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
    case SendResult::Sent:
        break;
    case SendResult::NotConnected:
        enqueue(p, request);
        break;
    case SendResult::Decided:
        p->fulfil(endpoint_);
        break;
    }
    return;
}

void ClientCore::enqueue(const std::shared_ptr<Pending>& p, const void* request) {
    p->keepCopyOf(request);
    bool wake = false;
    {
        std::lock_guard<std::mutex> lock(pipeline_.mutex);
        p->phase = Pending::Phase::Queued;
        pipeline_.queued.push_back(p);
        pipeline_.sessionActive = false; // keeps later requests behind this one
        // With a session the loop sends it at once; without, only its deadline matters.
        wakeLocked(sessionActivated() ? Clock::now() : p->submitDeadline, wake);
    }
    if (wake) waker_.wake();
}

ClientCore::SendResult ClientCore::send(const std::shared_ptr<Pending>& p, void* request) {
    const auto now = Clock::now();
    static_cast<UA_RequestHeader*>(request)->timeoutHint = timeoutHint(p->replyDeadline, now);
    bool wake = false;
    {
        std::lock_guard<std::mutex> lock(pipeline_.mutex);
        p->phase = Pending::Phase::Sending;
        pipeline_.inflight[p.get()] = p;
        wakeLocked(p->replyDeadline, wake);
    }
    if (wake) waker_.wake();

    UA_UInt32 requestId = 0;
    const UA_StatusCode rc = __UA_Client_AsyncService(client_, request, p->requestType, &ClientCore::onResponse,
                                                      p->responseType, p.get(), &requestId);
    bool detachNow = false;
    {
        std::lock_guard<std::mutex> lock(pipeline_.mutex);
        if (rc == UA_STATUSCODE_GOOD) {
            if (p->phase == Pending::Phase::Sending) {
                p->requestId = requestId;
                p->phase = Pending::Phase::InFlight;
                detachNow = p->outcome != Pending::Outcome::None; // its deadline passed meanwhile
            }
        } else {
            pipeline_.inflight.erase(p.get());
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
        std::lock_guard<std::mutex> lock(pipeline_.mutex);
        pipeline_.inflight.erase(p.get());
    }
}

void ClientCore::onResponse(UA_Client* client, void* userdata, UA_UInt32, void* response) {
    ClientCore* core = of(client);
    std::shared_ptr<Pending> keep; // released after the lock
    {
        std::lock_guard<std::mutex> lock(core->pipeline_.mutex);
        const auto it = core->pipeline_.inflight.find(static_cast<Pending*>(userdata));
        if (it == core->pipeline_.inflight.end()) return;
        keep = std::move(it->second);
        core->pipeline_.inflight.erase(it);
        keep->phase = Pending::Phase::Done;
        if (keep->outcome != Pending::Outcome::None) return;
        const auto* header = static_cast<const UA_ResponseHeader*>(response);
        // open62541 answers by itself (request handle 0) when the request could not be completed.
        if (header->requestHandle == 0 && header->serviceResult != UA_STATUSCODE_GOOD) {
            const UA_StatusCode rc = header->serviceResult;
            keep->decide(rc == UA_STATUSCODE_BADSHUTDOWN  ? Pending::Outcome::ShutDown
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
        core->pipeline_.completed.push_back(keep);
    }
    if (!core->onDrivingThread()) core->requestWake();
}
bool ClientCore::sessionUsable() {
    {
        std::lock_guard<std::mutex> lock(pipeline_.mutex);
        if (!pipeline_.sessionActive) return false;
    }
    return sessionActivated();
}

} // namespace vesk::duvo::opcua::detail
