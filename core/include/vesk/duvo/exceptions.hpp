#pragma once
#include <stdexcept>
#include <string>

namespace vesk::duvo {

/// Base of the middleware's own errors; catching std::runtime_error catches them all.
class DuvoException : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// An entity used before it was initialised, after it was closed, or with a foreign sample.
class IllegalStateException : public DuvoException {
public:
    using DuvoException::DuvoException;
};

/// A wait that ran out of time.
class TimeoutException : public DuvoException {
public:
    using DuvoException::DuvoException;
};

} // namespace vesk::duvo
