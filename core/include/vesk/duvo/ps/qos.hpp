#pragma once
#include <chrono>

namespace vesk::duvo::ps::qos {

/// A quality-of-service setting of a publish/subscribe entity.
class QoS {
public:
    /// Destroys the setting.
    virtual ~QoS();
};

/// Samples whose source time lies more than this before their reception are discarded.
class Latency : public QoS {
public:
    /// The largest accepted age of a sample on arrival.
    explicit Latency(std::chrono::milliseconds value) noexcept : value_(value) {}
    /// The duration given.
    std::chrono::milliseconds getValue() const noexcept { return value_; }

private:
    std::chrono::milliseconds value_;
};

/// Samples older than this are discarded on arrival and purged from queues.
class Deadline : public QoS {
public:
    /// The age after which a sample is discarded.
    explicit Deadline(std::chrono::milliseconds value) noexcept : value_(value) {}
    /// The duration given.
    std::chrono::milliseconds getValue() const noexcept { return value_; }

private:
    std::chrono::milliseconds value_;
};

} // namespace vesk::duvo::ps::qos
