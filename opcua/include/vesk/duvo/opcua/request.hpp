#pragma once
// The client's record of one request, and what is told when the request ends. The record
// carries the caller's completion inside it, so a request costs one block from the free lists
// whether it ends in a future, a callback or both.
#include <chrono>
#include <memory>
#include <new>
#include <string>
#include <utility>

#include <boost/exception_ptr.hpp>
#include <boost/thread/future.hpp>
#include <open62541/types.h>

#include <vesk/duvo/exceptions.hpp>
#include <vesk/duvo/opcua/recycling.hpp>
#include <vesk/duvo/opcua/uaCpp.hpp>

namespace vesk::duvo::opcua::detail {

/// Why a request ended without a response. message begins with "timeout", "not connected",
/// "connection lost", "client shut down" or "request failed" (see OpcUaClient).
struct RequestFailure {
    bool timedOut = false;
    std::string message;
    /// Ended before it was sent: no session before its submit deadline ("not connected").
    bool neverSent = false;

    /// vesk::duvo::TimeoutException when timed out, vesk::duvo::DuvoException otherwise.
    boost::exception_ptr exception() const {
        if (timedOut) return boost::copy_exception(vesk::duvo::TimeoutException(message));
        return boost::copy_exception(vesk::duvo::DuvoException(message));
    }
};

/// One request, from submission until it ends. The client fills in and reads the fields under
/// its lock; fulfil is called exactly once, outside it.
struct PendingRequest {
    using Clock = std::chrono::steady_clock;
    enum class Phase { Queued, Sending, InFlight, Done };
    enum class Outcome { None, Response, Timeout, NotConnected, ConnectionLost, ShutDown, Failed };

    PendingRequest(const UA_DataType* req, const UA_DataType* resp) : requestType(req), responseType(resp) {}
    PendingRequest(const PendingRequest&) = delete;
    PendingRequest& operator=(const PendingRequest&) = delete;
    virtual ~PendingRequest() {
        if (request != nullptr) UA_delete(request, requestType);
        if (response != nullptr) UA_delete(response, responseType);
    }

    /// Tells the outcome to whoever waits (endpoint: for the failure's message).
    virtual void fulfil(const std::string& endpoint) = 0;

    void decide(Outcome o, UA_StatusCode rc = UA_STATUSCODE_GOOD) {
        outcome = o;
        status = rc;
    }
    void keepCopyOf(const void* caller) {
        if (request != nullptr) return;
        request = UA_new(requestType);
        if (request == nullptr || UA_copy(caller, request, requestType) != UA_STATUSCODE_GOOD) throw std::bad_alloc();
    }
    void dropCopy() {
        if (request != nullptr) UA_delete(request, requestType);
        request = nullptr;
    }
    RequestFailure failure(const std::string& endpoint) const {
        const std::string statusName = UA_StatusCode_name(status);
        switch (outcome) {
        case Outcome::Timeout:
            return {true, "timeout: no reply from " + endpoint + " before the deadline", false};
        case Outcome::NotConnected:
            if (why) return {false, "not connected: " + *why, true};
            return {false, "not connected: no session with " + endpoint + " before the deadline", true};
        case Outcome::ConnectionLost:
            return {false, "connection lost: " + statusName + " before the reply from " + endpoint, false};
        case Outcome::ShutDown:
            return {false, "client shut down: " + endpoint, false};
        default:
            return {false, "request failed: " + statusName + " for " + endpoint, false};
        }
    }

    const UA_DataType* const requestType;
    const UA_DataType* const responseType;
    void* request = nullptr;  // own deep copy while it cannot be sent at once
    void* response = nullptr; // taken from open62541
    Clock::time_point submitDeadline = Clock::time_point::max();
    Clock::time_point replyDeadline = Clock::time_point::max();
    long replyTimeMs = -1; // >= 0: the reply deadline starts when the request is sent
    UA_UInt32 requestId = 0;
    Phase phase = Phase::Sending;
    Outcome outcome = Outcome::None;
    UA_StatusCode status = UA_STATUSCODE_GOOD;
    std::shared_ptr<const std::string> why; // with NotConnected: the cause the client knows
};

/// A request whose end goes to done(UaUnique<Resp> response, const RequestFailure* failure):
/// the response (failure null), or an empty response and the failure. done runs on the
/// client's network thread, or on the caller's when the request ends before it is sent: it
/// must not block.
template <class Resp, class Done>
struct PendingWith final : PendingRequest {
    PendingWith(const UA_DataType* requestType, Done d)
        : PendingRequest(requestType, UaTypeOf<Resp>::type()), done(std::move(d)) {}
    void fulfil(const std::string& endpoint) override {
        if (outcome == Outcome::Response) {
            done(UaUnique<Resp>::adopt(static_cast<Resp*>(std::exchange(response, nullptr))), nullptr);
        } else {
            const RequestFailure f = failure(endpoint);
            done(UaUnique<Resp>::adopt(nullptr), &f);
        }
    }
    Done done;
};

/// Completes a future with the response, or with the failure's exception.
template <class Resp>
struct FulfilPromise {
    boost::promise<UaUnique<Resp>> promise{boost::allocator_arg, Recycling<char>()};
    void operator()(UaUnique<Resp> response, const RequestFailure* failure) {
        if (failure != nullptr)
            promise.set_exception(failure->exception());
        else
            promise.set_value(std::move(response));
    }
};

} // namespace vesk::duvo::opcua::detail
