#pragma once
#include <cstddef>

#include <open62541/types.h>

#include <vesk/duvo/ps/dataEntity.hpp>

namespace vesk::duvo::opcua::detail::ps {

/// Converts a sample to and from the OPC UA values of its nodes, one value per field.
class OpcUaSerializer : public virtual vesk::duvo::ps::DataEntityBase {
public:
    ~OpcUaSerializer() override;
    virtual std::size_t getDataValueCount() const = 0;
    /// Fills the sample from getDataValueCount() values, in field order.
    virtual void setOpcUaDataValues(const UA_DataValue* values) = 0;
    /// The sample's values, in field order; they borrow the sample's memory and stay valid
    /// until the sample is changed or destroyed.
    virtual const UA_DataValue* getOpcUaDataValues() const = 0;
};

/// A sample of T that travels over OPC UA.
template <class T>
class OpcUaDataEntity : public virtual vesk::duvo::ps::DataEntity<T>, public virtual OpcUaSerializer {
public:
    /// Sets this sample's fields from any implementation of T.
    virtual void copy(const T& other) = 0;
};

} // namespace vesk::duvo::opcua::detail::ps
