#pragma once
// One simulator and one client of it for the simulator's tests.
#include <mutex>
#include <stdexcept>

#include <vesk/duvo/sim/simulator.hpp>

#include "support/rawClient.hpp"
#include "support/waits.hpp"

namespace duvo::simtest {

using namespace duvo::test;

inline vesk::duvo::sim::Options quietOptions() {
    vesk::duvo::sim::Options options;
    options.logLevel = UA_LOGLEVEL_ERROR;
    return options;
}

/// One simulator for the tests that only touch their own nodes, started on first use.
inline vesk::duvo::sim::Simulator& sharedSimulator() {
    static vesk::duvo::sim::Simulator simulator(quietOptions());
    static std::once_flag started;
    std::call_once(started, [] { simulator.start(); });
    return simulator;
}

/// A client of the shared simulator, connected on first use: connecting and disconnecting
/// cost a tenth of a second each, too much for every case of a catalogue-wide test.
inline const RawClient& sharedClient() {
    sharedSimulator(); // constructed first, so destroyed after the client
    static RawClient client(sharedSimulator().endpoint());
    return client;
}

} // namespace duvo::simtest
