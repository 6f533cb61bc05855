#include <vesk/duvo/opcua/detail/ps/opcUaDataEntity.hpp>

namespace vesk::duvo::opcua::detail::ps {
OpcUaSerializer::~OpcUaSerializer() = default;
} // namespace vesk::duvo::opcua::detail::ps
