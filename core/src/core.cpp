// Key functions of the core interfaces, so that their type information lives in one library.
#include <vesk/duvo/duvo.hpp>

namespace vesk::duvo {
Duvo::~Duvo() = default;
namespace ps {
DataEntityBase::~DataEntityBase() = default;
Subscription::~Subscription() = default;
qos::QoS::~QoS() = default;
} // namespace ps
namespace rr {
RrEntity::~RrEntity() = default;
ClientRrEntity::~ClientRrEntity() = default;
qos::QoS::~QoS() = default;
} // namespace rr
} // namespace vesk::duvo
