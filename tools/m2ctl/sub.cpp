// m2ctl sub: prints the samples of one type as they arrive (monitored item or polling), or
// its most recent value at a period.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <thread>

#include <vesk/duvo/util.hpp>

#include "catalogue.hpp"
#include "cli.hpp"
#include "commands.hpp"

namespace m2ctl {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

struct SubOptions {
    std::string mode = "monitor";
    long periodMs = -1;
    unsigned long count = 0;
    double durationS = 0;
};

/// One line per sample; in mrv mode the time is the read's, since the store keeps no source time.
template <class T>
void printSample(const Common& common, const typename T::value_type& value, double seconds, bool sourceTime) {
    if (common.json) {
        std::cout << "{\"type\":" << inQuotes(T::typeName) << (sourceTime ? ",\"sourceTime\":" : ",\"readTime\":")
                  << inQuotes(isoTime(seconds)) << ",\"value\":" << formatValue(value, true) << "}\n";
    } else {
        std::cout << isoTime(seconds) << (sourceTime ? "  " : " (read)  ") << T::typeName << " = " << formatValue(value)
                  << '\n';
    }
    std::cout.flush();
}

/// Sleeps until the time point, waking for a stop signal.
void sleepUntil(Clock::time_point until) {
    while (!stopRequested() && Clock::now() < until)
        std::this_thread::sleep_for(std::min<Clock::duration>(until - Clock::now(), milliseconds(20)));
}

template <class T>
int subscribe(const Common& common, const SubOptions& o) {
    const std::string uri = psUri(common, T::typeName);
    std::map<std::string, std::string> properties;
    if (o.mode == "poll") {
        properties["opc.ps.usePollSubscriber"] = "true";
        properties["opc.ps.pollingPeriodMs"] = std::to_string(o.periodMs < 0 ? 500 : o.periodMs);
    } else {
        // Monitoring: the period is the sampling interval, 0 for every change.
        properties["opc.ps.pollingPeriodMs"] = std::to_string(o.mode == "monitor" && o.periodMs > 0 ? o.periodMs : 0);
    }
    const auto duvo = makeDuvo(common, properties);
    catchStopSignals();
    const auto end =
        o.durationS > 0
            ? Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(o.durationS))
            : Clock::time_point::max();
    unsigned long received = 0;
    const auto more = [&] { return !stopRequested() && Clock::now() < end && (o.count == 0 || received < o.count); };

    if (o.mode == "mrv") {
        const auto subscriber = duvo->template createMrvSubscriber<T>(uri);
        waitForConnection(*duvo, uri, common.timeoutMs);
        const milliseconds period(o.periodMs < 0 ? 500 : o.periodMs);
        while (more()) {
            const auto samples = subscriber->readMostRecent(milliseconds(0));
            const double now = static_cast<double>(vesk::duvo::util::currentTimeMillis()) / 1000.0;
            for (const auto& sample : samples) printSample<T>(common, sample->getValue0(), now, false);
            received += samples.empty() ? 0 : 1;
            // Until the first value arrives, look again soon.
            sleepUntil(std::min(end, Clock::now() + (samples.empty() ? milliseconds(10) : period)));
        }
        subscriber->close();
    } else {
        const auto subscriber = duvo->template createSubscriber<T>(uri);
        waitForConnection(*duvo, uri, common.timeoutMs);
        const vesk::duvo::ps::DataEventFilter<T> any;
        std::vector<std::shared_ptr<vesk::duvo::ps::DataEvent<T>>> events;
        while (more()) {
            events.clear();
            const auto wait = std::min<Clock::duration>(end - Clock::now(), milliseconds(100));
            subscriber->readDataEvents(any, events, 1, std::chrono::duration_cast<milliseconds>(wait));
            for (const auto& event : events) {
                if (event->hasValidData()) {
                    printSample<T>(common, event->getData()->getValue0(), event->getSourceTimestamp(), true);
                    ++received;
                } else if (!common.json) {
                    std::cout << isoTime(event->getSourceTimestamp()) << "  " << T::typeName
                              << ": no data (not alive)\n";
                    std::cout.flush();
                }
            }
        }
        subscriber->close();
    }
    if (o.count > 0 && received < o.count && !stopRequested())
        throw std::runtime_error(withLastProblem("received " + std::to_string(received) + " of " +
                                                 std::to_string(o.count) + " samples of " + T::typeName + " within " +
                                                 formatElement(o.durationS) + " s"));
    return 0;
}

} // namespace

int subCommand(int argc, char** argv) {
    Common common;
    SubOptions o;
    po::options_description options("Options");
    options.add_options()("mode,m", po::value<std::string>(&o.mode)->default_value("monitor")->value_name("MODE"),
                          "monitor (every change, monitored item), poll (read every period) or mrv (most recent value, "
                          "read every period)")(
        "period,p", po::value<long>(&o.periodMs)->value_name("MS"),
        "monitor: sampling interval (default 0: every change); poll and mrv: read period (default 500)")(
        "count,n", po::value<unsigned long>(&o.count)->default_value(0)->value_name("N"),
        "stop after N samples (0: no limit)")(
        "duration,d", po::value<double>(&o.durationS)->default_value(0)->value_name("S"),
        "stop after S seconds (0: no limit); with --count, fewer samples is a failure");
    addCommonOptions(options, common, {});
    const CommandLine line = parseCommandLine(
        "m2ctl sub TYPE [options]\n"
        "Prints the samples of TYPE with their source time until --count, --duration, Ctrl-C or SIGTERM.\n"
        "With --json, one JSON object per line.",
        options, argc, argv, &common);
    if (line.help) return 0;
    if (line.args.size() != 1) throw UsageError("sub needs exactly one type (see m2ctl list)");
    if (o.mode != "monitor" && o.mode != "poll" && o.mode != "mrv")
        throw UsageError("bad mode " + inQuotes(o.mode) + ": expected monitor, poll or mrv");
    if (line.vm.count("period") && o.periodMs < 0) throw UsageError("bad period: it cannot be negative");
    if (o.mode != "monitor" && line.vm.count("period") && o.periodMs == 0)
        throw UsageError("bad period: " + o.mode + " needs a period above 0");
    if (o.durationS < 0) throw UsageError("bad duration: it cannot be negative");
    int rc = 0;
    if (!visitByName(DataTypes{}, line.args[0],
                     [&](auto tag) { rc = subscribe<typename decltype(tag)::type>(common, o); }))
        throw UsageError("unknown type " + inQuotes(line.args[0]) + " (m2ctl list shows the 24 types)");
    return rc;
}

} // namespace m2ctl
