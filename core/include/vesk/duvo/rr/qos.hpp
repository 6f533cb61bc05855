#pragma once
#include <chrono>

namespace vesk::duvo::rr::qos {

/// A quality-of-service setting of a request/reply entity.
class QoS {
public:
    /// Destroys the setting.
    virtual ~QoS();
};

/// How long a caller waits for a reply.
class ReplyTime : public QoS {
public:
    /// How long a synchronous call waits for its reply.
    explicit ReplyTime(std::chrono::milliseconds value) noexcept : value_(value) {}
    /// The duration given.
    std::chrono::milliseconds getValue() const noexcept { return value_; }

private:
    std::chrono::milliseconds value_;
};

} // namespace vesk::duvo::rr::qos
