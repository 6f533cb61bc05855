// m2ctl sim: runs the m2Types simulator until SIGINT or SIGTERM.
#include <chrono>
#include <cstdint>
#include <iostream>
#include <thread>

#include <vesk/duvo/opcua/pki.hpp>
#include <vesk/duvo/sim/simulator.hpp>

#include "cli.hpp"
#include "commands.hpp"

namespace m2ctl {

int simCommand(int argc, char** argv) {
    Common common;
    vesk::duvo::sim::Options sim;
    po::options_description options("Options");
    options.add_options()("port,p", po::value<std::uint16_t>(&sim.port)->default_value(defaultPort)->value_name("N"),
                          "TCP port, 0 for a free one")(
        "bind,b", po::value<std::string>(&sim.bindAddress)->default_value("127.0.0.1")->value_name("ADDR"),
        "address to listen on, 0.0.0.0 for every interface")("animate,a", po::bool_switch(&sim.animate),
                                                             "change some variables every 200 ms");
    std::string security = "none";
    options.add_options()("security", po::value<std::string>(&security)->default_value("none")->value_name("KIND"),
                          "none, secure (Sign and SignAndEncrypt endpoints) or both")(
        "users", po::value<std::string>(&sim.usersFile)->value_name("FILE"),
        "file of name:password lines; anonymous sessions are then refused")(
        "pki", po::value<std::string>(&sim.pkiDir)->value_name("DIR"),
        "PKI folder: own/ (created if missing), trusted/ (if it holds certificates, only those clients)");
    addCommonOptions(options, common, {false, false, false, false, false});
    const CommandLine line = parseCommandLine(
        "m2ctl sim [options]\n"
        "Serves every m2Types variable and method over OPC UA. Prints \"ready opc.tcp://HOST:PORT\" once it\n"
        "listens, and stops cleanly on Ctrl-C or SIGTERM.",
        options, argc, argv);
    if (line.help) return 0;
    if (!line.args.empty()) throw UsageError("sim takes no arguments, got " + inQuotes(line.args[0]));
    // The stack's start-up warnings about its default configuration are expected here.
    sim.logLevel = line.vm.count("verbose") ? UA_LOGLEVEL_INFO : UA_LOGLEVEL_ERROR;
    if (security == "secure")
        sim.security = vesk::duvo::sim::Options::Security::Secure;
    else if (security == "both")
        sim.security = vesk::duvo::sim::Options::Security::Both;
    else if (security != "none")
        throw UsageError("--security is none, secure or both, not " + inQuotes(security));
    if (sim.security != vesk::duvo::sim::Options::Security::None && sim.pkiDir.empty())
        sim.pkiDir = vesk::duvo::pki::defaultDir() + "/../m2-sim-pki";

    catchStopSignals();
    vesk::duvo::sim::Simulator simulator(sim);
    try {
        simulator.start();
    } catch (const std::exception& e) {
        throw std::runtime_error(std::string("cannot start the simulator: ") + e.what());
    }
    if (!simulator.certificate().empty())
        std::cerr << "certificate SHA-1 " << vesk::duvo::pki::thumbprint(simulator.certificate()) << " (" << sim.pkiDir
                  << "/own/cert.der)" << std::endl;
    std::cout << "ready " << simulator.endpoint() << std::endl;
    while (!stopRequested()) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    simulator.stop();
    return 0;
}

} // namespace m2ctl
