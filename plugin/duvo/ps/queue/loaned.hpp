#pragma once
#include <memory>
#include <utility>

#include <vesk/duvo/ps/dataEntity.hpp>

namespace vesk::duvo::ps::queue {

/// A sample lent by a loaned read. The sample is already the application's (shared), so
/// returning the loan has nothing to give back.
template <class T, class ST>
class NoopLoanedDataEntityImpl final : public LoanedDataEntity<T> {
public:
    explicit NoopLoanedDataEntityImpl(std::shared_ptr<T> data) : data_(std::move(data)) {}
    /// The sample, or empty when nothing was queued.
    std::shared_ptr<T> getData() const override { return data_; }
    void close() override {}

private:
    std::shared_ptr<T> data_;
};

} // namespace vesk::duvo::ps::queue
