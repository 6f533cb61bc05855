// m2-sim: the m2Types simulator as a program, for manual tests and scripts.
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <iostream>
#include <string>

#include <pthread.h>

#include <boost/program_options.hpp>

#include <vesk/duvo/opcua/pki.hpp>
#include <vesk/duvo/sim/simulator.hpp>

namespace po = boost::program_options;

int main(int argc, char** argv) {
    vesk::duvo::sim::Options options;
    bool verbose = false;
    std::string security = "none";
    po::options_description description(
        "Usage: m2-sim [options]\nServes the m2Types variables and methods over OPC UA");
    description.add_options()("help,h", "print this help and exit")(
        "port,p", po::value<std::uint16_t>(&options.port)->default_value(4840), "TCP port, 0 for a free one")(
        "bind,b", po::value<std::string>(&options.bindAddress)->default_value("127.0.0.1"),
        "address to listen on, 0.0.0.0 for every interface")("animate,a", po::bool_switch(&options.animate),
                                                             "change some variables periodically")(
        "security", po::value<std::string>(&security)->default_value("none"),
        "none, secure (Sign and SignAndEncrypt endpoints) or both")(
        "users", po::value<std::string>(&options.usersFile),
        "file of name:password lines; anonymous sessions are then refused")(
        "pki", po::value<std::string>(&options.pkiDir),
        "PKI folder: own/ (created if missing), trusted/ (if it holds certificates, only those clients)")(
        "verbose,v", po::bool_switch(&verbose), "show the server's informational messages");
    try {
        po::variables_map vm;
        po::store(po::parse_command_line(argc, argv, description), vm);
        po::notify(vm);
        if (vm.count("help")) {
            std::cout << description << '\n';
            return 0;
        }
    } catch (const std::exception& e) {
        std::cerr << "m2-sim: " << e.what() << '\n' << description << '\n';
        return 2;
    }
    options.logLevel = verbose ? UA_LOGLEVEL_INFO : UA_LOGLEVEL_WARNING;
    if (security == "secure")
        options.security = vesk::duvo::sim::Options::Security::Secure;
    else if (security == "both")
        options.security = vesk::duvo::sim::Options::Security::Both;
    else if (security != "none") {
        std::cerr << "m2-sim: --security is none, secure or both, not \"" << security << "\"\n";
        return 2;
    }
    if (options.security != vesk::duvo::sim::Options::Security::None && options.pkiDir.empty())
        options.pkiDir = vesk::duvo::pki::defaultDir() + "/../m2-sim-pki";

    // Blocked before any thread starts, so only sigwait below receives them.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    try {
        vesk::duvo::sim::Simulator simulator(options);
        simulator.start();
        if (!simulator.certificate().empty())
            std::cerr << "m2-sim: certificate SHA-1 " << vesk::duvo::pki::thumbprint(simulator.certificate()) << " ("
                      << options.pkiDir << "/own/cert.der)" << std::endl;
        std::cout << "ready " << simulator.endpoint() << std::endl;
        int signal = 0;
        sigwait(&stopSignals, &signal);
        simulator.stop();
    } catch (const std::exception& e) {
        std::cerr << "m2-sim: " << e.what() << '\n';
        return 1;
    }
    return 0;
}
