#pragma once
#include <memory>

#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>

#include <vesk/duvo/exceptions.hpp>

namespace vesk::duvo::opcua::detail::binding {

/// The generated binding class of a module class T; specialised for every module type.
template <class T>
struct BindingOf;

template <class T>
using BindingOf_t = typename BindingOf<T>::type;

/// Creates and recognises the binding objects of T.
template <class T>
struct __attribute__((visibility("default"))) DuvoOpcUaTraits {
    /// A new default-valued sample.
    static std::unique_ptr<T> makeImpl();
    /// True when p is a sample of this binding.
    static bool isImpl(const T* p);
};

// Defined out of the class, so that they are not inline: the plug-in exports them, and
// inline members would be hidden with the rest.
template <class T>
std::unique_ptr<T> DuvoOpcUaTraits<T>::makeImpl() {
    return std::make_unique<BindingOf_t<T>>();
}

template <class T>
bool DuvoOpcUaTraits<T>::isImpl(const T* p) {
    return p != nullptr && dynamic_cast<const BindingOf_t<T>*>(p) != nullptr;
}

} // namespace vesk::duvo::opcua::detail::binding

namespace vesk::duvo::opcua::detail::ps {

/// A new default-valued sample of the binding class.
template <class ST>
std::unique_ptr<ST> createDataEntityImpl(log4cplus::Logger& /*logger*/) {
    return std::make_unique<ST>();
}

/// The sample that every entity hands to the application: always a binding object.
template <class T, class ST>
std::shared_ptr<T> createDataEntityInternal(log4cplus::Logger& logger) {
    // A separate control block: the sample is deleted with plain delete, like any other T.
    return std::shared_ptr<T>(createDataEntityImpl<ST>(logger).release());
}

/// The application's sample seen as its binding; a sample of another binding is refused.
template <class T, class ST>
const ST& obtainImpl(const T& data, log4cplus::Logger& logger) {
    if (const auto* impl = dynamic_cast<const ST*>(&data)) return *impl;
    const char* const message = "data type for instance or value is incorrect. Not a OpcUa supported type";
    LOG4CPLUS_ERROR(logger, message);
    throw vesk::duvo::IllegalStateException(message);
}

} // namespace vesk::duvo::opcua::detail::ps
