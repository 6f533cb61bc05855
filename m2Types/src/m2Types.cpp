// Key functions of the module classes, so that their type information lives in one library.
#include <m2Types/m2Types.hpp>

namespace m2Types {

#define M2TYPES_DEFINE_TYPE(Name, ...) Name::~Name() = default;
M2TYPES_DATA_CATALOGUE(M2TYPES_DEFINE_TYPE)
#undef M2TYPES_DEFINE_TYPE

#define M2TYPES_DEFINE_INTERFACE(Iface, ...)                                                                           \
    Iface::~Iface() = default;                                                                                         \
    Async##Iface::~Async##Iface() = default;                                                                           \
    Iface##Sync::~Iface##Sync() = default;                                                                             \
    Iface##Async::~Iface##Async() = default;
M2TYPES_INTERFACE_CATALOGUE(M2TYPES_DEFINE_INTERFACE)
#undef M2TYPES_DEFINE_INTERFACE

} // namespace m2Types
