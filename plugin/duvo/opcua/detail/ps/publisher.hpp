#pragma once
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <boost/thread/future.hpp>
#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>
#include <open62541/types.h>

#include <duvo/opcua/detail/binding/traits.hpp>
#include <duvo/opcua/detail/ps/basePubSub.hpp>
#include <vesk/duvo/exceptions.hpp>
#include <vesk/duvo/opcua/uriHelper.hpp>
#include <vesk/duvo/ps/publisher.hpp>

namespace vesk::duvo::opcua::detail::ps {

template <class T, class ST>
class OpcUaInstancePublisher;
/// The sample's values in the caller's storage. A binding that can write them there shares
/// no state between threads that publish one sample; others hand out their own copy.
template <class ST, class = void>
struct WritesValuesInto : std::false_type {
    struct Scratch {};
};
template <class ST>
struct WritesValuesInto<ST, std::void_t<decltype(std::declval<const ST&>().writeOpcUaDataValues(
                                std::declval<UA_DataValue*>(), std::declval<typename ST::Scratch&>()))>>
    : std::true_type {
    using Scratch = typename ST::Scratch;
};

template <class ST>
void writeValuesOf(const ST& binding, UA_DataValue* values, typename WritesValuesInto<ST>::Scratch& scratch) {
    if constexpr (WritesValuesInto<ST>::value) {
        binding.writeOpcUaDataValues(values, scratch);
    } else {
        (void)scratch;
        const UA_DataValue* own = binding.getOpcUaDataValues();
        for (std::size_t i = 0; i < ST::fieldCount; ++i) values[i] = own[i]; // shallow: borrows
    }
}

template <class T, class ST>
class OpcUaPublisherDelegator;

/// The OPC UA DateTime and picoseconds of a source time given in seconds since the Unix epoch.
struct SourceTime {
    UA_DateTime dateTime;
    UA_UInt16 picoseconds;
};

inline SourceTime sourceTimeOf(double timestamp) noexcept {
    const double scaled = timestamp * 10000000.0;
    const double ticks = std::floor(scaled);
    return {static_cast<UA_DateTime>(ticks) + UA_DATETIME_UNIX_EPOCH,
            static_cast<UA_UInt16>(static_cast<long long>((scaled - ticks) / 0.00001))};
}

/// Publishes samples of T by writing the Value attribute of the nodes of its URI.
template <class T, class ST>
class OpcUaPublisher : public OpcUaBasePubSub<T, ST>,
                       public vesk::duvo::ps::Publisher<T>,
                       public std::enable_shared_from_this<OpcUaPublisher<T, ST>> {
    using Base = OpcUaBasePubSub<T, ST>;
    friend class OpcUaInstancePublisher<T, ST>;
    friend class OpcUaPublisherDelegator<T, ST>;

public:
    using WriteResponse = UaCpp<UA_WriteResponse, std::unique_ptr<UA_WriteResponse, void (*)(UA_WriteResponse*)>>;

    OpcUaPublisher(const std::string& uri, const typename Base::QoSList& qos,
                   const typename Base::Properties& properties, const std::shared_ptr<OpcUaDuvo>& duvo)
        : Base(uri, qos, properties, duvo),
          publisherLogger_(log4cplus::Logger::getInstance("orsa.duvo.opcua.publisher")) {
        LOG4CPLUS_TRACE(publisherLogger_, "Publisher for " << uri << " created");
    }

    std::shared_ptr<vesk::duvo::Duvo> getDuvo() const override { return this->duvo_; }

    std::unique_ptr<vesk::duvo::ps::InstancePublisher<T>> createInstancePublisher(const T&) override {
        throw vesk::duvo::IllegalStateException("createInstancePublisher not implemented");
    }

    void publish(const T& sample, const std::chrono::milliseconds& timeout) override {
        internalPublish(sample, timeout, std::nullopt);
    }

    void publish(double timestamp, const T& sample, const std::chrono::milliseconds& timeout) override {
        internalPublish(sample, timeout, timestamp);
    }

    std::shared_ptr<T> createDataEntity() override {
        this->checkState();
        return createDataEntityInternal<T, ST>(publisherLogger_);
    }

    /// Closes the publisher and every instance publisher made from it; a second close returns at once.
    void close() override {
        if (this->getState() == EntityState::Closed) return;
        std::lock_guard<std::mutex> publishLock(publishMutex_);
        {
            std::lock_guard<std::mutex> listLock(listMutex_);
            for (OpcUaInstancePublisher<T, ST>* instance : instancePublishers_) instance->close();
        }
        this->setState(EntityState::Closed);
    }

    std::string publisherId() const {
        std::string id = "OpcUaPublisher for nodes";
        for (const auto& node : this->nodeIds_) id += " " + nodeIdToString(*node);
        return id;
    }

    /// Writes the sample to the nodes; waits for the result unless the timeout is 0.
    void internalPublish(const T& sample, const std::chrono::milliseconds& timeout, std::optional<double> timestamp) {
        this->checkState();
        const ST& binding = obtainImpl<T, ST>(sample, publisherLogger_);
        // A deadline already passed: sending anyway would leave the outcome to thread timing
        // (a timeout, a success, or "not connected") while the value may still be written.
        if (timeout.count() < 0) throw vesk::duvo::TimeoutException("timeout when publishing");
        UA_DataValue values[ST::fieldCount];
        typename WritesValuesInto<ST>::Scratch scratch; // this call's own string descriptors
        writeValuesOf(binding, values, scratch);
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        const auto waitUntil = boost::chrono::steady_clock::now() + boost::chrono::milliseconds(timeout.count());

        // The write values borrow the node ids and the sample's memory; the client encodes
        // the request before it returns, so nothing here has to outlive the call.
        UA_WriteValue writes[ST::fieldCount];
        for (std::size_t i = 0; i < ST::fieldCount; ++i) {
            UA_WriteValue_init(&writes[i]);
            writes[i].nodeId = *this->nodeIds_[i];
            writes[i].attributeId = UA_ATTRIBUTEID_VALUE;
            writes[i].value = values[i];
            if (timestamp) {
                const SourceTime source = sourceTimeOf(*timestamp);
                writes[i].value.sourceTimestamp = source.dateTime;
                writes[i].value.sourcePicoseconds = source.picoseconds;
                writes[i].value.hasSourceTimestamp = true;
                writes[i].value.hasSourcePicoseconds = true;
            }
        }
        if (timeout.count() == 0) {
            // Fire and forget: a failure found later can no longer reach the caller, so it is logged.
            this->client_->writeValues(
                writes, ST::fieldCount, deadline,
                [self = this->weak_from_this()](WriteResponse response, const RequestFailure* failure) {
                    if (auto publisher = self.lock()) publisher->logFailure(response, failure);
                });
            return;
        }
        WriteDone done;
        boost::future<WriteResponse> future = done.promise.get_future();
        this->client_->writeValues(writes, ST::fieldCount, deadline, std::move(done));
        if (awaitReply(*this->client_, future, waitUntil) != boost::future_status::ready)
            throw vesk::duvo::TimeoutException("timeout when publishing");
        checkWriteResponse(future);
    }

    void checkWriteResponse(boost::future<WriteResponse>& future) const { checkWriteResponse(*future.get()); }

    void checkWriteResponse(const UA_WriteResponse& written) const {
        const UA_WriteResponse* response = &written;
        // Built only for a failure: a good reply must not cost an allocation.
        const auto suffix = [this] { return " Uri:" + this->uri_; };
        const UA_StatusCode service = response->responseHeader.serviceResult;
        if (service != UA_STATUSCODE_GOOD)
            throw std::runtime_error(publisherId() + ": write returned " + UA_StatusCode_name(service) + suffix());
        if (response->resultsSize != this->nodeIds_.size())
            throw std::runtime_error(publisherId() + ": write returned " + std::to_string(response->resultsSize) +
                                     " results, " + "expected " + std::to_string(this->nodeIds_.size()) + suffix());
        for (std::size_t i = 0; i < response->resultsSize; ++i)
            if (response->results[i] != UA_STATUSCODE_GOOD)
                throw std::runtime_error(publisherId() + ": failed to write to node " +
                                         nodeIdToString(*this->nodeIds_[i]) + ": " +
                                         UA_StatusCode_name(response->results[i]) + suffix());
    }

private:
    /// The client ends a write at the same instant as our wait: without a reply by then
    /// (timed out, or never sent for want of a session) the caller learns it as our timeout,
    /// whichever of the two notices first.
    struct WriteDone {
        boost::promise<WriteResponse> promise{boost::allocator_arg, Recycling<char>()};
        void operator()(WriteResponse response, const RequestFailure* failure) {
            if (failure == nullptr)
                promise.set_value(std::move(response));
            else if (failure->timedOut || failure->neverSent)
                promise.set_exception(boost::copy_exception(vesk::duvo::TimeoutException("timeout when publishing")));
            else
                promise.set_exception(failure->exception());
        }
    };

    void logFailure(const WriteResponse& response, const RequestFailure* failure) const {
        try {
            if (failure != nullptr) throw std::runtime_error(failure->message);
            checkWriteResponse(*response);
        } catch (const std::exception& e) {
            LOG4CPLUS_ERROR(publisherLogger_, e.what());
        }
    }

    void addInstancePublisher(OpcUaInstancePublisher<T, ST>* instance) {
        std::lock_guard<std::mutex> lock(listMutex_);
        instancePublishers_.push_back(instance);
    }

    // An instance publisher leaves the list when it is destroyed, so close() never reaches
    // a destroyed one.
    void removeInstancePublisher(OpcUaInstancePublisher<T, ST>* instance) {
        std::lock_guard<std::mutex> lock(listMutex_);
        instancePublishers_.remove(instance);
    }

    log4cplus::Logger publisherLogger_;
    std::mutex publishMutex_;
    std::list<OpcUaInstancePublisher<T, ST>*> instancePublishers_;
    std::mutex listMutex_;
};

/// Publishes through its publisher, for one instance; it keeps a copy of that instance.
template <class T, class ST>
class OpcUaInstancePublisher : public vesk::duvo::ps::InstancePublisher<T> {
public:
    OpcUaInstancePublisher(std::shared_ptr<OpcUaPublisher<T, ST>> publisher, const ST& instance)
        : logger_(log4cplus::Logger::getInstance("orsa.duvo.opcua.publisher")), publisher_(std::move(publisher)) {
        this->instance_.copy(instance);
    }

    ~OpcUaInstancePublisher() override { publisher_->removeInstancePublisher(this); }

    void publish(const T& sample, const std::chrono::milliseconds& timeout) override {
        std::lock_guard<std::mutex> lock(mutex_);
        checkState();
        publisher_->internalPublish(sample, timeout, std::nullopt);
    }

    void publish(double timestamp, const T& sample, const std::chrono::milliseconds& timeout) override {
        std::lock_guard<std::mutex> lock(mutex_);
        checkState();
        publisher_->internalPublish(sample, timeout, timestamp);
    }

    std::shared_ptr<T> createDataEntity() override {
        std::lock_guard<std::mutex> lock(mutex_);
        checkState();
        auto sample = createDataEntityInternal<T, ST>(logger_);
        static_cast<ST&>(*sample).copy(instance_);
        return sample;
    }

    std::shared_ptr<vesk::duvo::Duvo> getDuvo() const override { return publisher_->getDuvo(); }

    void close() override {
        std::lock_guard<std::mutex> lock(mutex_);
        closed_ = true;
    }

    void checkState() const {
        if (!closed_) return;
        const char* const message = "InstanceOpcUaPublisher closed";
        logger_.log(log4cplus::ERROR_LOG_LEVEL, message, "duvo/opcua/detail/ps/publisher", __LINE__, "checkState");
        throw vesk::duvo::IllegalStateException(message);
    }

private:
    log4cplus::Logger logger_;
    std::shared_ptr<OpcUaPublisher<T, ST>> publisher_;
    std::atomic<bool> closed_{false};
    std::mutex mutex_;
    ST instance_;
};

/// The publisher the middleware holds; the only maker of instance publishers.
template <class T, class ST>
class OpcUaPublisherDelegator : public vesk::duvo::ps::Publisher<T> {
public:
    OpcUaPublisherDelegator() = default;
    explicit OpcUaPublisherDelegator(std::shared_ptr<OpcUaPublisher<T, ST>> publisher)
        : publisher_(std::move(publisher)) {}

    void setEntity(std::shared_ptr<OpcUaPublisher<T, ST>> p) noexcept { publisher_ = std::move(p); }
    const std::shared_ptr<OpcUaPublisher<T, ST>>& getEntity() const noexcept { return publisher_; }

    std::shared_ptr<vesk::duvo::Duvo> getDuvo() const override { return publisher_->getDuvo(); }

    std::unique_ptr<vesk::duvo::ps::InstancePublisher<T>> createInstancePublisher(const T& instance) override {
        const ST& impl = obtainImpl<T, ST>(instance, publisher_->publisherLogger_);
        auto created = std::make_unique<OpcUaInstancePublisher<T, ST>>(publisher_, impl);
        publisher_->addInstancePublisher(created.get());
        return created;
    }

    void publish(const T& sample, const std::chrono::milliseconds& timeout) override {
        publisher_->internalPublish(sample, timeout, std::nullopt);
    }

    void publish(double timestamp, const T& sample, const std::chrono::milliseconds& timeout) override {
        publisher_->internalPublish(sample, timeout, timestamp);
    }

    std::shared_ptr<T> createDataEntity() override { return publisher_->createDataEntity(); }

    void close() override { publisher_->close(); }

private:
    std::shared_ptr<OpcUaPublisher<T, ST>> publisher_;
};

} // namespace vesk::duvo::opcua::detail::ps
