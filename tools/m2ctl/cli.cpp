#include "cli.hpp"

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iostream>
#include <mutex>
#include <thread>
#include <utility>

#include <log4cplus/configurator.h>
#include <log4cplus/consoleappender.h>
#include <log4cplus/initializer.h>
#include <log4cplus/logger.h>
#include <log4cplus/nullappender.h>
#include <log4cplus/spi/loggingevent.h>
#include <open62541/client.h>
#include <open62541/client_config_default.h>

#include <vesk/duvo/opcua/pki.hpp>
#include <vesk/duvo/opcua/uriHelper.hpp>

namespace m2ctl {

namespace {

constexpr const char* opcTcp = "opc.tcp://";

/// "-5", "-1.5,2", "-inf": values, not options.
bool looksNegative(const std::string& word) {
    if (word.size() < 2 || word[0] != '-') return false;
    const char c = word[1];
    return (c >= '0' && c <= '9') || c == '.' || word.rfind("-inf", 0) == 0 || word.rfind("-nan", 0) == 0;
}

std::vector<po::option> negativeNumbers(std::vector<std::string>& words) {
    std::vector<po::option> out;
    if (!words.empty() && looksNegative(words.front())) {
        po::option positional;
        positional.value.push_back(words.front());
        positional.original_tokens.push_back(words.front());
        out.push_back(positional);
        words.erase(words.begin());
    }
    return out;
}

/// A node id as a URI fragment part: a comma would split it, and a URI allows no blanks,
/// percent signs or bytes beyond ASCII as they are.
std::string percentEncoded(const std::string& id) {
    static const std::string plain = "-._~!$&'()*+;=:@/?";
    std::string out;
    for (const char c : id) {
        const auto u = static_cast<unsigned char>(c);
        if ((u >= 'a' && u <= 'z') || (u >= 'A' && u <= 'Z') || (u >= '0' && u <= '9') ||
            plain.find(c) != std::string::npos) {
            out += c;
        } else {
            char escape[4];
            std::snprintf(escape, sizeof escape, "%%%02X", unsigned(u));
            out += escape;
        }
    }
    return out;
}

std::atomic<bool> stopFlag{false};

extern "C" void onStopSignal(int) { stopFlag.store(true); }

/// Keeps the last warning or error the middleware logged: the only place where it says why a
/// sample did not come (a value it could not convert, a failed read).
class LastProblem : public log4cplus::Appender {
public:
    LastProblem() { setName(LOG4CPLUS_TEXT("m2ctl-last-problem")); }
    ~LastProblem() override { destructorImpl(); }
    void close() override { closed = true; }

    std::string take() {
        std::lock_guard<std::mutex> lock(mutex_);
        return std::exchange(last_, std::string());
    }

protected:
    void append(const log4cplus::spi::InternalLoggingEvent& event) override {
        if (event.getLogLevel() < log4cplus::WARN_LOG_LEVEL) return;
        std::lock_guard<std::mutex> lock(mutex_);
        last_ = LOG4CPLUS_TSTRING_TO_STRING(event.getMessage());
    }

private:
    std::mutex mutex_;
    std::string last_;
};

LastProblem* lastProblem = nullptr;

/// The middleware logs through log4cplus; a user sees its warnings only when asking for them,
/// so that an error is the one line m2ctl prints. A properties file (--log-config, else
/// DUVO_LOG_CONFIG) replaces that choice.
void configureLogging(bool verbose, std::string file) {
    log4cplus::initialize();
    if (const char* env = std::getenv("DUVO_LOG_CONFIG"); file.empty() && env) file = env;
    auto orsa = log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("orsa"));
    if (!file.empty()) {
        if (!std::ifstream(file).good()) throw UsageError("cannot read the log configuration " + inQuotes(file));
        log4cplus::PropertyConfigurator::doConfigure(LOG4CPLUS_STRING_TO_TSTRING(file));
    } else {
        auto root = log4cplus::Logger::getRoot();
        root.removeAllAppenders();
        if (verbose) {
            root.addAppender(log4cplus::SharedAppenderPtr(new log4cplus::ConsoleAppender(true, true)));
            root.setLogLevel(log4cplus::WARN_LOG_LEVEL);
        } else {
            root.addAppender(log4cplus::SharedAppenderPtr(new log4cplus::NullAppender()));
            root.setLogLevel(log4cplus::OFF_LOG_LEVEL);
        }
        orsa.setLogLevel(log4cplus::WARN_LOG_LEVEL);
    }
    if (!lastProblem) {
        lastProblem = new LastProblem();
        orsa.addAppender(log4cplus::SharedAppenderPtr(lastProblem));
    }
}

} // namespace

std::vector<std::string> splitCommas(const std::string& text) {
    std::vector<std::string> parts;
    std::size_t start = 0;
    while (true) {
        const std::size_t comma = text.find(',', start);
        std::string part = text.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
        const auto first = part.find_first_not_of(" \t");
        const auto last = part.find_last_not_of(" \t");
        parts.push_back(first == std::string::npos ? std::string() : part.substr(first, last - first + 1));
        if (comma == std::string::npos) return parts;
        start = comma + 1;
    }
}

std::vector<std::string> valueTokens(const std::vector<std::string>& args) {
    return args.size() == 1 ? splitCommas(args[0]) : args;
}

std::string inQuotes(const std::string& text) {
    std::string out = "\"";
    for (const char c : text) {
        switch (c) {
        case '"':
            out += "\\\"";
            break;
        case '\\':
            out += "\\\\";
            break;
        case '\n':
            out += "\\n";
            break;
        case '\r':
            out += "\\r";
            break;
        case '\t':
            out += "\\t";
            break;
        default:
            if (static_cast<unsigned char>(c) < 0x20) {
                char escape[8];
                std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(static_cast<unsigned char>(c)));
                out += escape;
            } else {
                out += c;
            }
        }
    }
    return out + "\"";
}

std::string isoTime(double seconds) {
    if (seconds <= 0) return "-";
    const auto whole = static_cast<std::time_t>(seconds);
    const int millis = static_cast<int>((seconds - static_cast<double>(whole)) * 1000.0);
    std::tm utc{};
    gmtime_r(&whole, &utc);
    char text[40];
    const std::size_t n = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc);
    std::snprintf(text + n, sizeof text - n, ".%03dZ", millis);
    return text;
}

void addCommonOptions(po::options_description& options, Common& common, CommonOptions which) {
    options.add_options()("help,h", "print this help and exit");
    if (which.endpoint) {
        options.add_options()("endpoint,e", po::value<std::string>(&common.endpoint)->value_name("URL"),
                              "the server, opc.tcp://HOST:PORT");
    }
    if (which.endpoint && which.security) {
        const auto property = [&common](const char* key) {
            return po::value<std::string>()->notifier(
                [&common, key](const std::string& v) { common.security[key] = v; });
        };
        options.add_options()("security-mode", property("opc.security.mode")->value_name("MODE"),
                              "None (default), Sign or SignAndEncrypt")(
            "security-policy", property("opc.security.policy")->value_name("POLICY"),
            "Basic256Sha256, Aes128_Sha256_RsaOaep or Aes256_Sha256_RsaPss (default: the strongest offered)")(
            "pki", property("opc.security.pkiDir")->value_name("DIR"),
            "PKI folder with own/, trusted/ and rejected/ (default: ~/.local/share/duvo-opcua/pki)")(
            "user", property("opc.security.user")->value_name("NAME"),
            "log in as this user")("password-file", property("opc.security.passwordFile")->value_name("FILE"),
                                   "file holding the user's password (default: DUVO_OPCUA_PASSWORD)")(
            "trust-server", po::bool_switch(&common.trustServer),
            "print the server's certificate thumbprint and store it in the PKI's trusted/");
    }
    if (which.uri)
        options.add_options()("uri,u", po::value<std::string>(&common.uri)->value_name("URI"),
                              "the entity's full URI (opcua-ps://... or opcua-rr://...) instead of the "
                              "simulator's node ids on --endpoint");
    if (which.timeout)
        options.add_options()("timeout,t", po::value<long>(&common.timeoutMs)->default_value(3000)->value_name("MS"),
                              "bound on connecting, writing and reading back");
    if (which.json) options.add_options()("json,j", po::bool_switch(&common.json), "print JSON for scripts");
    if (which.map)
        options.add_options()("map", po::value<std::string>(&common.mapFile)->value_name("FILE"),
                              "JSON name map of a device whose node ids differ from the simulator's "
                              "(m2ctl list --map prints one to start from)");
    options.add_options()("verbose,v", "show the middleware's warnings on stderr")(
        "log-config", po::value<std::string>()->value_name("FILE"),
        "log4cplus properties file for the middleware's logs (default: DUVO_LOG_CONFIG when set)");
}

CommandLine parseCommandLine(const std::string& usage, const po::options_description& options, int argc, char** argv,
                             Common* common) {
    po::options_description all;
    all.add(options);
    all.add_options()("args", po::value<std::vector<std::string>>(), "");
    po::positional_options_description positional;
    positional.add("args", -1);

    CommandLine out;
    // No prefix guessing: --time must not silently mean --timeout or --timestamp.
    const int style = po::command_line_style::unix_style ^ po::command_line_style::allow_guessing;
    po::store(po::command_line_parser(argc, argv)
                  .options(all)
                  .positional(positional)
                  .style(style)
                  .extra_style_parser(&negativeNumbers)
                  .run(),
              out.vm);
    configureLogging(out.vm.count("verbose") > 0,
                     out.vm.count("log-config") ? out.vm["log-config"].as<std::string>() : std::string());
    if (out.vm.count("help")) {
        std::cout << "Usage: " << usage << "\n\n" << options << '\n';
        out.help = true;
        return out;
    }
    po::notify(out.vm);
    if (out.vm.count("timeout") && out.vm["timeout"].as<long>() <= 0)
        throw UsageError("bad timeout: it must be above 0 ms");
    if (out.vm.count("args")) out.args = out.vm["args"].as<std::vector<std::string>>();
    if (common && !common->mapFile.empty()) {
        common->map = std::make_shared<const NameMap>(loadNameMap(common->mapFile));
        if (common->endpoint.empty()) common->endpoint = common->map->endpoint;
    }
    return out;
}

std::string authorityOf(const std::string& endpoint) {
    const std::string scheme = opcTcp;
    if (endpoint.size() <= scheme.size() || endpoint.compare(0, scheme.size(), scheme) != 0 ||
        endpoint.find_first_of("#?, ") != std::string::npos)
        throw UsageError("bad endpoint " + inQuotes(endpoint) + ": expected opc.tcp://HOST:PORT");
    return endpoint.substr(scheme.size());
}

std::string endpointOrDefault(const Common& common) {
    return common.endpoint.empty() ? defaultEndpoint : common.endpoint;
}

bool inMap(const Common& common, const std::string& name) {
    return !common.map || common.map->types.count(name) || common.map->interfaces.count(name);
}

std::string variableNode(const Common& common, const std::string& type) {
    if (!common.map) return variableNodeId(type);
    const auto it = common.map->types.find(type);
    if (it == common.map->types.end()) throw UsageError(type + " is not in the map " + inQuotes(common.map->file));
    return it->second;
}

MethodNodes methodNodes(const Common& common, const std::string& iface, const std::string& method) {
    if (!common.map) return {objectNodeId(iface), methodNodeId(iface, method)};
    const auto it = common.map->interfaces.find(iface);
    if (it == common.map->interfaces.end())
        throw UsageError(iface + " is not in the map " + inQuotes(common.map->file));
    return it->second;
}

std::string psUri(const Common& common, const std::string& type) {
    if (!common.uri.empty()) return common.uri;
    return "opcua-ps://" + authorityOf(endpointOrDefault(common)) + "#" + percentEncoded(variableNode(common, type));
}

std::string rrUri(const Common& common, const std::string& iface, const std::string& method) {
    if (!common.uri.empty()) return common.uri;
    const MethodNodes nodes = methodNodes(common, iface, method);
    return "opcua-rr://" + authorityOf(endpointOrDefault(common)) + "#" + percentEncoded(nodes.object) + "," +
           percentEncoded(nodes.method);
}

std::shared_ptr<vesk::duvo::opcua::detail::OpcUaDuvo> makeDuvo(const Common& common,
                                                               std::map<std::string, std::string> properties) {
    // A call made before the session is up waits no longer than the command's own bound.
    properties.emplace("opc.asyncCallSubmitTimeoutMs", std::to_string(common.timeoutMs));
    for (const auto& [key, value] : common.security) properties[key] = value;
    if (common.trustServer) trustServer(endpointOrDefault(common), common.security);
    return std::make_shared<vesk::duvo::opcua::detail::OpcUaDuvo>(std::move(properties));
}

void trustServer(const std::string& endpoint, const std::map<std::string, std::string>& security) {
    size_t count = 0;
    UA_EndpointDescription* endpoints = nullptr;
    const UA_StatusCode rc = vesk::duvo::pki::discoverEndpoints(endpoint, 5000, &count, &endpoints);
    std::string certificate;
    for (size_t i = 0; rc == UA_STATUSCODE_GOOD && i < count && certificate.empty(); ++i)
        certificate.assign(reinterpret_cast<const char*>(endpoints[i].serverCertificate.data),
                           endpoints[i].serverCertificate.length);
    if (rc == UA_STATUSCODE_GOOD) UA_Array_delete(endpoints, count, &UA_TYPES[UA_TYPES_ENDPOINTDESCRIPTION]);
    if (rc != UA_STATUSCODE_GOOD)
        throw std::runtime_error("cannot ask " + endpoint + " for its certificate: " + UA_StatusCode_name(rc));
    if (certificate.empty())
        throw std::runtime_error(endpoint + " has no certificate to trust (it offers no security)");
    const auto dir =
        security.count("opc.security.pkiDir") ? security.at("opc.security.pkiDir") : vesk::duvo::pki::defaultDir();
    const std::string thumbprint = vesk::duvo::pki::thumbprint(certificate);
    const std::string path = dir + "/trusted/" + thumbprint + ".der";
    std::cerr << "trusting the certificate of " << endpoint << ", SHA-1 " << thumbprint << ", as " << path << std::endl;
    vesk::duvo::pki::writeFile(path, certificate);
}

void waitForConnection(vesk::duvo::opcua::detail::OpcUaDuvo& duvo, const std::string& uri, long timeoutMs) {
    waitForEndpoint(duvo, vesk::duvo::opcua::UriHelper::endpointOf(uri), timeoutMs);
}

void waitForEndpoint(vesk::duvo::opcua::detail::OpcUaDuvo& duvo, const std::string& endpoint, long timeoutMs) {
    // The entities of this endpoint share this client, so its state is theirs.
    const auto client = duvo.getClient(endpoint, duvo.properties());
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!client->isConnected()) {
        // A refusal (an untrusted server, a refused user) was logged once: it tells what to do.
        if (std::chrono::steady_clock::now() >= deadline)
            throw std::runtime_error(
                withLastProblem("cannot connect to " + endpoint + " within " + std::to_string(timeoutMs) + " ms"));
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

double elapsedMs(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

std::string msText(double ms) {
    char text[32];
    std::snprintf(text, sizeof text, "%.2f", ms);
    return text;
}

void catchStopSignals() {
    struct sigaction action {};
    action.sa_handler = &onStopSignal;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

bool stopRequested() { return stopFlag.load(); }

std::string takeLastProblem() { return lastProblem ? lastProblem->take() : std::string(); }

std::string withLastProblem(const std::string& message) {
    const std::string problem = takeLastProblem();
    return problem.empty() ? message : message + "; last problem: " + problem;
}

} // namespace m2ctl
