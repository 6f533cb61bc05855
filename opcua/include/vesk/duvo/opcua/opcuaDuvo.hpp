#pragma once
// The OPC UA binding's middleware instance: it hands out the shared client of each endpoint
// and creates typed entities through the module's plug-in, loaded by name.
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <vesk/duvo/middleware.hpp>
#include <vesk/duvo/opcua/client.hpp>
#include <vesk/duvo/opcua/pluginLoader.hpp>
#include <vesk/duvo/ps/publisher.hpp>
#include <vesk/duvo/ps/qos.hpp>
#include <vesk/duvo/ps/subscriber.hpp>
#include <vesk/duvo/rr/qos.hpp>

namespace vesk::duvo::opcua::detail {

/// Create it with std::make_shared: the entities it creates keep it alive.
///
/// Properties read here (besides those the entities read):
///   "opc.pluginPath"  the plug-in file, or the folder that holds it; without it the loader
///                     looks in DUVO_OPCUA_PLUGIN_PATH, next to the binding library, and on
///                     the library search path (see PluginLoader).
///   "opc.logConfig"   a log4cplus properties file, applied by the first instance of the
///                     process when the application has set up no logging (else
///                     DUVO_LOG_CONFIG, else WARN and above of "orsa" to stderr).
class OpcUaDuvo : public vesk::duvo::Duvo, public std::enable_shared_from_this<OpcUaDuvo> {
public:
    /// The QoS settings of a publisher or subscriber.
    using PsQoSList = std::vector<std::shared_ptr<vesk::duvo::ps::qos::QoS>>;
    /// The QoS settings of a request/reply client.
    using RrQoSList = std::vector<std::shared_ptr<vesk::duvo::rr::qos::QoS>>;

    /// The module whose plug-in the typed helpers load.
    static constexpr const char* moduleName = "m2Types";

    /// An instance with these properties. The first of a process also sets up logging when
    /// the application has not (see "opc.logConfig").
    explicit OpcUaDuvo(vesk::duvo::Duvo::Properties properties = {});
    /// Destroys the instance once no entity holds it.
    ~OpcUaDuvo() override;

    /// The properties it was made with.
    const vesk::duvo::Duvo::Properties& properties() const { return properties_; }

    /// The client of the endpoint: the same one for every caller while anyone holds it, a new
    /// one (connecting at once) otherwise. The properties of the call that creates it apply (the
    /// security properties it lacks come from this instance's);
    /// a later call whose security properties differ throws std::runtime_error naming the
    /// first such property. Thread-safe.
    std::shared_ptr<OpcUaClient> getClient(const std::string& endpoint,
                                           const std::map<std::string, std::string>& properties);

    /// The module's plug-in, loaded on first use (once; a failed load is retried on the next
    /// use). Throws the loader's std::runtime_error when it cannot be found or loaded.
    /// Thread-safe.
    const PluginLoader& pluginLoader();

    // Typed creation through the plug-in. T is a module type (m2Types::M2FloatVector6), C a
    // client interface (m2Types::PsRpcSetpowerSync, m2Types::PsRpcSetpowerAsync). Entities get
    // this instance's properties. A missing plug-in or entry point throws std::runtime_error;
    // the entity's own errors (a bad URI, a bad property) pass through unchanged.

    /// A new, default-valued sample of T, made by the plug-in.
    template <class T>
    std::unique_ptr<T> createDataEntity() {
        using Entry = T* (*)();
        return std::unique_ptr<T>(reinterpret_cast<Entry>(entryPoint("DataEntity", T::typeName))());
    }

    /// A publisher of T to the variable of the opcua-ps URI.
    template <class T>
    std::unique_ptr<vesk::duvo::ps::Publisher<T>> createPublisher(const std::string& uri, const PsQoSList& qos = {}) {
        return create<vesk::duvo::ps::Publisher<T>>("Publisher", T::typeName, uri, qos);
    }

    /// A queued subscriber of T to the variables of the opcua-ps URI.
    template <class T>
    std::unique_ptr<vesk::duvo::ps::Subscriber<T>> createSubscriber(const std::string& uri, const PsQoSList& qos = {}) {
        return create<vesk::duvo::ps::Subscriber<T>>("Subscriber", T::typeName, uri, qos);
    }

    /// A most-recent-value subscriber of T to the variables of the opcua-ps URI.
    template <class T>
    std::unique_ptr<vesk::duvo::ps::MrvSubscriber<T>> createMrvSubscriber(const std::string& uri,
                                                                          const PsQoSList& qos = {}) {
        return create<vesk::duvo::ps::MrvSubscriber<T>>("MrvSubscriber", T::typeName, uri, qos);
    }

    /// A client of interface C to the object and method of the opcua-rr URI.
    template <class C>
    std::unique_ptr<C> createClient(const std::string& uri, const RrQoSList& qos = {}) {
        return create<C>("Client", C::clientName, uri, qos);
    }

    /// "generated_opcua_<kind>_<module>_<name>", the plug-in's name for an entry point.
    static std::string entryPointName(const std::string& kind, const std::string& name);

private:
    template <class Entity, class QoSList>
    std::unique_ptr<Entity> create(const char* kind, const char* name, const std::string& uri, const QoSList& qos) {
        // The exact signature of the plug-in's entity entry points.
        using Entry = Entity* (*)(const std::string&, const QoSList&, const vesk::duvo::Duvo::Properties&,
                                  const std::shared_ptr<OpcUaDuvo>&);
        const auto entry = reinterpret_cast<Entry>(entryPoint(kind, name));
        return std::unique_ptr<Entity>(entry(uri, qos, properties_, self()));
    }

    void* entryPoint(const char* kind, const char* name);
    std::shared_ptr<OpcUaDuvo> self();

    vesk::duvo::Duvo::Properties properties_;
    std::mutex clientsMutex_;
    struct SharedClient {
        std::weak_ptr<OpcUaClient> client;
        std::map<std::string, std::string> properties; // it was made with
    };
    std::map<std::string, SharedClient> clients_;
    std::mutex loaderMutex_;
    std::unique_ptr<PluginLoader> loader_;
};

} // namespace vesk::duvo::opcua::detail
