// Our publish, call, subscribe and poll paths side by side with a client written against
// open62541 alone, against one simulator in its own process (the _encrypted rows against a
// second one that offers only secured endpoints). The two sides alternate in rounds (the order
// flips each round) and the table shows medians.
//
//   duvo-bench [--rounds N] [--round-ms MS] [--samples N] [--scale N,N,...] [--quick] [--only PREFIX]
//              [--node-peer] [--load N]
//
// --load N keeps N other processes busy for the whole run, as a control computer that also
// compiles, logs or draws is: both sides are measured under the same load.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <iostream>
#include <memory>
#include <mutex>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <csignal>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/asio/post.hpp>
#include <boost/thread/future.hpp>
#include <log4cplus/logger.h>
#include <log4cplus/nullappender.h>

#include <duvo/opcua/detail/ps/dataPoller.hpp>
#include <generated/opcua/m2Types/m2Types.hpp>
#include <m2Types/m2Types.hpp>
#include <vesk/duvo/duvo.hpp>
#include <vesk/duvo/opcua/opcuaDuvo.hpp>
#include <vesk/duvo/sim/nodeLayout.hpp>

#include "endpoints.hpp"
#include "rawClient.hpp"
#include "scale.hpp"
#include "secureSetup.hpp"
#include "serverProcess.hpp"
#include "stats.hpp"

namespace duvo::bench {
namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;
using vesk::duvo::opcua::detail::OpcUaDuvo;

constexpr std::size_t inFlight = 32;
constexpr auto publishTimeout = 2000ms;

struct Options {
    int rounds = 5;
    int roundMs = 300;
    int samples = 200; // delivery latencies per side and round
    std::vector<std::size_t> scale{1000, 10000};
    std::string only;      // figures whose name starts with this (for profiling one path)
    bool nodePeer = false; // also a node-opcua client's sequential writes and calls
    int load = 0;          // busy processes beside the run
};

/// N processes that spin until this one ends, however it ends (they die with their parent).
class BusyLoad {
public:
    explicit BusyLoad(int n) {
        for (int i = 0; i < n; ++i) {
            const pid_t pid = ::fork();
            if (pid < 0) throw std::runtime_error("cannot start a busy process");
            if (pid == 0) {
                ::prctl(PR_SET_PDEATHSIG, SIGKILL);
                volatile unsigned long spin = 0;
                for (;;) spin = spin + 1;
            }
            pids_.push_back(pid);
        }
    }
    BusyLoad(const BusyLoad&) = delete;
    BusyLoad& operator=(const BusyLoad&) = delete;
    ~BusyLoad() {
        for (const pid_t pid : pids_) ::kill(pid, SIGKILL);
        for (const pid_t pid : pids_) ::waitpid(pid, nullptr, 0);
    }

private:
    std::vector<pid_t> pids_;
};

std::string selfPath() {
    char path[4096];
    const ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
    if (n <= 0) throw std::runtime_error("cannot find this program's path");
    return std::string(path, static_cast<std::size_t>(n));
}

double secondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

double cpuSeconds() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    auto seconds = [](const timeval& t) {
        return static_cast<double>(t.tv_sec) + 1e-6 * static_cast<double>(t.tv_usec);
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

struct Measured {
    double rate;     // operations per second
    double cpuPerOp; // CPU time of this process (every thread: the client's own included), us
};

/// Operations per second of op (which returns how many it did) over about ms milliseconds.
template <class Op>
Measured measure(Op&& op, int ms) {
    const auto start = Clock::now();
    const double cpuStart = cpuSeconds();
    const auto end = start + std::chrono::milliseconds(ms);
    std::size_t done = 0;
    do done += op();
    while (Clock::now() < end);
    const double elapsed = secondsSince(start);
    return {static_cast<double>(done) / elapsed, 1e6 * (cpuSeconds() - cpuStart) / static_cast<double>(done)};
}

template <class Op>
double rateOf(Op&& op, int ms) {
    return measure(op, ms).rate;
}

void check(bool ok, const char* what) {
    if (!ok) throw std::runtime_error(std::string("failed: ") + what);
}

/// One operation measured on both sides.
struct Pair {
    std::size_t figure;
    std::function<std::size_t()> ours;
    std::function<std::size_t()> raw;
    std::size_t cpuFigure = SIZE_MAX; // also the CPU time per operation, as that figure
};

/// The end of each poll's read. A chain of polls runs on the I/O thread, each one started when
/// the last one's read ended, as a poller's timer starts them; the bench thread waits for the
/// chain's end only.
struct ReadsEnded {
    std::mutex mutex;
    std::condition_variable changed;
    std::size_t count = 0;
    std::size_t more = 0;
    std::function<void()> next;
};

/// Counts poll results where a subscriber's queue would get them.
template <class ST>
struct CountingSink {
    static constexpr const char* pollerName = "bench poller for nodes";
    static constexpr bool watchesConnection = false;
    std::size_t* delivered;
    ReadsEnded* ended;
    void sample(std::unique_ptr<ST>, double) const { ++*delivered; }
    void readEnded() const {
        {
            std::lock_guard<std::mutex> lock(ended->mutex);
            ++ended->count;
            if (ended->more > 0) {
                --ended->more;
                ended->next();
                return;
            }
        }
        ended->changed.notify_one();
    }
    void pollTimedOut(log4cplus::Logger&, const std::string& m) const { throw std::runtime_error(m); }
    void pollFailed(log4cplus::Logger&, const std::string& m) const { throw std::runtime_error(m); }
    void pollThrew() const { throw std::runtime_error("poll threw"); }
    void conversionFailed(log4cplus::Logger&, const std::string& m, double) const { throw std::runtime_error(m); }
    void connectionLost() const {}
};

/// A node-opcua client doing the synchronous writes and calls one after the other against the
/// same server (bench/nodePeer.js, with the node-opcua of interop/): what a user of another
/// stack would see. Beside, ours from this run's table.
void nodePeerTable(const std::vector<Figure>& ours, const std::string& endpoint, const Options& options) {
    const std::string command = std::string("node '") + DUVO_NODE_PEER_SCRIPT + "' " + endpoint + " " +
                                std::to_string(options.roundMs) + " " + std::to_string(options.rounds) + " '" +
                                DUVO_NODE_PEER_PKI + "' 2>&1";
    std::FILE* pipe = ::popen(command.c_str(), "r");
    if (pipe == nullptr) throw std::runtime_error("cannot run " + command);
    std::vector<std::pair<std::string, double>> peer;
    std::string output;
    char line[1024];
    while (std::fgets(line, sizeof line, pipe) != nullptr) {
        char name[128];
        double rate = 0;
        if (std::sscanf(line, "peer %127s %lf", name, &rate) == 2)
            peer.emplace_back(name, rate);
        else
            output += line;
    }
    const int status = ::pclose(pipe);
    if (status != 0 || peer.empty()) {
        // Optional: without node or node-opcua (scripts/install-deps.sh installs both) the
        // table above stands alone.
        std::fprintf(stderr, "node-opcua peer not measured (exit status %d):\n%s", status, output.c_str());
        return;
    }
    std::printf("\n%-30s %14s %14s %7s\n", "sequential, one at a time", "ours", "node-opcua", "ratio");
    std::vector<std::string> lines;
    for (const auto& [name, rate] : peer) {
        const auto f = std::find_if(ours.begin(), ours.end(), [&](const Figure& x) { return x.name == name; });
        if (f == ours.end()) continue;
        const double o = f->ourFigure();
        std::printf("%-30s %14s %14s %7.2f\n", name.c_str(), formatValue(o, "/s").c_str(),
                    formatValue(rate, "/s").c_str(), o / rate);
        char ratio[32];
        std::snprintf(ratio, sizeof ratio, "%.2f", o / rate);
        lines.push_back("bench node_" + name + " ours=" + formatValue(o, "/s") + " node=" + formatValue(rate, "/s") +
                        " ratio=" + ratio);
    }
    std::printf("\n");
    for (const auto& l : lines) std::printf("%s\n", l.c_str());
    std::fflush(stdout);
}

int benchMain(const Options& options) {
    const std::string self = selfPath();
    auto wanted = [&](const std::string& name) { return name.compare(0, options.only.size(), options.only) == 0; };
    ServerProcess server(self);
    const std::string authority = server.authority();
    const std::string endpoint = server.endpoint();
    std::printf("server %s (own process); %d rounds of %d ms per side and operation; %zu in flight when pipelined; "
                "%d busy process%s beside\n",
                endpoint.c_str(), options.rounds, options.roundMs, inFlight, options.load,
                options.load == 1 ? "" : "es");
    std::fflush(stdout);

    auto psUri = [&](const std::string& variable) { return vesk::duvo::sim::pubSubUri(authority, variable); };
    auto rrUri = [&](const std::string& iface, const std::string& method) {
        return vesk::duvo::sim::rpcUri(authority, iface, method);
    };
    std::deque<std::string> nodeNames; // the raw side's node ids borrow these
    auto node = [&](std::string name) {
        nodeNames.push_back(std::move(name));
        return UA_NODEID_STRING(vesk::duvo::sim::nodeNamespace, const_cast<char*>(nodeNames.back().c_str()));
    };
    using vesk::duvo::sim::fieldNodeName, vesk::duvo::sim::methodNodeName, vesk::duvo::sim::objectNodeName;

    // ---- our side, through the loaded plug-in as an application uses it
    auto duvo = std::make_shared<OpcUaDuvo>(vesk::duvo::Duvo::Properties{{"opc.ps.pollingPeriodMs", "0"}});
    auto floatPublisher = duvo->createPublisher<m2Types::M2FloatValue0>(psUri("M2FloatValue0"));
    auto matrixPublisher = duvo->createPublisher<m2Types::M2DoubleMatrix36>(psUri("M2DoubleMatrix36"));
    auto shortsPublisher = duvo->createPublisher<m2Types::M2Uint16Vector62>(psUri("M2Uint16Vector62"));
    auto stringsPublisher = duvo->createPublisher<m2Types::M2StringVector15>(psUri("M2StringVector15"));

    std::vector<double> matrix(36);
    for (std::size_t i = 0; i < matrix.size(); ++i) matrix[i] = 0.25 * static_cast<double>(i);
    std::vector<UA_UInt16> shorts(62);
    for (std::size_t i = 0; i < shorts.size(); ++i) shorts[i] = static_cast<UA_UInt16>(i * 7);
    std::vector<std::string> strings;
    for (int i = 0; i < 15; ++i) strings.push_back("setpoint-" + std::to_string(1000 + i));
    const float scalar = 1.5f;

    auto floatSample = floatPublisher->createDataEntity();
    floatSample->setValue0(scalar);
    auto matrixSample = matrixPublisher->createDataEntity();
    matrixSample->setValue0(vesk::duvo::shared_vector<const double>(matrix.begin(), matrix.end()));
    auto shortsSample = shortsPublisher->createDataEntity();
    shortsSample->setValue0(vesk::duvo::shared_vector<const unsigned short>(shorts.begin(), shorts.end()));
    auto stringsSample = stringsPublisher->createDataEntity();
    stringsSample->setValue0(strings);

    const vesk::duvo::opcua::detail::OpcUaDuvo::RrQoSList replyTime{
        std::make_shared<vesk::duvo::rr::qos::ReplyTime>(publishTimeout)};
    auto adsSync = duvo->createClient<m2Types::WhRpcForceSetpointAdsSync>(
        rrUri("WhRpcForceSetpointAds", "RPC_ForceSetpointAds"), replyTime);
    auto adsAsync = duvo->createClient<m2Types::WhRpcForceSetpointAdsAsync>(
        rrUri("WhRpcForceSetpointAds", "RPC_ForceSetpointAds"), replyTime);
    auto legSync = duvo->createClient<m2Types::PsRpcLegPositionSetpointSync>(
        rrUri("PsRpcLegPositionSetpoint", "RPC_LegPositionSetpoint"), replyTime);
    auto legAsync = duvo->createClient<m2Types::PsRpcLegPositionSetpointAsync>(
        rrUri("PsRpcLegPositionSetpoint", "RPC_LegPositionSetpoint"), replyTime);
    double forces[15];
    for (int i = 0; i < 15; ++i) forces[i] = 10.0 + i;
    const std::vector<double> legValues{0.1, 0.2, 0.3, 0.4, 0.5, 0.6};
    const vesk::duvo::shared_vector<const double> legs(legValues.begin(), legValues.end());

    // Made for the delivery rounds only: a subscription publishing every millisecond keeps the
    // server busy, and the other figures would be measured beside it.
    std::unique_ptr<vesk::duvo::ps::Subscriber<m2Types::M2Int32Value0>> subscriber;

    // The poller behind a polling subscriber, driven cycle by cycle.
    using MatrixBinding = generated::opcua::m2Types::M2DoubleMatrix36;
    std::size_t polled = 0;
    ReadsEnded readsEnded;
    const auto pollClient = duvo->getClient(endpoint, duvo->properties());
    vesk::duvo::opcua::detail::ps::BasicDataPoller<MatrixBinding, CountingSink<MatrixBinding>> poller(
        CountingSink<MatrixBinding>{&polled, &readsEnded}, pollClient,
        vesk::duvo::opcua::detail::getNodeIds(psUri("M2DoubleMatrix36")), 0);
    readsEnded.next = [&] { boost::asio::post(pollClient->ioContext(), [&poller] { poller.poll(); }); };

    // ---- the raw side: the same data, held as a user of open62541 would hold it
    RawClient raw(endpoint);
    const UA_NodeId floatNode = node(fieldNodeName("M2FloatValue0")),
                    matrixNode = node(fieldNodeName("M2DoubleMatrix36")),
                    shortsNode = node(fieldNodeName("M2Uint16Vector62")),
                    stringsNode = node(fieldNodeName("M2StringVector15")),
                    int32Node = node(fieldNodeName("M2Int32Value0"));
    std::vector<UA_String> stringScratch(strings.size());
    auto stringsVariant = [&] {
        for (std::size_t i = 0; i < strings.size(); ++i)
            stringScratch[i] = UA_String{strings[i].size(), reinterpret_cast<UA_Byte*>(strings[i].data())};
        return borrowedArray(stringScratch.data(), stringScratch.size(), &UA_TYPES[UA_TYPES_STRING]);
    };
    auto floatVariant = [&] { return borrowedScalar(&scalar, &UA_TYPES[UA_TYPES_FLOAT]); };
    auto matrixVariant = [&] { return borrowedArray(matrix.data(), matrix.size(), &UA_TYPES[UA_TYPES_DOUBLE]); };
    auto shortsVariant = [&] { return borrowedArray(shorts.data(), shorts.size(), &UA_TYPES[UA_TYPES_UINT16]); };

    UA_Variant forceArgs[15];
    auto forceVariants = [&] {
        for (int i = 0; i < 15; ++i) forceArgs[i] = borrowedScalar(&forces[i], &UA_TYPES[UA_TYPES_DOUBLE]);
        return forceArgs;
    };
    UA_Variant legArg;
    auto legVariant = [&] {
        legArg = borrowedArray(legValues.data(), legValues.size(), &UA_TYPES[UA_TYPES_DOUBLE]);
        return &legArg;
    };
    const UA_NodeId adsObject = node(objectNodeName("WhRpcForceSetpointAds")),
                    adsMethod = node(methodNodeName("WhRpcForceSetpointAds", "RPC_ForceSetpointAds"));
    const UA_NodeId legObject = node(objectNodeName("PsRpcLegPositionSetpoint")),
                    legMethod = node(methodNodeName("PsRpcLegPositionSetpoint", "RPC_LegPositionSetpoint"));

    UA_Int32 rawLast = 0;
    bool rawFresh = false;

    // ---- SignAndEncrypt with Basic256Sha256 as a user, against a second simulator that offers
    // nothing else: our side through the security properties, the raw side through open62541's
    // encryption set-up with a certificate of its own.
    std::unique_ptr<SecureSetup> secure;
    std::unique_ptr<ServerProcess> secureServer;
    std::shared_ptr<OpcUaDuvo> secureDuvo;
    std::unique_ptr<vesk::duvo::ps::Publisher<m2Types::M2FloatValue0>> secureFloatPublisher;
    std::shared_ptr<m2Types::M2FloatValue0> secureFloatSample;
    std::unique_ptr<m2Types::WhRpcForceSetpointAdsSync> secureAdsSync;
    std::unique_ptr<RawClient> secureRaw;
    if (wanted("publish_sync_scalar_encrypted") || wanted("rpc_sync_force_ads15_encrypted")) {
        secure = std::make_unique<SecureSetup>();
        secureServer = std::make_unique<ServerProcess>(
            self, std::vector<std::string>{"--secure", secure->serverPki(), secure->usersFile()});
        const std::string serverCertificate = secure->trustServer();
        const std::string secureAuthority = secureServer->authority();
        secureDuvo = std::make_shared<OpcUaDuvo>(secure->properties());
        secureFloatPublisher = secureDuvo->createPublisher<m2Types::M2FloatValue0>("opcua-ps://" + secureAuthority +
                                                                                   "#ns=1;s=M2FloatValue0");
        secureFloatSample = secureFloatPublisher->createDataEntity();
        secureFloatSample->setValue0(scalar);
        secureAdsSync = secureDuvo->createClient<m2Types::WhRpcForceSetpointAdsSync>(
            "opcua-rr://" + secureAuthority +
                "#ns=1;s=WhRpcForceSetpointAds,ns=1;s=WhRpcForceSetpointAds.RPC_ForceSetpointAds",
            replyTime);
        // Our first connection also makes our certificate: wait for it rather than time a publish out.
        const auto secureClient = secureDuvo->getClient(secureServer->endpoint(), secureDuvo->properties());
        const auto until = Clock::now() + 30s;
        while (!secureClient->isConnected() && Clock::now() < until) std::this_thread::sleep_for(10ms);
        check(secureClient->isConnected(), "our encrypted session within 30 s");
        const RawClient::Security rawSecurity{serverCertificate, SecureSetup::user, secure->password()};
        secureRaw = std::make_unique<RawClient>(secureServer->endpoint(), &rawSecurity);
        std::printf("secure server %s (own process): SignAndEncrypt, Basic256Sha256, a user and password\n",
                    secureServer->endpoint().c_str());
        std::fflush(stdout);
    }

    // ---- the figures
    std::vector<Figure> figures;
    auto figure = [&](const std::string& name, const std::string& unit, bool higherIsBetter, double target) {
        figures.push_back(Figure{name, unit, higherIsBetter, target, {}, {}});
        return figures.size() - 1;
    };
    std::vector<Pair> pairs;

    auto publishSync = [&](auto& publisher, auto& sample) {
        return [&publisher, &sample]() -> std::size_t {
            publisher->publish(*sample, publishTimeout);
            return 1;
        };
    };
    auto publishPipelined = [&](auto& publisher, auto& sample) {
        // The last publish waits; replies come in order, so all the others are answered then.
        return [&publisher, &sample]() -> std::size_t {
            for (std::size_t i = 0; i + 1 < inFlight; ++i) publisher->publish(*sample, 0ms);
            publisher->publish(*sample, publishTimeout);
            return inFlight;
        };
    };
    auto rawWrite = [&](const UA_NodeId& nodeId, auto makeVariant, std::size_t count) {
        return [&raw, nodeId, makeVariant, count]() -> std::size_t {
            check(raw.write(nodeId, makeVariant(), count) == 0, "raw write");
            return count;
        };
    };

    pairs.push_back({figure("publish_sync_scalar", "/s", true, 1.0), publishSync(floatPublisher, floatSample),
                     rawWrite(floatNode, floatVariant, 1)});
    if (secure)
        pairs.push_back({figure("publish_sync_scalar_encrypted", "/s", true, 0.90),
                         publishSync(secureFloatPublisher, secureFloatSample), [&]() -> std::size_t {
                             check(secureRaw->write(floatNode, floatVariant(), 1) == 0, "raw encrypted write");
                             return 1;
                         }});
    pairs.push_back({figure("publish_sync_matrix36", "/s", true, 1.0), publishSync(matrixPublisher, matrixSample),
                     rawWrite(matrixNode, matrixVariant, 1)});
    pairs.push_back({figure("publish_sync_uint16x62", "/s", true, 1.0), publishSync(shortsPublisher, shortsSample),
                     rawWrite(shortsNode, shortsVariant, 1)});
    pairs.push_back({figure("publish_sync_string15", "/s", true, 1.0), publishSync(stringsPublisher, stringsSample),
                     rawWrite(stringsNode, stringsVariant, 1)});
    pairs.push_back({figure("publish_pipelined_scalar", "/s", true, 0.90),
                     publishPipelined(floatPublisher, floatSample), rawWrite(floatNode, floatVariant, inFlight)});
    pairs.push_back({figure("publish_pipelined_matrix36", "/s", true, 0.90),
                     publishPipelined(matrixPublisher, matrixSample), rawWrite(matrixNode, matrixVariant, inFlight)});
    pairs.push_back({figure("publish_pipelined_uint16x62", "/s", true, 0.90),
                     publishPipelined(shortsPublisher, shortsSample), rawWrite(shortsNode, shortsVariant, inFlight)});
    pairs.push_back({figure("publish_pipelined_string15", "/s", true, 0.90),
                     publishPipelined(stringsPublisher, stringsSample),
                     rawWrite(stringsNode, stringsVariant, inFlight)});

    // Eight application threads publishing at once, each through a publisher of its own, on one
    // endpoint, without waiting but for the last reply; raw keeps 32 writes in flight from one thread.
    constexpr std::size_t fanIn = 8;
    std::vector<std::unique_ptr<vesk::duvo::ps::Publisher<m2Types::M2FloatValue0>>> fanInPublishers;
    std::vector<std::shared_ptr<m2Types::M2FloatValue0>> fanInSamples;
    for (std::size_t i = 0; i < fanIn && wanted("publish_fanin"); ++i) {
        fanInPublishers.push_back(duvo->createPublisher<m2Types::M2FloatValue0>(psUri("M2FloatValue0")));
        fanInSamples.push_back(fanInPublishers.back()->createDataEntity());
        fanInSamples.back()->setValue0(scalar);
    }
    pairs.push_back({figure("publish_fanin8", "/s", true, 2.0),
                     [&]() -> std::size_t {
                         std::atomic<std::size_t> total{0};
                         const auto until = Clock::now() + 50ms;
                         std::vector<std::thread> threads;
                         for (std::size_t t = 0; t < fanIn; ++t)
                             threads.emplace_back([&, t] {
                                 std::size_t n = 1;
                                 for (; Clock::now() < until; ++n) fanInPublishers[t]->publish(*fanInSamples[t], 0ms);
                                 fanInPublishers[t]->publish(*fanInSamples[t], publishTimeout);
                                 total += n;
                             });
                         for (auto& thread : threads) thread.join();
                         return total.load();
                     },
                     rawWrite(floatNode, floatVariant, inFlight)});

    pairs.push_back({figure("rpc_sync_force_ads15", "/s", true, 1.0),
                     [&]() -> std::size_t {
                         check(adsSync->RPC_ForceSetpointAds(forces[14], forces[13], forces[12], forces[11], forces[10],
                                                             forces[9], forces[8], forces[7], forces[6], forces[5],
                                                             forces[4], forces[3], forces[2], forces[1], forces[0]),
                               "RPC_ForceSetpointAds");
                         return 1;
                     },
                     [&]() -> std::size_t {
                         check(raw.call(adsObject, adsMethod, forceVariants(), 15), "raw ForceSetpointAds");
                         return 1;
                     }});
    if (secure)
        pairs.push_back(
            {figure("rpc_sync_force_ads15_encrypted", "/s", true, 0.90),
             [&]() -> std::size_t {
                 check(secureAdsSync->RPC_ForceSetpointAds(forces[14], forces[13], forces[12], forces[11], forces[10],
                                                           forces[9], forces[8], forces[7], forces[6], forces[5],
                                                           forces[4], forces[3], forces[2], forces[1], forces[0]),
                       "encrypted RPC_ForceSetpointAds");
                 return 1;
             },
             [&]() -> std::size_t {
                 check(secureRaw->call(adsObject, adsMethod, forceVariants(), 15), "raw encrypted ForceSetpointAds");
                 return 1;
             }});
    pairs.push_back({figure("rpc_sync_leg_array6", "/s", true, 1.0),
                     [&]() -> std::size_t {
                         check(legSync->RPC_LegPositionSetpoint(legs), "RPC_LegPositionSetpoint");
                         return 1;
                     },
                     [&]() -> std::size_t {
                         check(raw.call(legObject, legMethod, legVariant(), 1), "raw LegPositionSetpoint");
                         return 1;
                     }});
    pairs.push_back(
        {figure("rpc_async_force_ads15", "/s", true, 0.90),
         [&]() -> std::size_t {
             std::vector<boost::future<bool>> replies;
             replies.reserve(inFlight);
             for (std::size_t i = 0; i < inFlight; ++i)
                 replies.push_back(adsAsync->RPC_ForceSetpointAds(
                     forces[14], forces[13], forces[12], forces[11], forces[10], forces[9], forces[8], forces[7],
                     forces[6], forces[5], forces[4], forces[3], forces[2], forces[1], forces[0]));
             for (auto& reply : replies) check(reply.get(), "RPC_ForceSetpointAds");
             return inFlight;
         },
         [&]() -> std::size_t {
             check(raw.callAsync(adsObject, adsMethod, forceVariants(), 15, inFlight) == 0, "raw ForceSetpointAds");
             return inFlight;
         }});
    pairs.push_back({figure("rpc_async_leg_array6", "/s", true, 0.90),
                     [&]() -> std::size_t {
                         std::vector<boost::future<bool>> replies;
                         replies.reserve(inFlight);
                         for (std::size_t i = 0; i < inFlight; ++i)
                             replies.push_back(legAsync->RPC_LegPositionSetpoint(legs));
                         for (auto& reply : replies) check(reply.get(), "RPC_LegPositionSetpoint");
                         return inFlight;
                     },
                     [&]() -> std::size_t {
                         check(raw.callAsync(legObject, legMethod, legVariant(), 1, inFlight) == 0,
                               "raw LegPositionSetpoint");
                         return inFlight;
                     }});

    // A poll cycle: one read of the node, its checks, and the conversion when the data is newer.
    std::vector<double> rawPolled;
    UA_DateTime rawLastTime = 0;
    pairs.push_back({figure("poll_cycle", "/s", true, 1.0),
                     [&]() -> std::size_t {
                         // Polls run on the I/O thread and end there when their reply is handled.
                         std::unique_lock<std::mutex> lock(readsEnded.mutex);
                         const std::size_t before = readsEnded.count;
                         readsEnded.more = inFlight - 1;
                         readsEnded.next();
                         readsEnded.changed.wait(lock, [&] { return readsEnded.count == before + inFlight; });
                         return inFlight;
                     },
                     [&]() -> std::size_t {
                         UA_ReadValueId id;
                         UA_ReadValueId_init(&id);
                         id.nodeId = matrixNode;
                         id.attributeId = UA_ATTRIBUTEID_VALUE;
                         UA_ReadRequest request;
                         UA_ReadRequest_init(&request);
                         request.timestampsToReturn = UA_TIMESTAMPSTORETURN_BOTH;
                         request.nodesToRead = &id;
                         request.nodesToReadSize = 1;
                         bool done = false;
                         struct Context {
                             bool* done;
                             std::vector<double>* values;
                             UA_DateTime* last;
                         } context{&done, &rawPolled, &rawLastTime};
                         check(UA_Client_sendAsyncReadRequest(
                                   raw.get(), &request,
                                   [](UA_Client*, void* userdata, UA_UInt32, UA_ReadResponse* response) {
                                       auto* c = static_cast<Context*>(userdata);
                                       *c->done = true;
                                       if (response->responseHeader.serviceResult != UA_STATUSCODE_GOOD ||
                                           response->resultsSize != 1)
                                           return;
                                       const UA_DataValue& v = response->results[0];
                                       if (v.hasStatus && UA_StatusCode_isBad(v.status)) return;
                                       if (v.hasSourceTimestamp && v.sourceTimestamp <= *c->last && *c->last != 0)
                                           return;
                                       *c->last = v.sourceTimestamp;
                                       const auto* data = static_cast<const double*>(v.value.data);
                                       c->values->assign(data, data + v.value.arrayLength);
                                   },
                                   &context, nullptr) == UA_STATUSCODE_GOOD,
                               "raw read");
                         raw.runUntil([&] { return done; });
                         return 1;
                     }});

    // What a synchronous operation costs the machine: a wait that spins would win the clock here.
    pairs[0].cpuFigure = figure("cpu_publish_sync", "us", false, 0.0);
    for (auto& p : pairs)
        if (figures[p.figure].name == "rpc_sync_force_ads15") p.cpuFigure = figure("cpu_rpc_sync", "us", false, 0.0);

    pairs.erase(
        std::remove_if(pairs.begin(), pairs.end(), [&](const Pair& p) { return !wanted(figures[p.figure].name); }),
        pairs.end());
    const bool measureDelivery = wanted("subscribe_delivery");

    // Warm-up: connections, plug-in, first allocations.
    for (auto& p : pairs) {
        rateOf(p.ours, 50);
        rateOf(p.raw, 50);
    }
    // Figures not measured are not shown.
    std::vector<bool> measured(figures.size(), false);
    for (const auto& p : pairs) {
        measured[p.figure] = true;
        if (p.cpuFigure != SIZE_MAX) measured[p.cpuFigure] = true;
    }

    // Delivery: a write on the server's side until the value is in the application's hands.
    Figure latency{"subscribe_delivery_median", "us", false, 0.95, {}, {}};
    Figure latencyTail{"subscribe_delivery_p99", "us", false, 0.0, {}, {}};
    std::vector<double> oursLatencies, rawLatencies;
    std::int32_t sequence = 0;
    // Each subscription publishes once a millisecond: a write made just after the last delivery
    // would fall at the same point of one side's cycle every time, and the figure would measure
    // where the two cycles happen to lie. A random pause spreads the writes over the cycle.
    std::mt19937 random(42);
    auto anyPointOfTheCycle = [&] {
        std::this_thread::sleep_for(std::chrono::microseconds(std::uniform_int_distribution<int>(0, 999)(random)));
    };
    auto oursDelivery = [&]() -> double {
        const std::int32_t expected = ++sequence;
        anyPointOfTheCycle();
        const auto start = Clock::now();
        server.writeInt32("M2Int32Value0", expected);
        std::vector<std::shared_ptr<vesk::duvo::ps::DataEvent<m2Types::M2Int32Value0>>> events;
        for (;;) {
            events.clear();
            subscriber->readDataEvents(vesk::duvo::ps::DataEventFilter<m2Types::M2Int32Value0>(), events, 1, 2000ms);
            check(!events.empty(), "a sample within 2 s");
            if (events[0]->hasValidData() && events[0]->getData()->getValue0() == expected)
                return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
        }
    };
    auto rawDelivery = [&]() -> double {
        const std::int32_t expected = ++sequence;
        anyPointOfTheCycle();
        const auto start = Clock::now();
        server.writeInt32("M2Int32Value0", expected);
        raw.runUntil([&] { return rawFresh && rawLast == expected; });
        rawFresh = false;
        return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
    };
    for (int round = 0; round < options.rounds; ++round) {
        const bool oursFirst = round % 2 == 0;
        for (auto& p : pairs) {
            Figure& f = figures[p.figure];
            Measured o{}, r{};
            if (oursFirst) {
                o = measure(p.ours, options.roundMs);
                r = measure(p.raw, options.roundMs);
            } else {
                r = measure(p.raw, options.roundMs);
                o = measure(p.ours, options.roundMs);
            }
            f.ours.push_back(o.rate);
            f.raw.push_back(r.rate);
            if (p.cpuFigure != SIZE_MAX) {
                figures[p.cpuFigure].ours.push_back(o.cpuPerOp);
                figures[p.cpuFigure].raw.push_back(r.cpuPerOp);
            }
        }
        std::fprintf(stderr, "round %d of %d done\n", round + 1, options.rounds);
    }

    // Raw monitored item on the subscriber's variable: the callback keeps the last value.
    auto monitorRaw = [&] {
        UA_CreateSubscriptionRequest request = UA_CreateSubscriptionRequest_default();
        request.requestedPublishingInterval = 0; // as our client asks for a sampling interval of 0
        const UA_CreateSubscriptionResponse sub =
            UA_Client_Subscriptions_create(raw.get(), request, nullptr, nullptr, nullptr);
        check(sub.responseHeader.serviceResult == UA_STATUSCODE_GOOD, "raw subscription");
        UA_MonitoredItemCreateRequest item = UA_MonitoredItemCreateRequest_default(int32Node);
        item.requestedParameters.samplingInterval = 0;
        item.requestedParameters.queueSize = 100;
        item.requestedParameters.discardOldest = true;
        struct Last {
            UA_Int32* value;
            bool* fresh;
        };
        static Last last{&rawLast, &rawFresh};
        const UA_MonitoredItemCreateResult created = UA_Client_MonitoredItems_createDataChange(
            raw.get(), sub.subscriptionId, UA_TIMESTAMPSTORETURN_BOTH, item, &last,
            [](UA_Client*, UA_UInt32, void*, UA_UInt32, void* context, UA_DataValue* value) {
                if (!value->hasValue || !UA_Variant_hasScalarType(&value->value, &UA_TYPES[UA_TYPES_INT32])) return;
                auto* l = static_cast<Last*>(context);
                *l->value = *static_cast<UA_Int32*>(value->value.data);
                *l->fresh = true;
            },
            nullptr);
        check(created.statusCode == UA_STATUSCODE_GOOD, "raw monitored item");
    };
    if (measureDelivery) {
        subscriber = duvo->createSubscriber<m2Types::M2Int32Value0>(psUri("M2Int32Value0"));
        monitorRaw();
        // Drain what the setup left in the queue and in the raw client.
        for (int i = 0; i < 5; ++i) {
            oursDelivery();
            rawDelivery();
        }
    }
    for (int round = 0; measureDelivery && round < options.rounds; ++round) {
        const bool oursFirst = round % 2 == 0;
        std::vector<double> o, r;
        for (int i = 0; i < options.samples; ++i) {
            if (oursFirst) {
                o.push_back(oursDelivery());
                r.push_back(rawDelivery());
            } else {
                r.push_back(rawDelivery());
                o.push_back(oursDelivery());
            }
        }
        latency.ours.push_back(median(o));
        latency.raw.push_back(median(r));
        oursLatencies.insert(oursLatencies.end(), o.begin(), o.end());
        rawLatencies.insert(rawLatencies.end(), r.begin(), r.end());
    }
    latency.oursValue = median(oursLatencies);
    latency.rawValue = median(rawLatencies);
    latencyTail.oursValue = percentile(oursLatencies, 0.99);
    latencyTail.rawValue = percentile(rawLatencies, 0.99);
    if (measureDelivery) {
        figures.push_back(latency);
        figures.push_back(latencyTail);
    }

    // The poll cycle reads better as a time.
    for (Figure& f : figures) {
        if (f.name != "poll_cycle") continue;
        for (auto* side : {&f.ours, &f.raw})
            for (double& v : *side) v = 1e6 / v;
        f.unit = "us";
        f.higherIsBetter = false;
    }

    // Scale: a fresh process per count and side, alternating.
    for (const std::size_t n : wanted("scale") ? options.scale : std::vector<std::size_t>{}) {
        const std::string prefix = "scale" + std::to_string(n) + "_";
        Figure creation{prefix + "create", "ms", false, 0.0, {}, {}};
        Figure memory{prefix + "rss_per_subscriber", "B", false, 0.0, {}, {}};
        Figure delivery{prefix + "deliver_one_change", "ms", false, 0.0, {}, {}};
        const int runs = n >= 10000 ? 1 : 3;
        for (int run = 0; run < runs; ++run) {
            for (const char* kind :
                 run % 2 == 0 ? std::vector<const char*>{"ours", "raw"} : std::vector<const char*>{"raw", "ours"}) {
                const ScaleResult r = runScale(self, kind, n, endpoint);
                const bool ours = std::strcmp(kind, "ours") == 0;
                (ours ? creation.ours : creation.raw).push_back(r.creationMs);
                (ours ? memory.ours : memory.raw).push_back(r.bytesPerSubscriber);
                (ours ? delivery.ours : delivery.raw).push_back(r.deliveryMs);
            }
        }
        figures.push_back(creation);
        figures.push_back(memory);
        figures.push_back(delivery);
    }

    // Many endpoints in one process: a fresh process per side. The threads' raw figure is the one
    // thread that drives all of open62541's clients; the isolation row compares ours with one
    // endpoint black-holed ("ours") against ours with all of them healthy ("raw").
    if (wanted("endpoints")) {
        constexpr std::size_t endpoints = 20;
        const EndpointsResult o = runEndpoints(self, "ours", endpoints);
        const EndpointsResult r = runEndpoints(self, "raw", endpoints);
        const std::string prefix = "endpoints" + std::to_string(endpoints) + "_";
        figures.push_back(Figure{prefix + "threads", "", false, 0.25, {o.threads}, {r.threads}});
        figures.push_back(
            Figure{prefix + "rss_per_endpoint", "B", false, 0.0, {o.bytesPerEndpoint}, {r.bytesPerEndpoint}});
        figures.push_back(Figure{prefix + "isolation_p99", "us", false, 0.8, {o.p99OneBlackholedUs}, {o.p99HealthyUs}});
    }

    std::vector<Figure> shown;
    for (std::size_t i = 0; i < figures.size(); ++i)
        if (i >= measured.size() || measured[i]) shown.push_back(figures[i]);
    printTable(shown);
    if (options.nodePeer) nodePeerTable(shown, endpoint, options);
    return 0;
}

} // namespace
} // namespace duvo::bench

int main(int argc, char** argv) {
    using duvo::bench::Options;
    // A production level; the lines themselves go nowhere, the table is the output.
    log4cplus::Logger::getRoot().addAppender(log4cplus::SharedAppenderPtr(new log4cplus::NullAppender()));
    log4cplus::Logger::getRoot().setLogLevel(log4cplus::WARN_LOG_LEVEL);
    try {
        std::vector<std::string> args(argv + 1, argv + argc);
        if (!args.empty() && args[0] == "--serve")
            return duvo::bench::serveMain(std::vector<std::string>(args.begin() + 1, args.end()));
        if (args.size() == 4 && args[0] == "--scale-run")
            return duvo::bench::scaleMain(args[1], std::stoul(args[2]), args[3]);
        if (args.size() == 3 && args[0] == "--endpoints-run")
            return duvo::bench::endpointsMain(duvo::bench::selfPath(), args[1], std::stoul(args[2]));
        Options options;
        for (std::size_t i = 0; i < args.size(); ++i) {
            const bool hasValue = i + 1 < args.size();
            if (args[i] == "--rounds" && hasValue)
                options.rounds = std::stoi(args[++i]);
            else if (args[i] == "--round-ms" && hasValue)
                options.roundMs = std::stoi(args[++i]);
            else if (args[i] == "--samples" && hasValue)
                options.samples = std::stoi(args[++i]);
            else if (args[i] == "--only" && hasValue)
                options.only = args[++i];
            else if (args[i] == "--node-peer")
                options.nodePeer = true;
            else if (args[i] == "--load" && hasValue)
                options.load = std::stoi(args[++i]);
            else if (args[i] == "--scale" && hasValue) {
                options.scale.clear();
                std::string list = args[++i];
                for (std::size_t at = 0; at < list.size();) {
                    const std::size_t comma = std::min(list.find(',', at), list.size());
                    if (comma > at) options.scale.push_back(std::stoul(list.substr(at, comma - at)));
                    at = comma + 1;
                }
            } else if (args[i] == "--quick") {
                options.rounds = 2;
                options.roundMs = 100;
                options.samples = 50;
                options.scale = {1000};
            } else {
                std::cerr << "usage: duvo-bench [--rounds N] [--round-ms MS] [--samples N] [--scale N,N,...] [--quick]"
                             " [--only PREFIX] [--node-peer] [--load N]\n";
                return 2;
            }
        }
        const duvo::bench::BusyLoad load(options.load);
        return duvo::bench::benchMain(options);
    } catch (const std::exception& e) {
        std::cerr << "duvo-bench: " << e.what() << '\n';
        return 1;
    }
}
