#pragma once
// The class lives with the public headers, since m2ctl check configures its plain client by it.
#include <vesk/duvo/opcua/detail/security.hpp>
