#pragma once
// A two-field sample type: no m2Types structure has more than one field, so the paths that
// spread one sample over several OPC UA nodes are reached only through this type.
#include <cstddef>
#include <cstdint>
#include <memory>

#include <open62541/types.h>

#include <duvo/opcua/detail/ps/mrvSubscriber.hpp>
#include <duvo/opcua/detail/ps/publisher.hpp>
#include <duvo/opcua/detail/ps/subscriber.hpp>
#include <generated/opcua/m2Types/entryPoints.hpp>
#include <vesk/duvo/opcua/detail/binding/ensureCorrectType.hpp>
#include <vesk/duvo/opcua/detail/ps/opcUaDataEntity.hpp>
#include <vesk/duvo/ps/dataEntity.hpp>

namespace duvo::test {

/// The abstract type, as a module would declare it: a counter and a level.
class Pair : public virtual vesk::duvo::ps::DataEntity<Pair> {
public:
    virtual std::int32_t getCount() const = 0;
    virtual void setCount(std::int32_t count) = 0;
    virtual float getLevel() const = 0;
    virtual void setLevel(float level) = 0;
};

/// Its OPC UA binding: the counter on an Int32 node, the level on a Float node.
class PairBinding : public Pair, public vesk::duvo::opcua::detail::ps::OpcUaDataEntity<Pair> {
public:
    static constexpr std::size_t fieldCount = 2;

    PairBinding(std::int32_t count = 0, float level = 0) : count_(count), level_(level) { clearValues(); }
    PairBinding(const PairBinding& other) : PairBinding(other.count_, other.level_) {}
    PairBinding& operator=(const PairBinding& other) {
        count_ = other.count_;
        level_ = other.level_;
        return *this;
    }

    std::unique_ptr<Pair> clone() const override { return std::make_unique<PairBinding>(*this); }
    bool keyEquals(const Pair&) const override { return false; }
    std::unique_ptr<Pair> cloneKey() const override { return std::make_unique<PairBinding>(); }
    bool hasKey() const override { return false; }

    std::int32_t getCount() const override { return count_; }
    void setCount(std::int32_t count) override { count_ = count; }
    float getLevel() const override { return level_; }
    void setLevel(float level) override { level_ = level; }

    std::size_t getDataValueCount() const override { return fieldCount; }

    /// Both values are checked before either field changes.
    void setOpcUaDataValues(const UA_DataValue* values) override {
        using vesk::duvo::opcua::detail::binding::EnsureScalar;
        EnsureScalar("duvo::test::Pair.count", values[0].value, &UA_TYPES[UA_TYPES_INT32]);
        EnsureScalar("duvo::test::Pair.level", values[1].value, &UA_TYPES[UA_TYPES_FLOAT]);
        count_ = *static_cast<const UA_Int32*>(values[0].value.data);
        level_ = *static_cast<const UA_Float*>(values[1].value.data);
    }

    const UA_DataValue* getOpcUaDataValues() const override {
        clearValues();
        borrow(values_[0], &count_, &UA_TYPES[UA_TYPES_INT32]);
        borrow(values_[1], &level_, &UA_TYPES[UA_TYPES_FLOAT]);
        return values_;
    }

    void copy(const Pair& other) override {
        count_ = other.getCount();
        level_ = other.getLevel();
    }

private:
    void clearValues() const {
        for (auto& value : values_) UA_DataValue_init(&value);
    }
    static void borrow(UA_DataValue& value, const void* field, const UA_DataType* type) {
        UA_Variant_setScalar(&value.value, const_cast<void*>(field), type);
        value.value.storageType = UA_VARIANT_DATA_NODELETE;
        value.hasValue = true;
    }

    std::int32_t count_;
    float level_;
    mutable UA_DataValue values_[fieldCount];
};

/// An entity of Pair, made as the plug-in's entry points make theirs: Entity is one of
/// OpcUaSubscriber, OpcUaMrvSubscriber and OpcUaPublisher, Delegator its delegator.
template <template <class, class> class Delegator, template <class, class> class Entity>
std::unique_ptr<Delegator<Pair, PairBinding>>
makePair(const std::string& uri, const vesk::duvo::Duvo::Properties& properties,
         const std::shared_ptr<vesk::duvo::opcua::detail::OpcUaDuvo>& duvo) {
    return std::unique_ptr<Delegator<Pair, PairBinding>>(
        generated::opcua::m2Types::entry::createDelegated<Delegator<Pair, PairBinding>, Entity<Pair, PairBinding>>(
            uri, {}, properties, duvo));
}
inline auto pairSubscriber(const std::string& uri, const vesk::duvo::Duvo::Properties& properties,
                           const std::shared_ptr<vesk::duvo::opcua::detail::OpcUaDuvo>& duvo) {
    using namespace vesk::duvo::opcua::detail::ps;
    return makePair<OpcUaSubscriberDelegator, OpcUaSubscriber>(uri, properties, duvo);
}

} // namespace duvo::test
