#pragma once
// Many devices from one process: endpoints, each with a server of its own, a publisher and a
// monitored subscriber. Runs in a fresh process, so that its threads and resident memory are
// its own.
#include <cstddef>
#include <string>

namespace duvo::bench {

struct EndpointsResult {
    double threads = 0;            // threads the process gained for all endpoints
    double bytesPerEndpoint = 0;   // resident memory gained per endpoint
    double p99HealthyUs = 0;       // synchronous publish to the others, every endpoint healthy
    double p99OneBlackholedUs = 0; // the same while the last endpoint answers nothing
};

/// In the child: "ours" (entities through the loaded plug-in) or "raw" (one open62541 client per
/// endpoint with a monitored item, all driven by this thread; no isolation figures). Prints one
/// line for the parent; returns the exit code.
int endpointsMain(const std::string& self, const std::string& kind, std::size_t count);

/// In the parent: runs this program (self) as such a child and reads its line.
EndpointsResult runEndpoints(const std::string& self, const std::string& kind, std::size_t count);

} // namespace duvo::bench
