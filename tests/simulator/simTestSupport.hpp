#pragma once
// One simulator and one client of it for the simulator's tests.
#include <chrono>
#include <mutex>
#include <stdexcept>
#include <thread>

#include <vesk/duvo/sim/simulator.hpp>

#include "support/rawClient.hpp"

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

/// Polls cond until it holds or the bound passes.
template <class Cond>
bool eventually(Cond cond, std::chrono::milliseconds bound = std::chrono::seconds(5)) {
    const auto deadline = std::chrono::steady_clock::now() + bound;
    while (!cond()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

} // namespace duvo::simtest
