#pragma once
// Where monitors and pollers deliver: the queued store, which also learns of losses through
// empty not-alive samples, or the most-recent-value store, which keeps the last good value.
#include <memory>
#include <string>

#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>

#include <duvo/ps/queue/mapMrvSubscriber.hpp>
#include <duvo/ps/queue/queuedSubscriber.hpp>

namespace vesk::duvo::opcua::detail::ps {

template <class T, class ST>
struct QueuedSink {
    static constexpr const char* pollerName = "OpcUaSubscriber for nodes";
    static constexpr bool watchesConnection = true;

    vesk::duvo::ps::queue::QueuedSubscriber<T, ST>* store;

    void sample(std::unique_ptr<ST> sample, double time) const { store->newData(std::move(sample), time, 1); }
    void empty(double time, long alive) const { store->newData(nullptr, time, alive); }

    void connectionLost() const { empty(0.0, 0); }
    void pollTimedOut(log4cplus::Logger& logger, const std::string& message) const {
        LOG4CPLUS_WARN(logger, message);
        empty(0.0, 0);
    }
    void pollFailed(log4cplus::Logger& logger, const std::string& message) const {
        LOG4CPLUS_ERROR(logger, message);
        empty(0.0, 0);
    }
    void pollThrew() const { empty(0.0, 0); }
    void conversionFailed(log4cplus::Logger& logger, const std::string& what, double time) const {
        LOG4CPLUS_ERROR(logger, "Can't set sample value from OpcUa value: " << what);
        empty(time, 1);
    }
};

template <class T, class ST>
struct MrvSink {
    static constexpr const char* pollerName = "OpcUaMrvDataPoller for nodes";
    static constexpr bool watchesConnection = false;

    vesk::duvo::ps::queue::MapMrvSubscriber<T, ST>* store;

    void sample(std::unique_ptr<ST> sample, double /*time*/) const { store->newData(std::move(sample)); }

    void connectionLost() const {}
    void pollTimedOut(log4cplus::Logger&, const std::string&) const {}
    // The last good value stays current: failures are only logged.
    void pollFailed(log4cplus::Logger& logger, const std::string& message) const { LOG4CPLUS_ERROR(logger, message); }
    void pollThrew() const {}
    // Never a partly filled sample: the value that could not be converted is dropped.
    void conversionFailed(log4cplus::Logger& logger, const std::string& what, double) const {
        LOG4CPLUS_ERROR(logger, "Can't set sample value from OpcUa value: " << what);
    }
};

} // namespace vesk::duvo::opcua::detail::ps
