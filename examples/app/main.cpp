// Publishes a sample, reads it back, and calls a method of a device laid out like m2-sim
// (or of m2-sim itself).
//   m2-example [HOST:PORT]        default 127.0.0.1:4840
#include <chrono>
#include <iostream>
#include <memory>
#include <string>

#include <log4cplus/configurator.h>
#include <log4cplus/initializer.h>

#include <m2Types/m2Types.hpp>
#include <vesk/duvo/duvo.hpp>
#include <vesk/duvo/opcua/opcuaDuvo.hpp>
#include <vesk/duvo/sim/nodeLayout.hpp>

int main(int argc, char** argv) try {
    using namespace std::chrono_literals;
    log4cplus::Initializer logging; // the middleware logs through log4cplus: to the console here
    log4cplus::BasicConfigurator().configure();
    const std::string device = argc > 1 ? argv[1] : "127.0.0.1:4840";
    auto duvo = std::make_shared<vesk::duvo::opcua::detail::OpcUaDuvo>();

    const std::string node = vesk::duvo::sim::pubSubUri(device, "M2FloatVector6");
    auto reader = duvo->createMrvSubscriber<m2Types::M2FloatVector6>(node);
    auto publisher = duvo->createPublisher<m2Types::M2FloatVector6>(node);
    std::shared_ptr<m2Types::M2FloatVector6> sample = publisher->createDataEntity();
    sample->setValue0({1.5f, 2.5f, 3.5f, 4.5f, 5.5f, 6.5f});
    publisher->publish(*sample, 2000ms); // waits for the device's answer

    // The most recent value the device reported; it sleeps its whole timeout, so the change
    // has time to arrive.
    for (const auto& latest : reader->readMostRecent(1000ms))
        std::cout << "M2FloatVector6 holds " << latest->getValue0().size() << " values, first "
                  << latest->getValue0()[0] << "\n";

    auto power =
        duvo->createClient<m2Types::PsRpcSetpowerSync>(vesk::duvo::sim::rpcUri(device, "PsRpcSetpower", "RPC_SetPower"),
                                                       {std::make_shared<vesk::duvo::rr::qos::ReplyTime>(2000ms)});
    std::cout << "RPC_SetPower(true) returned " << std::boolalpha << power->RPC_SetPower(true) << "\n";
    return 0;
} catch (const std::exception& e) {
    std::cerr << "m2-example: " << e.what() << "\n";
    return 1;
}
