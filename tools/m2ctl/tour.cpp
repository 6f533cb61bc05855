// m2ctl tour: publishes and reads back every type and calls every interface through the
// plug-in loaded by name, against the embedded simulator or a device, and prints one table.
#include <chrono>
#include <cstdio>
#include <iostream>
#include <memory>
#include <optional>
#include <tuple>

#include <vesk/duvo/rr/qos.hpp>
#include <vesk/duvo/sim/simulator.hpp>

#include "arguments.hpp"
#include "cli.hpp"
#include "commands.hpp"

namespace m2ctl {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

struct TourRow {
    const char* kind;
    std::string name;
    bool ok = false;
    double ms = 0;
    std::string sent;     // text form
    std::string sentJson; // JSON form
    std::string error;
};

struct Tour {
    Common common;
    long replyTimeMs = 3000;
    std::shared_ptr<vesk::duvo::opcua::detail::OpcUaDuvo> duvo;
    /// The embedded simulator, which also shows what each call brought; null for a device.
    vesk::duvo::sim::Simulator* simulator = nullptr;
};

/// The next sample's value, or nothing when none comes before the deadline.
template <class T>
std::optional<typename T::value_type> nextValue(vesk::duvo::ps::Subscriber<T>& subscriber, Clock::time_point deadline) {
    const vesk::duvo::ps::DataEventFilter<T> any;
    std::vector<std::shared_ptr<vesk::duvo::ps::DataEvent<T>>> events;
    while (Clock::now() < deadline) {
        events.clear();
        subscriber.readDataEvents(any, events, 1,
                                  std::chrono::duration_cast<milliseconds>(deadline - Clock::now()) + milliseconds(1));
        for (const auto& event : events)
            if (event->hasValidData()) return event->getData()->getValue0();
    }
    return std::nullopt;
}

/// Publishes a distinctive value and waits until the subscriber receives it; the time is
/// from the publish call to the arrival.
template <class T>
TourRow tourType(const Tour& tour) {
    using Value = typename T::value_type;
    TourRow row{"type", T::typeName};
    const std::string uri = psUri(tour.common, T::typeName);
    const milliseconds timeout(tour.common.timeoutMs);
    Value value = distinctValue<Value>(0, T::nominalLength);
    takeLastProblem(); // the previous row's
    try {
        const auto subscriber = tour.duvo->template createSubscriber<T>(uri);
        const auto publisher = tour.duvo->template createPublisher<T>(uri);
        // The first sample is the variable's present value; a value it already holds would
        // raise no notification, so another one is sent then.
        const auto present = nextValue(*subscriber, Clock::now() + timeout);
        if (!present)
            throw std::runtime_error(
                withLastProblem("no sample received within " + std::to_string(timeout.count()) + " ms"));
        if (*present == value) value = distinctValue<Value>(1, T::nominalLength);

        const auto sample = publisher->createDataEntity();
        sample->setValue0(value);
        const auto start = Clock::now();
        publisher->publish(*sample, timeout);
        for (;;) {
            const auto received = nextValue(*subscriber, start + timeout);
            if (!received)
                throw std::runtime_error(
                    withLastProblem("published value not received within " + std::to_string(timeout.count()) + " ms"));
            if (*received == value) break;
        }
        row.ms = elapsedMs(start);
        row.ok = true;
        subscriber->close();
        publisher->close();
    } catch (const std::exception& e) {
        row.error = e.what();
    }
    row.sent = formatValue(value);
    row.sentJson = formatValue(value, true);
    return row;
}

/// Calls the method synchronously with distinctive arguments; on the embedded simulator it
/// also checks that exactly those arguments arrived.
template <class Row>
TourRow tourInterface(const Tour& tour) {
    const std::string name = Row::Methods::interfaceName;
    const std::string method = Row::Methods::methodName;
    TourRow row{"interface", name};
    const auto arguments = distinctArguments<Row>();
    row.sent = "(" + formatArguments(arguments) + ")";
    row.sentJson = "[" + formatArguments(arguments, true) + "]";
    vesk::duvo::opcua::detail::OpcUaDuvo::RrQoSList qos;
    if (tour.replyTimeMs > 0)
        qos.push_back(std::make_shared<vesk::duvo::rr::qos::ReplyTime>(milliseconds(tour.replyTimeMs)));
    try {
        const auto client = tour.duvo->template createClient<typename Row::Sync>(rrUri(tour.common, name, method), qos);
        const std::size_t before = tour.simulator ? tour.simulator->calls(name).count : 0;
        const auto start = Clock::now();
        const bool result = std::apply([&](const auto&... a) { return Row::invoke(*client, a...); }, arguments);
        row.ms = elapsedMs(start);
        client->close();
        if (!result) throw std::runtime_error(method + " returned false");
        if (tour.simulator) {
            const auto record = tour.simulator->calls(name);
            if (record.count != before + 1)
                throw std::runtime_error("the simulator counted " + std::to_string(record.count - before) + " calls");
            if (!sameArguments(record.lastArguments, arguments))
                throw std::runtime_error("the simulator received other arguments");
        }
        row.ok = true;
    } catch (const std::exception& e) {
        row.error = e.what();
    }
    return row;
}

std::string clipped(const std::string& text, std::size_t width) {
    if (text.size() <= width) return text;
    std::size_t cut = width - 3;
    // Never inside a UTF-8 sequence.
    while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80) --cut;
    return text.substr(0, cut) + "...";
}

void printRow(const TourRow& row) {
    std::printf("%-9s %-30s %-6s %8s  %s\n", row.kind, row.name.c_str(), row.ok ? "ok" : "FAILED",
                row.ok ? msText(row.ms).c_str() : "-", row.ok ? clipped(row.sent, 60).c_str() : row.error.c_str());
    std::fflush(stdout);
}

std::string jsonRow(const TourRow& row) {
    return "\n  {\"kind\":" + inQuotes(row.kind) + ",\"name\":" + inQuotes(row.name) +
           ",\"ok\":" + (row.ok ? "true" : "false") + ",\"ms\":" + (row.ok ? msText(row.ms) : "null") +
           ",\"sent\":" + row.sentJson + ",\"error\":" + (row.ok ? "null" : inQuotes(row.error)) + "}";
}

} // namespace

int tourCommand(int argc, char** argv) {
    Tour tour;
    po::options_description options("Options");
    options.add_options()("reply-time,r", po::value<long>(&tour.replyTimeMs)->default_value(3000)->value_name("MS"),
                          "how long each call waits for its reply (0: no bound)");
    addCommonOptions(options, tour.common, {true, false, true, true});
    const CommandLine line = parseCommandLine(
        "m2ctl tour [options]\n"
        "Starts the embedded simulator on a free port (or uses --endpoint), then, through the plug-in loaded\n"
        "by name, publishes a distinctive value of each of the 24 types and reads it back with a subscriber,\n"
        "and calls each of the 23 interfaces synchronously, checking the result (and, on the embedded\n"
        "simulator, the arguments that arrived). Prints one table and a summary; exit code 0 when all passed.",
        options, argc, argv, &tour.common);
    if (line.help) return 0;
    if (!line.args.empty()) throw UsageError("tour takes no arguments, got " + inQuotes(line.args[0]));
    if (tour.replyTimeMs < 0) throw UsageError("bad reply time: it cannot be negative");

    std::unique_ptr<vesk::duvo::sim::Simulator> simulator;
    if (tour.common.endpoint.empty()) {
        vesk::duvo::sim::Options sim;
        sim.logLevel = line.vm.count("verbose") ? UA_LOGLEVEL_WARNING : UA_LOGLEVEL_ERROR;
        simulator = std::make_unique<vesk::duvo::sim::Simulator>(sim);
        simulator->start();
        tour.common.endpoint = simulator->endpoint();
        tour.simulator = simulator.get();
    } else {
        authorityOf(tour.common.endpoint);
    }
    // Every sample counts, so the monitored items report each change as it is written.
    tour.duvo = makeDuvo(tour.common, {{"opc.ps.pollingPeriodMs", "0"}});
    const std::string plugin = tour.duvo->pluginLoader().path();
    waitForEndpoint(*tour.duvo, tour.common.endpoint, tour.common.timeoutMs);

    const std::string where = tour.common.endpoint + (simulator ? " (embedded simulator)" : "");
    if (!tour.common.json) {
        std::printf("m2ctl tour: %s through %s\n", where.c_str(), plugin.c_str());
        std::printf("%-9s %-30s %-6s %8s  %s\n", "KIND", "NAME", "RESULT", "MS", "SENT (or why it failed)");
    }
    const auto start = Clock::now();
    std::vector<TourRow> rows;
    const auto add = [&](TourRow row) {
        if (!tour.common.json) printRow(row);
        rows.push_back(std::move(row));
    };
    // A device's map may leave entities out; those are skipped.
    forEach(DataTypes{}, [&](auto tag) {
        using T = typename decltype(tag)::type;
        if (inMap(tour.common, T::typeName)) add(tourType<T>(tour));
    });
    forEach(InterfaceRows{}, [&](auto tag) {
        using Row = typename decltype(tag)::type;
        if (inMap(tour.common, Row::Methods::interfaceName)) add(tourInterface<Row>(tour));
    });
    const double totalMs = elapsedMs(start);

    std::size_t passed = 0, types = 0;
    std::string failed;
    for (const auto& row : rows) {
        types += std::string(row.kind) == "type" ? 1 : 0;
        if (row.ok)
            ++passed;
        else
            failed += (failed.empty() ? "" : ", ") + row.name;
    }
    if (tour.common.json) {
        std::string list;
        for (const auto& row : rows) list += (list.empty() ? "" : ",") + jsonRow(row);
        std::cout << "{\"endpoint\":" << inQuotes(tour.common.endpoint)
                  << ",\"embeddedSimulator\":" << (simulator ? "true" : "false") << ",\"plugin\":" << inQuotes(plugin)
                  << ",\"rows\":[" << list << "\n],\"types\":" << types << ",\"interfaces\":" << rows.size() - types
                  << ",\"passed\":" << passed << ",\"failed\":" << rows.size() - passed << ",\"ms\":" << msText(totalMs)
                  << "}\n";
    } else {
        std::printf("%zu of %zu passed (%zu types published and read back, %zu interfaces called) in %s ms\n", passed,
                    rows.size(), types, rows.size() - types, msText(totalMs).c_str());
    }
    std::cout.flush();
    tour.duvo.reset();
    if (passed != rows.size())
        throw std::runtime_error(std::to_string(rows.size() - passed) + " of " + std::to_string(rows.size()) +
                                 " failed: " + failed);
    return 0;
}

} // namespace m2ctl
