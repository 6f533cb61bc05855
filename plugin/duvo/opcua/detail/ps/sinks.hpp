#pragma once
// Where monitors and pollers deliver: the queued store, which also learns of losses through
// empty not-alive samples, or the most-recent-value store, which keeps the last good value.
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>
#include <open62541/types.h>

#include <duvo/ps/queue/mapMrvSubscriber.hpp>
#include <duvo/ps/queue/queuedSubscriber.hpp>
#include <duvo/ps/queue/sampleOps.hpp>

namespace vesk::duvo::opcua::detail::ps {

using vesk::duvo::ps::queue::OwnedSample;

template <class ST, class = void>
struct TakesOwnedValues : std::false_type {};
template <class ST>
struct TakesOwnedValues<ST,
                        std::void_t<decltype(std::declval<ST&>().takeOpcUaDataValues(std::declval<UA_DataValue*>()))>>
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

/// Knows which threads are delivering into a store. The application may close a subscriber
/// from its own callback and then destroy it from another thread while that delivery is
/// still unwinding inside the store; the entity's destructor waits for it here. Shared with
/// the deliveries, since a callback may also destroy the entity it was called for.
class DeliveryGate {
public:
    class Pass {
    public:
        explicit Pass(std::shared_ptr<DeliveryGate> gate) : gate_(std::move(gate)) {
            if (gate_ != nullptr) gate_->enter();
        }
        ~Pass() {
            if (gate_ != nullptr) gate_->leave();
        }
        Pass(const Pass&) = delete;
        Pass& operator=(const Pass&) = delete;

    private:
        const std::shared_ptr<DeliveryGate> gate_;
    };

    /// Waits until no other thread delivers; a delivery on this thread finishes by itself.
    void drain();

private:
    void enter();
    void leave();

    std::mutex mutex_;
    std::condition_variable idle_;
    std::vector<std::thread::id> threads_;
};

/// What a monitor or poller delivers to, whatever the sample type: it makes the sample from
/// the values read (convert) and hands it on (sample), or reports what went wrong.
class DeliverySink {
public:
    DeliverySink(const char* pollerName, bool watchesConnection) noexcept
        : pollerName(pollerName), watchesConnection(watchesConnection) {}
    DeliverySink(const DeliverySink&) = delete;
    DeliverySink& operator=(const DeliverySink&) = delete;

    /// A new sample from values that the caller owns and gives up; throws when they do not convert.
    virtual OwnedSample convert(UA_DataValue* values) const = 0;
    /// A sample that convert made.
    virtual void sample(OwnedSample sample, double time) const = 0;
    virtual void connectionLost() const = 0;
    virtual void pollTimedOut(log4cplus::Logger& logger, const std::string& message) const = 0;
    virtual void pollFailed(log4cplus::Logger& logger, const std::string& message) const = 0;
    virtual void pollThrew() const = 0;
    virtual void conversionFailed(log4cplus::Logger& logger, const std::string& what, double time) const = 0;
    /// The end of every read, delivered or not.
    virtual void readEnded() const {}

    const char* const pollerName;
    const bool watchesConnection;

protected:
    ~DeliverySink() = default;
};

/// Makes samples of T from values read, in the binding ST; one object per type.
class SampleMaker {
public:
    /// The sample as T; throws when the values do not convert.
    virtual OwnedSample make(UA_DataValue* values) const = 0;

protected:
    ~SampleMaker() = default;
};

template <class T, class ST>
class SampleMakerOf final : public SampleMaker {
public:
    OwnedSample make(UA_DataValue* values) const override {
        auto sample = std::make_unique<ST>();
        fillFromOwnedValues(*sample, values);
        return vesk::duvo::ps::queue::ownAs<T>(std::move(sample));
    }
};

template <class T, class ST>
const SampleMaker& sampleMaker() noexcept {
    static const SampleMakerOf<T, ST> maker;
    return maker;
}

/// The subscriber's delivery into its queued store.
class QueuedStoreSink final : public DeliverySink {
public:
    QueuedStoreSink(vesk::duvo::ps::queue::detail::QueuedSubscriberCore* store, std::shared_ptr<DeliveryGate> gate,
                    const SampleMaker& maker) noexcept
        : DeliverySink("OpcUaSubscriber for nodes", true), store_(store), gate_(std::move(gate)), maker_(maker) {}

    OwnedSample convert(UA_DataValue* values) const override { return maker_.make(values); }
    void sample(OwnedSample sample, double time) const override;
    void connectionLost() const override;
    void pollTimedOut(log4cplus::Logger& logger, const std::string& message) const override;
    void pollFailed(log4cplus::Logger& logger, const std::string& message) const override;
    void pollThrew() const override;
    void conversionFailed(log4cplus::Logger& logger, const std::string& what, double time) const override;

private:
    void empty(double time, long alive) const;

    vesk::duvo::ps::queue::detail::QueuedSubscriberCore* const store_;
    const std::shared_ptr<DeliveryGate> gate_;
    const SampleMaker& maker_;
};

/// The most-recent-value subscriber's delivery into its store.
class MrvStoreSink final : public DeliverySink {
public:
    MrvStoreSink(vesk::duvo::ps::queue::detail::MapMrvCore* store, std::shared_ptr<DeliveryGate> gate,
                 const SampleMaker& maker) noexcept
        : DeliverySink("OpcUaMrvDataPoller for nodes", false), store_(store), gate_(std::move(gate)), maker_(maker) {}

    OwnedSample convert(UA_DataValue* values) const override { return maker_.make(values); }
    void sample(OwnedSample sample, double time) const override;
    void connectionLost() const override {}
    void pollTimedOut(log4cplus::Logger&, const std::string&) const override {}
    // The last good value stays current: failures are only logged.
    void pollFailed(log4cplus::Logger& logger, const std::string& message) const override;
    void pollThrew() const override {}
    // Never a partly filled sample: the value that could not be converted is dropped.
    void conversionFailed(log4cplus::Logger& logger, const std::string& what, double time) const override;

private:
    vesk::duvo::ps::queue::detail::MapMrvCore* const store_;
    const std::shared_ptr<DeliveryGate> gate_;
    const SampleMaker& maker_;
};

/// A sink of the typed form (sample(std::unique_ptr<ST>, double), pollerName, watchesConnection
/// and the reports) seen as a DeliverySink, for a monitor or poller made by hand.
template <class ST, class Sink>
class SinkAdapter final : public DeliverySink {
public:
    explicit SinkAdapter(Sink s) : DeliverySink(Sink::pollerName, Sink::watchesConnection), sink_(std::move(s)) {}

    OwnedSample convert(UA_DataValue* values) const override {
        auto sample = std::make_unique<ST>();
        fillFromOwnedValues(*sample, values);
        return vesk::duvo::ps::queue::ownAs<ST>(std::move(sample));
    }
    void sample(OwnedSample sample, double time) const override {
        sink_.sample(std::unique_ptr<ST>(static_cast<ST*>(sample.release())), time);
    }
    void connectionLost() const override { sink_.connectionLost(); }
    void pollTimedOut(log4cplus::Logger& logger, const std::string& message) const override {
        sink_.pollTimedOut(logger, message);
    }
    void pollFailed(log4cplus::Logger& logger, const std::string& message) const override {
        sink_.pollFailed(logger, message);
    }
    void pollThrew() const override { sink_.pollThrew(); }
    void conversionFailed(log4cplus::Logger& logger, const std::string& what, double time) const override {
        sink_.conversionFailed(logger, what, time);
    }
    void readEnded() const override { readEnded(sink_, 0); }

private:
    /// A sink may ask to hear of every read's end, delivered or not (the benchmark's does).
    template <class S>
    static auto readEnded(const S& s, int) -> decltype(s.readEnded()) {
        return s.readEnded();
    }
    template <class S>
    static void readEnded(const S&, long) {}

    Sink sink_;
};

/// Holds a monitor's or poller's adapted sink, so that it is made before the untyped part
/// that delivers to it and goes after it.
template <class ST, class Sink>
struct SinkSlot {
    explicit SinkSlot(Sink sink) : adapted(std::move(sink)) {}
    SinkAdapter<ST, Sink> adapted;
};

/// The typed store delivery of a monitor or poller made by hand.
template <class T, class ST>
struct QueuedSink {
    static constexpr const char* pollerName = "OpcUaSubscriber for nodes";
    static constexpr bool watchesConnection = true;

    vesk::duvo::ps::queue::QueuedSubscriber<T, ST>* store;
    std::shared_ptr<DeliveryGate> gate;

    void sample(std::unique_ptr<ST> sample, double time) const {
        const DeliveryGate::Pass pass(gate);
        store->newData(std::move(sample), time, 1);
    }
    void empty(double time, long alive) const {
        const DeliveryGate::Pass pass(gate);
        store->newData(nullptr, time, alive);
    }

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
    std::shared_ptr<DeliveryGate> gate;

    void sample(std::unique_ptr<ST> sample, double /*time*/) const {
        const DeliveryGate::Pass pass(gate);
        store->newData(std::move(sample));
    }

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
