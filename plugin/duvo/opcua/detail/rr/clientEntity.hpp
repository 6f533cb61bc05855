#pragma once
#include <array>
#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include <boost/thread/future.hpp>
#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>
#include <open62541/types.h>

#include <vesk/duvo/exceptions.hpp>
#include <vesk/duvo/opcua/client.hpp>
#include <vesk/duvo/opcua/opcuaDuvo.hpp>
#include <vesk/duvo/opcua/properties.hpp>
#include <vesk/duvo/opcua/uaCpp.hpp>
#include <vesk/duvo/opcua/uriHelper.hpp>
#include <vesk/duvo/rr/qos.hpp>
#include <vesk/duvo/rr/rrEntity.hpp>
#include <vesk/duvo/util.hpp>

namespace vesk::duvo::opcua::detail::rr {

/// The number of methods of a request/reply interface; specialised for every interface.
template <class I>
struct RrInterfaceTraits;

using CallResponse = UaCpp<UA_CallResponse, std::unique_ptr<UA_CallResponse, void (*)(UA_CallResponse*)>>;

/// The single result of a method call, converted; failures throw.
template <class R>
R unpackCallResult(const UA_CallResponse& response, const std::function<R(const UA_Variant&)>& convert) {
    if (response.resultsSize != 1)
        throw std::runtime_error("unexpected resultsSize in RPC call: " + std::to_string(response.resultsSize));
    const UA_CallMethodResult& result = response.results[0];
    if (result.statusCode != UA_STATUSCODE_GOOD)
        throw std::runtime_error(std::string("RPC call failed: ") + UA_StatusCode_name(result.statusCode));
    if (result.outputArgumentsSize == 0) {
        // No output at all: the converter refuses the missing value by name.
        UA_Variant none;
        UA_Variant_init(&none);
        return convert(none);
    }
    return convert(result.outputArguments[0]);
}

template <class R>
R unpackCallResult(boost::future<CallResponse>& future, const std::function<R(const UA_Variant&)>& convert) {
    return unpackCallResult(*future.get(), convert);
}

/// Completes the caller's future with the converted result of a call, or with why it failed.
template <class R>
struct DeliverCallResult {
    boost::promise<R> promise{boost::allocator_arg, Recycling<char>()};
    const std::function<R(const UA_Variant&)>* convert = nullptr; // the stub's, which outlives its calls

    void operator()(CallResponse response, const RequestFailure* failure) {
        if (failure != nullptr) {
            promise.set_exception(failure->exception());
            return;
        }
        try {
            promise.set_value(unpackCallResult(*response, *convert));
        } catch (...) {
            promise.set_exception(boost::current_exception());
        }
    }
};

/// Calls the OPC UA methods of one request/reply interface I through the shared client.
template <class I>
class ClientEntity : public virtual vesk::duvo::rr::ClientRrEntity {
public:
    using NodeId = UaCpp<UA_NodeId, std::shared_ptr<UA_NodeId>>;
    struct Method {
        NodeId objectId;
        NodeId methodId;
    };

    ClientEntity(const std::string& uri, const std::vector<std::shared_ptr<vesk::duvo::rr::qos::QoS>>& qos,
                 const std::map<std::string, std::string>& properties, const std::shared_ptr<OpcUaDuvo>& duvo)
        : duvo_(duvo), uri_(uri) {
        if (!UriHelper::isReqResUri(uri)) throw std::invalid_argument("URI is not request/response URI. Uri:" + uri);
        std::vector<NodeId> nodes = getNodeIds(uri);
        if (nodes.size() % 2 != 0)
            throw std::invalid_argument(
                "even number of node IDs expected in URI fragment, n pairs of (objectId, methodId)");
        const std::size_t pairs = nodes.size() / 2;
        if (pairs != RrInterfaceTraits<I>::methodCount)
            throw std::invalid_argument("interface has " + std::to_string(RrInterfaceTraits<I>::methodCount) +
                                        " methods, but " + std::to_string(pairs) + " methods specified in URI");
        for (std::size_t k = 0; k < pairs; ++k) methods_.push_back(Method{nodes[2 * k], nodes[2 * k + 1]});
        submitTimeoutMs_ = getDuvoProperty<int>(properties, "opc.asyncCallSubmitTimeoutMs", 1000);
        replyTimeMs_ = vesk::duvo::util::getReplyTimeQoS(qos);
        if (replyTimeMs_ == 2147483647) replyTimeMs_ = 0;
        client_ = duvo->getClient(UriHelper::endpointOf(uri), properties);
    }

    std::shared_ptr<vesk::duvo::Duvo> getDuvo() const override { return duvo_; }

    /// Drops this entity's share of the client; the client lives on while others hold it.
    void close() override {
        std::lock_guard<std::mutex> lock(clientMutex_);
        client_.reset();
    }

    void asyncConnect() override { currentClient()->asyncConnect(); }

    std::function<void()> registerConnectionListener(std::function<void(bool)> listener) override {
        auto handle = std::make_shared<ConnectionHandle>(currentClient()->addConnectionCallback(std::move(listener)));
        // Calling the function, or dropping it, releases the registration.
        return [handle]() mutable { *handle = ConnectionHandle(); };
    }

    /// Calls method methodIndex with the given arguments; the first output is converted.
    /// convert must outlive the call (the stubs pass a static one).
    template <class R, std::size_t N>
    boost::future<R> callMethodAsync(std::size_t methodIndex, std::array<UA_Variant, N> arguments,
                                     const std::function<R(const UA_Variant&)>& convert) {
        if (methodIndex >= methods_.size())
            throw std::out_of_range("method index " + std::to_string(methodIndex) + " out of range. Uri:" + uri_);
        const std::shared_ptr<OpcUaClient> c = openClient();
        // A call after close() fails through its future, as every other failure of a call does.
        if (!c) return boost::make_exceptional_future<R>(boost::copy_exception(closedError()));
        UA_CallMethodRequest request;
        UA_CallMethodRequest_init(&request);
        request.objectId = *methods_[methodIndex].objectId;
        request.methodId = *methods_[methodIndex].methodId;
        request.inputArgumentsSize = N;
        request.inputArguments = N ? arguments.data() : nullptr;
        DeliverCallResult<R> done;
        done.convert = &convert;
        boost::future<R> future = done.promise.get_future();
        c->callMethods(&request, 1, std::chrono::steady_clock::now() + std::chrono::milliseconds(submitTimeoutMs_),
                       replyTimeMs_, std::move(done));
        return future;
    }

    /// The shared client, or null once closed: a synchronous caller drives it while it waits.
    std::shared_ptr<OpcUaClient> clientOrNull() const {
        std::lock_guard<std::mutex> lock(clientMutex_);
        return client_;
    }

    std::int64_t getSubmitTimeoutMs() const noexcept { return submitTimeoutMs_; }
    std::int64_t getReplyTimeMs() const noexcept { return replyTimeMs_; }
    const std::vector<Method>& getMethods() const noexcept { return methods_; }

private:
    using ConnectionHandle = NotificationQueue<std::function<void(bool)>>::Handle;

    std::shared_ptr<OpcUaClient> openClient() const {
        std::lock_guard<std::mutex> lock(clientMutex_);
        return client_;
    }

    std::shared_ptr<OpcUaClient> currentClient() const {
        std::shared_ptr<OpcUaClient> c = openClient();
        if (!c) throw closedError();
        return c;
    }

    /// The refusal of a use after close(), logged once as it is made.
    vesk::duvo::IllegalStateException closedError() const {
        const std::string message = "Client entity closed. Uri:" + uri_;
        LOG4CPLUS_ERROR(log4cplus::Logger::getInstance("orsa.duvo.opcua.internal"), message);
        return vesk::duvo::IllegalStateException(message);
    }

    std::shared_ptr<OpcUaDuvo> duvo_;
    std::vector<Method> methods_;
    std::shared_ptr<OpcUaClient> client_;
    std::int64_t submitTimeoutMs_ = 1000;
    std::int64_t replyTimeMs_ = 0;
    const std::string uri_;
    mutable std::mutex clientMutex_;
};

} // namespace vesk::duvo::opcua::detail::rr
