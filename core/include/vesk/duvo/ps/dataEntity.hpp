#pragma once
#include <memory>

namespace vesk::duvo::ps {

/// Root of every sample class.
class DataEntityBase {
public:
    /// Destroys the sample.
    virtual ~DataEntityBase();
};

/// A sample of type T, as the application sees it.
template <class T>
class DataEntity : public virtual DataEntityBase {
public:
    /// Destroys the sample.
    ~DataEntity() override = default;
    /// A deep copy of the sample.
    virtual std::unique_ptr<T> clone() const = 0;
    /// True when both samples belong to the same instance (equal key fields).
    virtual bool keyEquals(const T& other) const = 0;
    /// A new sample holding only this sample's key fields.
    virtual std::unique_ptr<T> cloneKey() const = 0;
    /// Whether the type has key fields (the m2Types types have none).
    virtual bool hasKey() const = 0;
};

/// A sample lent to the application by a reader.
template <class T>
class LoanedDataEntity {
public:
    /// Gives the sample back if close() was not called.
    virtual ~LoanedDataEntity() = default;
    /// The lent sample.
    virtual std::shared_ptr<T> getData() const = 0;
    /// Gives the sample back to the reader.
    virtual void close() = 0;
};

} // namespace vesk::duvo::ps
