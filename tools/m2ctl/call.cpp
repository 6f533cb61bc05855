// m2ctl call: calls one interface's method, synchronously or asynchronously.
#include <chrono>
#include <iostream>
#include <memory>
#include <tuple>

#include <vesk/duvo/rr/qos.hpp>

#include "arguments.hpp"
#include "cli.hpp"
#include "commands.hpp"

namespace m2ctl {

namespace {

template <class Row>
int callOnce(const Common& common, const std::vector<std::string>& args, bool async, long replyTimeMs) {
    const std::string name = Row::Methods::interfaceName;
    const std::string method = Row::Methods::methodName;
    const auto arguments = parseArguments<Row>(args);
    const std::string uri = rrUri(common, name, method);
    const auto duvo = makeDuvo(common);
    vesk::duvo::opcua::detail::OpcUaDuvo::RrQoSList qos;
    if (replyTimeMs > 0)
        qos.push_back(std::make_shared<vesk::duvo::rr::qos::ReplyTime>(std::chrono::milliseconds(replyTimeMs)));

    bool result = false;
    double ms = 0;
    const auto invoke = [&](auto& client) {
        waitForConnection(*duvo, uri, common.timeoutMs);
        const auto start = std::chrono::steady_clock::now();
        try {
            result = std::apply(
                [&](const auto&... a) {
                    if constexpr (std::is_same_v<decltype(Row::invoke(client, a...)), bool>)
                        return Row::invoke(client, a...);
                    else
                        return Row::invoke(client, a...).get();
                },
                arguments);
        } catch (const std::exception& e) {
            throw std::runtime_error("call of " + name + "." + method + " failed: " + e.what());
        }
        ms = elapsedMs(start);
        client.close();
    };
    if (async)
        invoke(*duvo->template createClient<typename Row::Async>(uri, qos));
    else
        invoke(*duvo->template createClient<typename Row::Sync>(uri, qos));

    if (common.json) {
        std::cout << "{\"interface\":" << inQuotes(name) << ",\"method\":" << inQuotes(method)
                  << ",\"uri\":" << inQuotes(uri) << ",\"async\":" << (async ? "true" : "false") << ",\"arguments\":["
                  << formatArguments(arguments, true) << "],\"result\":" << (result ? "true" : "false")
                  << ",\"ms\":" << msText(ms) << "}\n";
    } else {
        std::cout << name << "." << method << "(" << formatArguments(arguments) << ") -> "
                  << (result ? "true" : "false") << " in " << msText(ms) << " ms" << (async ? " (async)" : "") << '\n';
    }
    std::cout.flush();
    if (!result) throw std::runtime_error(name + "." + method + " returned false");
    return 0;
}

} // namespace

int callCommand(int argc, char** argv) {
    Common common;
    bool async = false;
    long replyTimeMs = 3000;
    po::options_description options("Options");
    options.add_options()("async,a", po::bool_switch(&async),
                          "call through the asynchronous client and wait on its future")(
        "reply-time,r", po::value<long>(&replyTimeMs)->default_value(3000)->value_name("MS"),
        "how long to wait for the reply (0: no bound)");
    addCommonOptions(options, common, {});
    const CommandLine line = parseCommandLine(
        "m2ctl call INTERFACE ARGUMENT... [options]\n"
        "Calls the interface's method with the arguments and prints its Boolean result (exit code 1 when\n"
        "false). Give all values as separate arguments or all in one comma-separated argument; a vector\n"
        "parameter takes the values the others leave. Example: m2ctl call OpRpcSystemBuiltInTest 1 -2 300",
        options, argc, argv, &common);
    if (line.help) return 0;
    if (line.args.empty()) throw UsageError("call needs an interface and its arguments (see m2ctl list)");
    if (replyTimeMs < 0) throw UsageError("bad reply time: it cannot be negative");
    const std::string iface = line.args[0];
    const std::vector<std::string> args(line.args.begin() + 1, line.args.end());
    int rc = 0;
    if (!visitByName(InterfaceRows{}, iface,
                     [&](auto tag) { rc = callOnce<typename decltype(tag)::type>(common, args, async, replyTimeMs); }))
        throw UsageError("unknown interface " + inQuotes(iface) + " (m2ctl list shows the 23 interfaces)");
    return rc;
}

} // namespace m2ctl
