#pragma once
// An OPC UA server for the m2Types module: one variable per data structure and one method
// per interface, all in namespace 1, with knobs that let tests provoke failures.
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <open62541/plugin/log.h>
#include <open62541/types.h>

#include <vesk/duvo/sim/ownedVariant.hpp>

namespace vesk::duvo::sim {

/// How a simulator listens and logs, and how it declares its nodes.
struct Options {
    /// 0 picks a free port on the first start; restarts keep it.
    std::uint16_t port = 0;
    /// The server listens on this address only ("0.0.0.0" for every interface).
    std::string bindAddress = "127.0.0.1";
    /// Some variables change every animationPeriod, so subscriptions show live data.
    bool animate = false;
    /// How often the animated variables change.
    std::chrono::milliseconds animationPeriod{200};
    /// open62541's own messages below this level are dropped; the rest go to stderr.
    UA_LogLevel logLevel = UA_LOGLEVEL_WARNING;
    /// Nodes declared unlike the catalogue, for conformance checks: these variables with
    /// another element type (Double, or Float instead of Double), these interfaces' methods
    /// without their last input argument.
    std::vector<std::string> otherDataType;
    /// The interfaces whose methods lack their last input argument.
    std::vector<std::string> lastArgumentDropped;
    /// Which endpoints it offers: None only, Sign and SignAndEncrypt with Basic256Sha256,
    /// Aes128_Sha256_RsaOaep and Aes256_Sha256_RsaPss, or both kinds.
    enum class Security { None, Secure, Both };
    Security security = Security::None;
    /// Its PKI folder (needed unless security is None): own/ holds its certificate and key,
    /// created if missing; when trusted/ holds certificates only those clients are accepted,
    /// else any client.
    std::string pkiDir;
    /// Lines "name:password": these users may log in, anonymous sessions are refused. Empty:
    /// anonymous sessions only.
    std::string usersFile;
};

/// How a method answers. The default is an immediate good reply carrying true.
struct Reply {
    /// The method holds its reply this long (the server answers nothing else meanwhile).
    std::chrono::milliseconds delay{0};
    /// A bad code is returned as the call's status, without output.
    UA_StatusCode status = UA_STATUSCODE_GOOD;
    /// Answer with an Int32 output instead of the declared Boolean.
    bool wrongOutputType = false;
    /// The Boolean output of a good reply.
    bool result = true;
};

/// The source time a variable's value carries.
struct SourceTime {
    /// Whether the value carries a source timestamp.
    bool present = false;
    /// The source timestamp.
    UA_DateTime timestamp = 0;
    /// The source picoseconds (0 when absent).
    UA_UInt16 picoseconds = 0;
};

/// What the calls of one interface brought since the last clear.
struct CallRecord {
    /// Number of calls.
    std::size_t count = 0;
    /// The input arguments of the last call.
    std::vector<OwnedVariant> lastArguments;
};

/// The m2Types device simulator: an open62541 server on a thread of its own.
class Simulator {
public:
    /// A stopped simulator; start() makes it listen.
    explicit Simulator(Options options = {});
    /// Stops the server if it runs.
    ~Simulator();
    Simulator(const Simulator&) = delete;
    Simulator& operator=(const Simulator&) = delete;

    /// Builds a fresh server (every variable back at its initial value) and starts listening;
    /// throws std::runtime_error when the server cannot start. No effect when running.
    void start();
    /// Closes every connection and the listening socket. No effect when stopped.
    void stop();
    /// stop() and start() on the same port: clients see the server go and come back.
    void restart();
    /// Whether it listens.
    bool running() const;
    /// The listening port (0 before the first start with a free port).
    std::uint16_t port() const;
    /// "opc.tcp://<bind address>:<port>", with 127.0.0.1 when every interface listens.
    std::string endpoint() const;
    /// Its certificate (DER) when it offers security, else empty; made by the first start.
    std::string certificate() const;

    /// The current value of a variable, named by its data structure (e.g. "M2FloatVector6").
    OwnedVariant read(const std::string& variable) const;
    /// The source timestamp and picoseconds of a variable's value.
    SourceTime sourceTime(const std::string& variable) const;
    /// Writes as the server itself, stamped with the current time as source time:
    /// subscribers see the change, writeCount does not.
    /// Throws std::runtime_error with the status name when the server refuses the value.
    void write(const std::string& variable, const UA_Variant& value);
    /// Number of client writes accepted for the variable since the last clear.
    std::size_t writeCount(const std::string& variable) const;
    /// Waits until writeCount(variable) >= count; false on timeout.
    bool waitForWrites(const std::string& variable, std::size_t count, std::chrono::milliseconds timeout) const;
    /// A variable that is not writable answers client writes with BadNotWritable.
    void setWritable(const std::string& variable, bool writable);

    /// Calls of an interface's method (e.g. "PsRpcSetpower"): count and last arguments.
    CallRecord calls(const std::string& iface) const;
    /// Forgets every recorded call and write count.
    void clearRecords();
    /// Sets how every method answers.
    void setReply(const Reply& reply);
    /// Sets how one interface's method answers.
    void setReply(const std::string& iface, const Reply& reply);

    /// The variable names, in catalogue order.
    static std::vector<std::string> variableNames();
    /// The interface names, in catalogue order.
    static std::vector<std::string> interfaceNames();

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace vesk::duvo::sim
