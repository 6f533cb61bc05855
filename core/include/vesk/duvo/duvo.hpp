#pragma once
// The middleware core API.
#include <vesk/duvo/exceptions.hpp>
#include <vesk/duvo/middleware.hpp>
#include <vesk/duvo/ps/dataEntity.hpp>
#include <vesk/duvo/ps/dataEvent.hpp>
#include <vesk/duvo/ps/publisher.hpp>
#include <vesk/duvo/ps/qos.hpp>
#include <vesk/duvo/ps/subscriber.hpp>
#include <vesk/duvo/rr/qos.hpp>
#include <vesk/duvo/rr/rrEntity.hpp>
#include <vesk/duvo/shared_vector.hpp>
#include <vesk/duvo/util.hpp>
