#pragma once
#include <cstddef>
#include <memory>
#include <type_traits>

#include <open62541/types.h>

#include <duvo/opcua/detail/binding/fieldBinding.hpp>
#include <vesk/duvo/opcua/detail/ps/opcUaDataEntity.hpp>

namespace vesk::duvo::opcua::detail::binding {

/// The behaviour of every generated sample class, written once: Self is the generated
/// class, T the module class it implements. The sample travels as one OPC UA value.
template <class Self, class T>
class SampleBinding : public T, public ps::OpcUaDataEntity<T> {
public:
    using field_type = typename T::field_type;
    using value_type = typename T::value_type;
    using param_type = ::m2Types::detail::param_t<value_type>;
    /// What a conversion to OPC UA writes besides the values (string descriptors).
    using Scratch = typename FieldBinding<field_type>::Scratch;

    /// Number of OPC UA nodes (one per field) that carry a sample.
    static constexpr std::size_t fieldCount = 1;

    SampleBinding() noexcept { UA_DataValue_init(&dataValue); }

    std::unique_ptr<T> clone() const override { return std::make_unique<Self>(static_cast<const Self&>(*this)); }
    // No m2Types structure has key fields: no two samples are the same instance.
    bool keyEquals(const T&) const override { return false; }
    std::unique_ptr<T> cloneKey() const override { return std::make_unique<Self>(); }
    bool hasKey() const override { return false; }

    value_type getValue0() const override { return field_.get(); }
    void setValue0(param_type value) override { field_.set(value); }

    std::size_t getDataValueCount() const override { return fieldCount; }

    void setOpcUaDataValues(const UA_DataValue* values) override { field_.fromVariant(Self::context, values[0].value); }

    /// As setOpcUaDataValues, for values that the caller owns and gives up: a numeric array
    /// is taken over instead of copied (and left empty in values).
    void takeOpcUaDataValues(UA_DataValue* values) {
        if constexpr (::m2Types::detail::swappable_v<field_type>)
            field_.takeFromVariant(Self::context, values[0].value);
        else
            field_.fromVariant(Self::context, values[0].value);
    }

    const UA_DataValue* getOpcUaDataValues() const override {
        writeOpcUaDataValues(&dataValue, scratch_);
        return &dataValue;
    }

    /// The values, borrowing the sample's memory, written into the caller's storage: threads
    /// that publish one sample at the same time share nothing. Memory exhaustion throws
    /// std::bad_alloc.
    void writeOpcUaDataValues(UA_DataValue* values, Scratch& callScratch) const {
        UA_DataValue_init(&values[0]);
        field_.toVariant(values[0].value, callScratch);
        values[0].hasValue = true;
    }

    void copy(const T& other) override { field_.set(other.getValue0()); }

    const FieldBinding<field_type>& getField() const noexcept { return field_; }

protected:
    FieldBinding<field_type> field_;
    mutable UA_DataValue dataValue;
    mutable Scratch scratch_{}; // getOpcUaDataValues' descriptors
};

/// Numeric vectors also exchange their buffer with the application's.
template <class Self, class T>
class VectorSampleBinding : public SampleBinding<Self, T> {
public:
    void swapValue0(typename T::value_type& value) override { this->field_.swap(value); }
};

template <class Self, class T>
using SampleBindingOf = std::conditional_t<::m2Types::detail::swappable_v<typename T::field_type>,
                                           VectorSampleBinding<Self, T>, SampleBinding<Self, T>>;

} // namespace vesk::duvo::opcua::detail::binding
