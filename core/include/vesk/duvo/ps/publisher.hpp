#pragma once
#include <chrono>
#include <memory>

#include <vesk/duvo/middleware.hpp>

namespace vesk::duvo::ps {

/// Publishes samples of one instance of T.
template <class T>
class InstancePublisher {
public:
    /// Destroys the publisher.
    virtual ~InstancePublisher() = default;
    /// Writes the sample, the current time its source time; waits up to timeout for the result.
    virtual void publish(const T& sample, const std::chrono::milliseconds& timeout) = 0;
    /// timestamp: source time in seconds since the Unix epoch.
    virtual void publish(double timestamp, const T& sample, const std::chrono::milliseconds& timeout) = 0;
    /// A new sample of T to fill and publish.
    virtual std::shared_ptr<T> createDataEntity() = 0;
    /// The middleware instance that created it.
    virtual std::shared_ptr<Duvo> getDuvo() const = 0;
    /// Releases the entity; later calls throw.
    virtual void close() = 0;
};

/// Publishes samples of T. A timeout of 0 returns at once without waiting for the result.
template <class T>
class Publisher {
public:
    /// Destroys the publisher.
    virtual ~Publisher() = default;
    /// The middleware instance that created it.
    virtual std::shared_ptr<Duvo> getDuvo() const = 0;
    /// A publisher bound to the instance that the sample's key fields name.
    virtual std::unique_ptr<InstancePublisher<T>> createInstancePublisher(const T& instance) = 0;
    /// Writes the sample, the current time its source time; waits up to timeout for the result.
    virtual void publish(const T& sample, const std::chrono::milliseconds& timeout) = 0;
    /// timestamp: source time in seconds since the Unix epoch.
    virtual void publish(double timestamp, const T& sample, const std::chrono::milliseconds& timeout) = 0;
    /// A new sample of T to fill and publish.
    virtual std::shared_ptr<T> createDataEntity() = 0;
    /// Releases the entity; later calls throw.
    virtual void close() = 0;
};

} // namespace vesk::duvo::ps
