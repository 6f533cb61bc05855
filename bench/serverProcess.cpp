#include "serverProcess.hpp"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <sstream>
#include <stdexcept>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <open62541/types.h>

#include <vesk/duvo/sim/simulator.hpp>

extern char** environ;

namespace duvo::bench {

int serveMain(const std::vector<std::string>& args) {
    try {
        vesk::duvo::sim::Options options;
        options.logLevel = UA_LOGLEVEL_ERROR;
        if (args.size() == 3 && args[0] == "--secure") {
            options.security = vesk::duvo::sim::Options::Security::Secure;
            options.pkiDir = args[1];
            options.usersFile = args[2];
        }
        vesk::duvo::sim::Simulator simulator(options);
        simulator.start();
        std::cout << "ready " << simulator.endpoint() << std::endl;
        std::string line;
        while (std::getline(std::cin, line)) {
            std::istringstream in(line);
            std::string command, variable;
            UA_Int32 value = 0;
            if (!(in >> command >> variable >> value) || command != "w") {
                std::cerr << "bench server: bad command: " << line << '\n';
                continue;
            }
            UA_Variant variant;
            UA_Variant_setScalar(&variant, &value, &UA_TYPES[UA_TYPES_INT32]);
            simulator.write(variable, variant);
        }
        simulator.stop();
        return 0;
    } catch (const std::exception& e) {
        std::cerr << "bench server: " << e.what() << '\n';
        return 1;
    }
}

ServerProcess::ServerProcess(const std::string& self, const std::vector<std::string>& args) {
    int toChild[2];
    int fromChild[2];
    // Close-on-exec: a server started later must not hold this one's input open.
    if (pipe2(toChild, O_CLOEXEC) != 0 || pipe2(fromChild, O_CLOEXEC) != 0)
        throw std::runtime_error("pipe: " + std::string(std::strerror(errno)));
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, toChild[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, fromChild[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, toChild[1]);
    posix_spawn_file_actions_addclose(&actions, fromChild[0]);
    std::vector<char*> argv{const_cast<char*>(self.c_str()), const_cast<char*>("--serve")};
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    const int rc = posix_spawn(&pid_, self.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(toChild[0]);
    close(fromChild[1]);
    if (rc != 0) {
        close(toChild[1]);
        close(fromChild[0]);
        throw std::runtime_error("cannot start the server process: " + std::string(std::strerror(rc)));
    }
    toChild_ = toChild[1];

    // One line: "ready opc.tcp://127.0.0.1:PORT".
    std::string line;
    char c;
    while (read(fromChild[0], &c, 1) == 1 && c != '\n') line += c;
    close(fromChild[0]);
    const std::string prefix = "ready ";
    if (line.compare(0, prefix.size(), prefix) != 0) throw std::runtime_error("the server process did not start");
    endpoint_ = line.substr(prefix.size());
}

ServerProcess::~ServerProcess() {
    if (toChild_ >= 0) close(toChild_); // end of input: the server stops
    if (pid_ > 0) {
        int status = 0;
        waitpid(pid_, &status, 0);
    }
}

std::string ServerProcess::authority() const { return endpoint_.substr(std::strlen("opc.tcp://")); }

void ServerProcess::writeInt32(const std::string& variable, std::int32_t value) {
    const std::string line = "w " + variable + " " + std::to_string(value) + "\n";
    if (write(toChild_, line.data(), line.size()) != static_cast<ssize_t>(line.size()))
        throw std::runtime_error("the server process is gone");
}

} // namespace duvo::bench
