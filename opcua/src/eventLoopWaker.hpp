#pragma once
#include <atomic>

#include <open62541/plugin/eventloop.h>

namespace vesk::duvo::opcua::detail {

/// Wakes an open62541 EventLoop that is waiting for network events. open62541 1.4 has no call
/// for that (timed and delayed callbacks added from another thread wait for the next event),
/// so the loop's TCP connection manager opens a loopback connection to a socket of ours, and
/// a byte written to it ends the wait. Its data is discarded.
class EventLoopWaker {
public:
    EventLoopWaker() = default;
    EventLoopWaker(const EventLoopWaker&) = delete;
    EventLoopWaker& operator=(const EventLoopWaker&) = delete;
    ~EventLoopWaker();

    /// Starts the loop if needed and connects; false when that fails (wake() then does nothing).
    bool open(UA_EventLoop* loop);
    /// False once the loop has closed the connection (or it never opened).
    bool usable() const { return fd_ >= 0 && !closed_.load(); }
    /// Ends the loop's current or next wait. Thread-safe, never blocks.
    void wake();

private:
    static void onConnection(UA_ConnectionManager* cm, uintptr_t connectionId, void* application, void** context,
                             UA_ConnectionState state, const UA_KeyValueMap* params, UA_ByteString msg);
    int fd_ = -1; // set once by open(), closed by the destructor
    std::atomic<bool> closed_{false};
};

} // namespace vesk::duvo::opcua::detail
