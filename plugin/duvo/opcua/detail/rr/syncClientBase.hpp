#pragma once
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <boost/thread/future.hpp>

#include <vesk/duvo/exceptions.hpp>
#include <vesk/duvo/opcua/client.hpp>
#include <vesk/duvo/opcua/opcuaDuvo.hpp>
#include <vesk/duvo/rr/qos.hpp>
#include <vesk/duvo/rr/rrEntity.hpp>
#include <vesk/duvo/util.hpp>

namespace vesk::duvo::opcua::detail::rr {

/// Waits on asynchronous calls for at most the reply time of the QoS list (without one, for
/// as long as the call takes).
class SyncClientBase : public virtual vesk::duvo::rr::ClientRrEntity {
public:
    SyncClientBase(const std::string& /*uri*/, const std::vector<std::shared_ptr<vesk::duvo::rr::qos::QoS>>& qos,
                   const std::map<std::string, std::string>& /*properties*/, const std::shared_ptr<OpcUaDuvo>& duvo)
        : duvo_(duvo) {
        const long reply = vesk::duvo::util::getReplyTimeQoS(qos);
        if (reply != 2147483647) replyTimeout_ = reply;
    }

    /// client: the one the call went to (null: just wait), which this thread drives meanwhile.
    template <class R>
    R unpackAsync(const std::shared_ptr<OpcUaClient>& client, boost::future<R>&& future) const {
        if (!future.valid()) throw boost::future_uninitialized();
        if (client && !replyTimeout_) awaitReply(*client, future, boost::chrono::steady_clock::time_point::max());
        if (replyTimeout_) {
            const auto deadline = boost::chrono::steady_clock::now() + boost::chrono::milliseconds(*replyTimeout_);
            if ((client ? awaitReply(*client, future, deadline) : future.wait_until(deadline)) !=
                boost::future_status::ready)
                throw vesk::duvo::TimeoutException("timeout when waiting for data");
            try {
                return future.get();
            } catch (const vesk::duvo::TimeoutException&) {
                // The call's own deadline is the same instant as ours and may fire first.
                throw vesk::duvo::TimeoutException("timeout when waiting for data");
            }
        }
        return future.get();
    }

    const std::optional<std::int64_t>& getReplyTimeout() const noexcept { return replyTimeout_; }

protected:
    std::shared_ptr<OpcUaDuvo> duvo_;
    std::optional<std::int64_t> replyTimeout_;
};

} // namespace vesk::duvo::opcua::detail::rr
