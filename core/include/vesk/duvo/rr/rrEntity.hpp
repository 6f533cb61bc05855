#pragma once
#include <functional>
#include <memory>

#include <vesk/duvo/middleware.hpp>

namespace vesk::duvo::rr {

/// Root of every request/reply entity.
class RrEntity {
public:
    /// Destroys the entity.
    virtual ~RrEntity();
    /// The middleware instance that created it.
    virtual std::shared_ptr<Duvo> getDuvo() const = 0;
    /// Releases the entity; later calls throw.
    virtual void close() = 0;
};

/// The calling side of a request/reply interface.
class ClientRrEntity : public virtual RrEntity {
public:
    /// Destroys the client.
    ~ClientRrEntity() override;
    /// Starts a connection attempt now instead of waiting for the next one.
    virtual void asyncConnect() = 0;
    /// The listener gets true on connect and false on loss; calling (or destroying) the
    /// returned function unregisters it.
    virtual std::function<void()> registerConnectionListener(std::function<void(bool)> listener) = 0;
};

} // namespace vesk::duvo::rr
