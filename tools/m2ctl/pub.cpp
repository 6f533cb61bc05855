// m2ctl pub: publishes one sample and waits for the write result.
#include <chrono>
#include <iostream>
#include <optional>

#include "catalogue.hpp"
#include "cli.hpp"
#include "commands.hpp"

namespace m2ctl {

namespace {

template <class T>
int publishOnce(const Common& common, const std::vector<std::string>& values, std::optional<double> timestamp) {
    // The value is checked before anything goes on the network.
    const auto value = parseValue<T>(values);
    const std::string uri = psUri(common, T::typeName);
    const auto duvo = makeDuvo(common);
    const auto publisher = duvo->template createPublisher<T>(uri);
    waitForConnection(*duvo, uri, common.timeoutMs);

    const auto sample = publisher->createDataEntity();
    sample->setValue0(value);
    const std::chrono::milliseconds timeout(common.timeoutMs);
    const auto start = std::chrono::steady_clock::now();
    try {
        if (timestamp)
            publisher->publish(*timestamp, *sample, timeout);
        else
            publisher->publish(*sample, timeout);
    } catch (const std::exception& e) {
        throw std::runtime_error(std::string("cannot publish ") + T::typeName + " to " + uri + ": " + e.what());
    }
    const double ms = elapsedMs(start);
    publisher->close();

    if (common.json) {
        std::cout << "{\"type\":" << inQuotes(T::typeName) << ",\"uri\":" << inQuotes(uri)
                  << ",\"value\":" << formatValue(value, true)
                  << ",\"timestamp\":" << (timestamp ? formatElement(*timestamp, true) : std::string("null"))
                  << ",\"ok\":true,\"ms\":" << msText(ms) << "}\n";
    } else {
        std::cout << T::typeName << " = " << formatValue(value) << " written to " << uri << " in " << msText(ms)
                  << " ms\n";
    }
    return 0;
}

} // namespace

int pubCommand(int argc, char** argv) {
    Common common;
    double timestamp = 0;
    po::options_description options("Options");
    options.add_options()("timestamp", po::value<double>(&timestamp)->value_name("SECONDS"),
                          "source time of the sample, seconds since 1970 (default: now)");
    addCommonOptions(options, common, {});
    const CommandLine line = parseCommandLine(
        "m2ctl pub TYPE VALUE... [options]\n"
        "Publishes one sample of TYPE to its variable and waits for the write result.\n"
        "A vector takes one value per argument or one comma-separated argument (\"\" for an empty one);\n"
        "a Boolean is true, false, 1 or 0. Example: m2ctl pub M2FloatVector6 1,2,3,4,5,6",
        options, argc, argv, &common);
    if (line.help) return 0;
    if (line.args.empty()) throw UsageError("pub needs a type and its value (see m2ctl list)");
    const std::string type = line.args[0];
    const std::vector<std::string> values(line.args.begin() + 1, line.args.end());
    const std::optional<double> stamp = line.vm.count("timestamp") ? std::optional<double>(timestamp) : std::nullopt;
    int rc = 0;
    if (!visitByName(DataTypes{}, type,
                     [&](auto tag) { rc = publishOnce<typename decltype(tag)::type>(common, values, stamp); }))
        throw UsageError("unknown type " + inQuotes(type) + " (m2ctl list shows the 24 types)");
    return rc;
}

} // namespace m2ctl
