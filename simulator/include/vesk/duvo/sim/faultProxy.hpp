#pragma once
// A loopback TCP proxy that sits between a client and a server and misbehaves on request,
// so that tests can see how a client copes with slow, silent or vanishing servers.
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace vesk::duvo::sim {

/// A proxy in front of one endpoint whose mode decides how it forwards.
class FaultProxy {
public:
    /// How the proxy treats its connections.
    enum class Mode {
        PassThrough, ///< forward both ways
        Delay,       ///< hold every server-to-client byte for the delay
        DelaySome,   ///< hold the replies to some requests for the delay, pass the rest
        Blackhole,   ///< forward requests, drop every reply; the connections stay open
        CloseAll,    ///< close every connection and every new one at once
    };

    /// Listens on 127.0.0.1:listenPort (0 picks a free port) and forwards to the host and
    /// port of targetEndpoint ("opc.tcp://host:port", the scheme being optional).
    /// Throws std::system_error when it cannot listen or resolve the target.
    explicit FaultProxy(const std::string& targetEndpoint, std::uint16_t listenPort = 0);
    /// Closes every connection and the listening socket.
    ~FaultProxy();
    FaultProxy(const FaultProxy&) = delete;
    FaultProxy& operator=(const FaultProxy&) = delete;

    /// The port it listens on.
    std::uint16_t port() const;
    /// "opc.tcp://127.0.0.1:<port>" followed by the target's path, if any.
    std::string endpoint() const;

    /// Forwards both ways (the mode it starts in).
    void passThrough();
    /// Holds every server-to-client byte for the delay.
    void delayReplies(std::chrono::milliseconds delay);
    /// Holds the replies to requests that contain these bytes (a node's name, say) for the
    /// delay; the other replies overtake them, as a server that answers some services late.
    /// Unencrypted connections only: it reads and renumbers the message headers.
    void delayRepliesTo(const std::string& requestBytes, std::chrono::milliseconds delay);
    /// Leaving this mode closes the connections that lost replies: their byte streams are
    /// no longer whole.
    void blackhole();
    /// Closes every connection, and each new one until another mode is set.
    void closeAll();
    /// The current mode.
    Mode mode() const;

    /// Client connections currently open.
    std::size_t connections() const;

    /// Looks for the text in the bytes that clients send from now on; found() tells.
    void lookFor(const std::string& text);
    bool found() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace vesk::duvo::sim
