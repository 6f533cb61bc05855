// m2-soak: publishers, subscribers and callers at a steady rate against an embedded simulator
// that is restarted periodically, for a given time; prints what was done, what failed and
// how the process's memory moved. Everything goes through the plug-in, loaded by name.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <boost/program_options.hpp>
#include <log4cplus/logger.h>
#include <log4cplus/nullappender.h>

#include <m2Types/m2Types.hpp>
#include <vesk/duvo/opcua/opcuaDuvo.hpp>
#include <vesk/duvo/sim/nodeLayout.hpp>
#include <vesk/duvo/sim/simulator.hpp>

namespace {

namespace po = boost::program_options;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using vesk::duvo::opcua::detail::OpcUaDuvo;

std::atomic<bool> stopRequested{false};
extern "C" void onStopSignal(int) { stopRequested.store(true); }

struct Settings {
    double durationS = 600;
    double restartEveryS = 30;
    long outageMs = 1000;
    double rate = 50;
    double reportEveryS = 60;
    std::uint16_t port = 0;
};

/// Resident memory of this process in KiB, from /proc.
long residentKiB() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
    return -1;
}

/// What one activity did: operations, failures by their leading words, and extra counts.
class Tally {
public:
    explicit Tally(std::string name) : name(std::move(name)) {}
    void ok() { ++done; }
    void failed(const std::string& text) {
        ++failures;
        // The failure's kind: the text up to its first ':', without the details.
        const std::string kind = text.substr(0, std::min(text.find(':'), std::size_t(60)));
        std::lock_guard<std::mutex> lock(mutex_);
        ++kinds_[kind];
    }
    std::map<std::string, long> failureKinds() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return kinds_;
    }

    const std::string name;
    std::atomic<long> done{0};
    std::atomic<long> failures{0};
    std::atomic<long> samples{0};
    std::atomic<long> notAlive{0};

private:
    mutable std::mutex mutex_;
    std::map<std::string, long> kinds_;
};

/// Runs step at a steady rate on its own thread until told to stop.
class Activity {
public:
    Activity(double rate, std::function<void()> step)
        : thread_([this, rate, step = std::move(step)] {
              const auto period =
                  std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(1.0 / rate));
              auto next = Clock::now();
              while (!stop_.load()) {
                  step();
                  next += period;
                  const auto now = Clock::now();
                  if (next < now) next = now; // a slow step does not cause a burst after it
                  std::this_thread::sleep_until(next);
              }
          }) {}
    ~Activity() { stop(); }
    void stop() {
        stop_ = true;
        if (thread_.joinable()) thread_.join();
    }

private:
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

template <class F>
void attempt(Tally& tally, F operation) {
    try {
        operation();
        tally.ok();
    } catch (const std::exception& e) {
        tally.failed(e.what());
    }
}

vesk::duvo::shared_vector<const double> doubles(std::size_t n, double seed) {
    vesk::duvo::shared_vector<double> v(n);
    for (std::size_t i = 0; i < n; ++i) v[i] = seed + static_cast<double>(i);
    return vesk::duvo::freeze(std::move(v));
}

template <class Sub>
void countEvents(Sub& subscriber, Tally& tally) {
    using T = m2Types::M2Int32Value0;
    std::vector<std::shared_ptr<vesk::duvo::ps::DataEvent<T>>> events;
    subscriber.readDataEvents(vesk::duvo::ps::DataEventFilter<T>(), events, 100000, 0ms);
    for (const auto& event : events) {
        if (event->getInstanceState() == vesk::duvo::ps::InstanceState::NotAlive)
            ++tally.notAlive;
        else if (event->hasValidData())
            ++tally.samples;
    }
}

int run(const Settings& settings) {
    vesk::duvo::sim::Options simOptions;
    simOptions.port = settings.port;
    simOptions.logLevel = UA_LOGLEVEL_FATAL; // every restart makes the stack complain
    vesk::duvo::sim::Simulator simulator(simOptions);
    simulator.start();
    const std::string endpoint = simulator.endpoint();
    const auto psUri = [&](const std::string& variable) { return vesk::duvo::sim::pubSubUri(endpoint, variable); };
    const auto rrUri = [&](const std::string& iface, const std::string& method) {
        return vesk::duvo::sim::rpcUri(endpoint, iface, method);
    };

    // Monitoring and polling are chosen by the middleware's properties: one middleware each.
    // The polling period is also each read's deadline, and a read that misses it is reported as
    // not alive: 200 ms keeps a busy machine's slow reads from counting as outages.
    auto monitoring = std::make_shared<OpcUaDuvo>(
        OpcUaDuvo::Properties{{"opc.ps.pollingPeriodMs", "0"}, {"opc.asyncCallSubmitTimeoutMs", "500"}});
    auto polling = std::make_shared<OpcUaDuvo>(
        OpcUaDuvo::Properties{{"opc.ps.usePollSubscriber", "true"}, {"opc.ps.pollingPeriodMs", "200"}});
    const OpcUaDuvo::RrQoSList replyTime{std::make_shared<vesk::duvo::rr::qos::ReplyTime>(1000ms)};

    auto vectorPublisher = monitoring->createPublisher<m2Types::M2FloatVector6>(psUri("M2FloatVector6"));
    auto stringPublisher = monitoring->createPublisher<m2Types::M2StringVector15>(psUri("M2StringVector15"));
    auto monitored = monitoring->createSubscriber<m2Types::M2Int32Value0>(psUri("M2Int32Value0"));
    auto polled = polling->createSubscriber<m2Types::M2Int32Value0>(psUri("M2Int32Value0"));
    auto mostRecent = monitoring->createMrvSubscriber<m2Types::M2Int32Value0>(psUri("M2Int32Value0"));
    auto syncCaller =
        monitoring->createClient<m2Types::PsRpcSetpowerSync>(rrUri("PsRpcSetpower", "RPC_SetPower"), replyTime);
    auto asyncCaller = monitoring->createClient<m2Types::WhRpcForceSetpointAsync>(
        rrUri("WhRpcForceSetpoint", "RPC_ForceSetpoint"), replyTime);

    Tally device("device writes"), vectors("publish M2FloatVector6"), strings("publish M2StringVector15 (no wait)"),
        monitoredReads("monitored subscriber"), polledReads("polled subscriber"), mrvReads("most-recent value"),
        syncCalls("sync call PsRpcSetpower"), asyncCalls("async call WhRpcForceSetpoint");
    std::atomic<long> restarts{0};

    const long rssStart = residentKiB();
    std::printf("m2-soak: %s, %.0f s, restart every %.0f s (outage %ld ms), %.0f operations/s per activity\n",
                simulator.endpoint().c_str(), settings.durationS, settings.restartEveryS, settings.outageMs,
                settings.rate);
    std::printf("resident memory at start: %.1f MiB\n", rssStart / 1024.0);
    std::fflush(stdout);

    const auto start = Clock::now();
    {
        std::vector<std::unique_ptr<Activity>> activities;
        const double rate = settings.rate;
        activities.push_back(std::make_unique<Activity>(rate, [&, i = std::int32_t(0)]() mutable {
            UA_Variant v;
            ++i;
            UA_Variant_setScalar(&v, &i, &UA_TYPES[UA_TYPES_INT32]);
            attempt(device, [&] { simulator.write("M2Int32Value0", v); });
        }));
        activities.push_back(std::make_unique<Activity>(rate, [&, i = 0]() mutable {
            auto sample = vectorPublisher->createDataEntity();
            vesk::duvo::shared_vector<float> v(6);
            for (int k = 0; k < 6; ++k) v[k] = static_cast<float>(++i);
            sample->setValue0(vesk::duvo::freeze(std::move(v)));
            attempt(vectors, [&] { vectorPublisher->publish(*sample, 500ms); });
        }));
        activities.push_back(std::make_unique<Activity>(rate, [&, i = 0]() mutable {
            auto sample = stringPublisher->createDataEntity();
            sample->setValue0(std::vector<std::string>(15, "soak " + std::to_string(++i)));
            attempt(strings, [&] { stringPublisher->publish(*sample, 0ms); });
        }));
        activities.push_back(std::make_unique<Activity>(
            rate, [&] { attempt(monitoredReads, [&] { countEvents(*monitored, monitoredReads); }); }));
        activities.push_back(std::make_unique<Activity>(
            rate, [&] { attempt(polledReads, [&] { countEvents(*polled, polledReads); }); }));
        activities.push_back(std::make_unique<Activity>(rate, [&] {
            attempt(mrvReads, [&] { mrvReads.samples += static_cast<long>(mostRecent->readMostRecent(0ms).size()); });
        }));
        activities.push_back(std::make_unique<Activity>(rate, [&, on = false]() mutable {
            on = !on;
            attempt(syncCalls, [&] { syncCaller->RPC_SetPower(on); });
        }));
        activities.push_back(std::make_unique<Activity>(rate, [&, i = 0]() mutable {
            auto call = asyncCaller->RPC_ForceSetpoint(doubles(15, ++i));
            attempt(asyncCalls, [&] {
                if (call.wait_for(boost::chrono::seconds(5)) != boost::future_status::ready)
                    throw std::runtime_error("no completion within 5 s");
                call.get();
            });
        }));

        const auto end =
            start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(settings.durationS));
        const auto restartEvery =
            std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(settings.restartEveryS));
        const auto reportEvery =
            std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(settings.reportEveryS));
        auto nextRestart = start + restartEvery;
        auto nextReport = start + reportEvery;
        while (!stopRequested.load() && Clock::now() < end) {
            const auto now = Clock::now();
            if (settings.restartEveryS > 0 && now >= nextRestart &&
                now + std::chrono::milliseconds(settings.outageMs) < end) {
                simulator.stop();
                std::this_thread::sleep_for(std::chrono::milliseconds(settings.outageMs));
                simulator.start();
                ++restarts;
                nextRestart = Clock::now() + restartEvery;
            }
            if (now >= nextReport) {
                const long ops = vectors.done + strings.done + monitoredReads.done + polledReads.done + mrvReads.done +
                                 syncCalls.done + asyncCalls.done;
                const long failures = vectors.failures + strings.failures + monitoredReads.failures +
                                      polledReads.failures + mrvReads.failures + syncCalls.failures +
                                      asyncCalls.failures;
                std::printf("  %5.0f s: %ld operations, %ld failed, %ld restarts, resident %.1f MiB\n",
                            std::chrono::duration<double>(now - start).count(), ops, failures, restarts.load(),
                            residentKiB() / 1024.0);
                std::fflush(stdout);
                nextReport += reportEvery;
            }
            std::this_thread::sleep_for(20ms);
        }
        for (auto& activity : activities) activity->stop();
    }
    countEvents(*monitored, monitoredReads);
    countEvents(*polled, polledReads);
    const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();

    // Flow after the last restart: one more value must reach both queued subscribers.
    bool flowing = true;
    std::int32_t last = 1 << 30;
    UA_Variant v;
    UA_Variant_setScalar(&v, &last, &UA_TYPES[UA_TYPES_INT32]);
    try {
        simulator.write("M2Int32Value0", v);
    } catch (const std::exception&) {
        flowing = false;
    }
    for (auto* subscriber : {monitored.get(), polled.get()}) {
        bool seen = false;
        const auto until = Clock::now() + 5s;
        while (!seen && Clock::now() < until)
            for (const auto& sample : subscriber->read(0)) seen = seen || (sample && sample->getValue0() == last);
        flowing = flowing && seen;
    }

    vectorPublisher->close();
    stringPublisher->close();
    monitored->close();
    polled->close();
    mostRecent->close();
    syncCaller->close();
    asyncCaller->close();
    const long rssEnd = residentKiB();

    std::printf("\nafter %.0f s with %ld restarts:\n", elapsed, restarts.load());
    std::printf("  %-36s %12s %10s %10s %9s\n", "activity", "operations", "failures", "samples", "not-alive");
    long totalOps = 0, totalFailures = 0;
    for (const Tally* t : {&vectors, &strings, &monitoredReads, &polledReads, &mrvReads, &syncCalls, &asyncCalls}) {
        std::printf("  %-36s %12ld %10ld %10ld %9ld\n", t->name.c_str(), t->done.load(), t->failures.load(),
                    t->samples.load(), t->notAlive.load());
        totalOps += t->done;
        totalFailures += t->failures;
        for (const auto& [kind, count] : t->failureKinds()) std::printf("      %8ld x %s\n", count, kind.c_str());
    }
    std::printf("  %-36s %12ld %10ld   (while the server was away)\n", device.name.c_str(), device.done.load(),
                device.failures.load());
    std::printf("  total: %ld operations (%.0f/s), %ld failures\n", totalOps, totalOps / elapsed, totalFailures);
    std::printf("resident memory: start %.1f MiB, end %.1f MiB (%+.1f MiB)\n", rssStart / 1024.0, rssEnd / 1024.0,
                (rssEnd - rssStart) / 1024.0);
    std::printf("samples after the last restart: %s\n", flowing ? "yes" : "NO");
    const bool outagesReported = monitoredReads.notAlive == restarts && polledReads.notAlive == restarts;
    std::printf("one not-alive sample per outage per queued subscriber: %s\n", outagesReported ? "yes" : "NO");
    return flowing && outagesReported ? 0 : 1;
}

} // namespace

int main(int argc, char** argv) {
    Settings settings;
    po::options_description options(
        "m2-soak [options]\n"
        "Publishes, subscribes (monitored, polled, most-recent value) and calls at a steady rate against an\n"
        "embedded m2Types simulator that it restarts periodically; prints operations, failures, restarts and\n"
        "resident memory. Exits 1 when data stopped flowing or an outage went unreported.\n\nOptions");
    options.add_options()("help,h", "this text")(
        "duration,d", po::value<double>(&settings.durationS)->default_value(600)->value_name("SECONDS"),
        "how long to run")("restart-every,r",
                           po::value<double>(&settings.restartEveryS)->default_value(30)->value_name("SECONDS"),
                           "stop and restart the server this often, 0 never")(
        "outage,o", po::value<long>(&settings.outageMs)->default_value(1000)->value_name("MS"),
        "how long the server stays away")("rate", po::value<double>(&settings.rate)->default_value(50)->value_name("N"),
                                          "operations per second per activity")(
        "report-every", po::value<double>(&settings.reportEveryS)->default_value(60)->value_name("SECONDS"),
        "print a progress line this often")("port,p",
                                            po::value<std::uint16_t>(&settings.port)->default_value(0)->value_name("N"),
                                            "simulator port, 0 for a free one");
    try {
        po::variables_map vm;
        po::store(po::parse_command_line(argc, argv, options), vm);
        po::notify(vm);
        if (vm.count("help")) {
            std::cout << options << std::endl;
            return 0;
        }
        if (settings.durationS <= 0 || settings.rate <= 0 || settings.reportEveryS <= 0 || settings.outageMs < 0 ||
            settings.restartEveryS < 0)
            throw po::error("durations and the rate must be positive");
    } catch (const po::error& e) {
        std::cerr << "m2-soak: " << e.what() << "\n" << options << std::endl;
        return 2;
    }
    // Entities log each failure; the tally counts them instead.
    log4cplus::Logger::getRoot().addAppender(log4cplus::SharedAppenderPtr(new log4cplus::NullAppender()));
    std::signal(SIGINT, onStopSignal);
    std::signal(SIGTERM, onStopSignal);
    try {
        return run(settings);
    } catch (const std::exception& e) {
        std::cerr << "m2-soak: " << e.what() << std::endl;
        return 2;
    }
}
