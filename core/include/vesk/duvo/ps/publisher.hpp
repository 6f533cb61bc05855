#pragma once
#include <chrono>
#include <memory>

#include <vesk/duvo/middleware.hpp>

namespace vesk::duvo::ps {

/// Publishes samples of one instance of T.
template <class T>
class InstancePublisher {
public:
    virtual ~InstancePublisher() = default;
    virtual void publish(const T& sample, const std::chrono::milliseconds& timeout) = 0;
    /// timestamp: source time in seconds since the Unix epoch.
    virtual void publish(double timestamp, const T& sample, const std::chrono::milliseconds& timeout) = 0;
    virtual std::shared_ptr<T> createDataEntity() = 0;
    virtual std::shared_ptr<Duvo> getDuvo() const = 0;
    virtual void close() = 0;
};

/// Publishes samples of T. A timeout of 0 returns at once without waiting for the result.
template <class T>
class Publisher {
public:
    virtual ~Publisher() = default;
    virtual std::shared_ptr<Duvo> getDuvo() const = 0;
    virtual std::unique_ptr<InstancePublisher<T>> createInstancePublisher(const T& instance) = 0;
    virtual void publish(const T& sample, const std::chrono::milliseconds& timeout) = 0;
    /// timestamp: source time in seconds since the Unix epoch.
    virtual void publish(double timestamp, const T& sample, const std::chrono::milliseconds& timeout) = 0;
    virtual std::shared_ptr<T> createDataEntity() = 0;
    virtual void close() = 0;
};

} // namespace vesk::duvo::ps
