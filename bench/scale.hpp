#pragma once
// Many subscribers on one client: each count runs in a fresh process, so that the resident
// memory it adds is not hidden by what earlier figures freed.
#include <cstddef>
#include <string>

namespace duvo::bench {

struct ScaleResult {
    double creationMs = 0; // creating them until every one holds its first sample
    double bytesPerSubscriber = 0;
    double deliveryMs = 0; // one write until every one holds the new value
};

/// In the child: "ours" (subscribers created through the loaded plug-in) or "raw" (monitored
/// items of one open62541 client). Prints one line for the parent; returns the exit code.
int scaleMain(const std::string& kind, std::size_t count, const std::string& endpoint);

/// In the parent: runs this program (self) as such a child and reads its line.
ScaleResult runScale(const std::string& self, const std::string& kind, std::size_t count, const std::string& endpoint);

} // namespace duvo::bench
