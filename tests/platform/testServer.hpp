#pragma once
// A real open62541 server in the test process, on a free loopback port.
#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <thread>

#include <open62541/server.h>

namespace duvo::test {

/// Nodes (namespace 1): variables "Double", "Int32", "String"; object "Methods" with
/// "Methods.Sleep" (UInt32 ms -> UInt32 ms; sleeps that long in the server's thread, so the
/// whole server is slow meanwhile).
class TestServer {
public:
    TestServer();
    ~TestServer();
    std::string endpoint() const { return "opc.tcp://127.0.0.1:" + std::to_string(port_); }

    /// stop() closes every connection; start() serves again on the same port, with fresh nodes.
    void start();
    void stop();
    /// Stops answering while the connections stay open, as a hung peer (returns once it has).
    void pause();
    void resume() { paused_ = false; }

    void writeDouble(const char* node, double value);
    /// Monitored items created and deleted on a node since the fixture started.
    int itemsCreated(const std::string& node);
    int itemsDeleted(const std::string& node);

private:
    static void onItem(UA_Server*, const UA_NodeId*, void*, const UA_NodeId* nodeId, void*, UA_UInt32,
                       UA_Boolean removed);
    void addNodes();
    void poke();

    UA_UInt16 port_;
    UA_Server* server_ = nullptr;
    std::thread thread_;
    std::atomic<bool> running_{false};
    std::atomic<bool> paused_{false};
    std::atomic<bool> idle_{false};
    std::mutex countsMutex_;
    std::map<std::string, std::pair<int, int>> counts_;
};

/// A loopback port where nothing listens.
unsigned freePort();

} // namespace duvo::test
