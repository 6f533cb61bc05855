#pragma once
// What every command shares: option parsing, the endpoint and URIs, the middleware instance,
// waiting for a connection, and the stop signals.
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <boost/program_options.hpp>

#include <vesk/duvo/opcua/opcuaDuvo.hpp>

#include "nameMap.hpp"
#include "values.hpp"

namespace m2ctl {

namespace po = boost::program_options;

/// The port that `m2ctl sim` and m2-sim listen on by default.
inline constexpr std::uint16_t defaultPort = 4840;
inline const std::string defaultEndpoint = "opc.tcp://127.0.0.1:4840";

/// Options most commands take.
struct Common {
    std::string endpoint;
    std::string uri;
    long timeoutMs = 3000;
    bool json = false;
    std::string mapFile;
    /// Node ids of a device laid out otherwise (--map); null for the simulator's layout.
    std::shared_ptr<const NameMap> map;
    /// Security of the connection: "opc.security.*" properties, and --trust-server.
    std::map<std::string, std::string> security;
    bool trustServer = false;
};

/// A command's command line once parsed; help is set when --help was asked (and printed).
struct CommandLine {
    po::variables_map vm;
    std::vector<std::string> args;
    bool help = false;
};

/// Adds --help, --verbose, --log-config and, as asked, --endpoint (with the security options),
/// --uri, --timeout, --json and --map.
struct CommonOptions {
    bool endpoint = true;
    bool uri = true;
    bool timeout = true;
    bool json = true;
    bool map = true;
    bool security = true; // with endpoint: the connection's security options
};
void addCommonOptions(po::options_description& options, Common& common, CommonOptions which);

/// Parses argv (from the word after the command on); positional words, negative numbers
/// included, go to args. Prints the usage for --help. Sets up logging (--verbose, --log-config)
/// and loads the map of --map into common, whose endpoint applies unless --endpoint is given.
CommandLine parseCommandLine(const std::string& usage, const po::options_description& options, int argc, char** argv,
                             Common* common = nullptr);

/// "HOST:PORT[/PATH]" of an opc.tcp:// endpoint; UsageError when it is not one.
std::string authorityOf(const std::string& endpoint);
/// The endpoint given, or the default one.
std::string endpointOrDefault(const Common& common);
/// Whether the entity has node ids: always without a map.
bool inMap(const Common& common, const std::string& name);
/// The node id of a type's variable, from the map or the simulator's layout; UsageError when
/// a map does not have it.
std::string variableNode(const Common& common, const std::string& type);
/// The object and method node ids of an interface, likewise.
MethodNodes methodNodes(const Common& common, const std::string& iface, const std::string& method);
/// opcua-ps://HOST:PORT#<variable node>, or --uri when given.
std::string psUri(const Common& common, const std::string& type);
/// opcua-rr://HOST:PORT#<object node>,<method node>, or --uri when given.
std::string rrUri(const Common& common, const std::string& iface, const std::string& method);

/// The middleware instance of a command; its properties also bound the calls' submit time.
std::shared_ptr<vesk::duvo::opcua::detail::OpcUaDuvo> makeDuvo(const Common& common,
                                                               std::map<std::string, std::string> properties = {});
/// Waits up to the timeout for a session with the endpoint (or the URI's); throws otherwise.
void waitForEndpoint(vesk::duvo::opcua::detail::OpcUaDuvo& duvo, const std::string& endpoint, long timeoutMs);
/// Asks the server for its certificate over a None channel, prints its thumbprint (stderr) and
/// stores it in trusted/ of the PKI folder that the security properties name.
void trustServer(const std::string& endpoint, const std::map<std::string, std::string>& security);
void waitForConnection(vesk::duvo::opcua::detail::OpcUaDuvo& duvo, const std::string& uri, long timeoutMs);

/// Milliseconds since start, with microseconds.
double elapsedMs(std::chrono::steady_clock::time_point start);
/// Milliseconds with two decimals ("0.84"), for tables and JSON.
std::string msText(double ms);

/// SIGINT and SIGTERM set a flag instead of ending the process (for sub and sim).
void catchStopSignals();
bool stopRequested();

/// The last warning or error the middleware logged since the previous take, or "".
std::string takeLastProblem();
/// The message, with "; last problem: " and that warning or error when there is one.
std::string withLastProblem(const std::string& message);

} // namespace m2ctl
