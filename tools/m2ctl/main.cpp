// m2ctl: lists, publishes, subscribes to and calls the m2Types catalogues over OPC UA through
// the type-support plug-in loaded by name, runs the simulator, and tours everything.
#include <cstdio>
#include <cstring>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <string>

#include <boost/program_options/errors.hpp>

#include "commands.hpp"
#include "values.hpp"

namespace {

constexpr const char* usage = R"(Usage: m2ctl COMMAND [options] [arguments]

Commands:
  list                    the 24 types and 23 interfaces, their OPC UA types and node ids
  pub TYPE VALUE...       publish one sample and wait for the write result
  sub TYPE                print samples as they arrive (--mode monitor|poll|mrv)
  call INTERFACE ARG...   call an interface's method (--async for the asynchronous client)
  sim                     run the m2Types simulator (--port, --animate)
  tour                    publish, read back and call everything against the embedded
                          simulator (or --endpoint) and print one table
  check [NAME...]         read how a device declares each variable and method and compare
                          with the catalogues (read-only; --json)

pub, sub, call, tour and check take --map FILE for a device whose node ids differ from the
simulator's (`m2ctl list --map` prints the simulator's map to start from); every command
takes --log-config FILE, a log4cplus properties file for the middleware's logs.

pub, sub and call talk to --endpoint (default opc.tcp://127.0.0.1:4840, where `m2ctl sim`
listens) or to the entity named by --uri. `m2ctl COMMAND --help` describes a command.
Exit codes: 0 success, 1 failure (connection, timeout, refused write, false result, failed
round trip, a device that does not conform), 2 bad command line (unknown command, type,
interface or option, bad value, URI or map).
)";

/// One line on stderr, whatever the message holds.
void report(const std::string& message) {
    std::string line = message;
    for (char& c : line)
        if (c == '\n' || c == '\r') c = ' ';
    std::cout.flush();
    std::fprintf(stderr, "m2ctl: %s\n", line.c_str());
}

int run(int argc, char** argv) {
    if (argc < 2) {
        std::fputs(usage, stdout);
        throw m2ctl::UsageError("no command given");
    }
    const std::string command = argv[1];
    if (command == "--help" || command == "-h" || command == "help") {
        std::fputs(usage, stdout);
        return 0;
    }
    using Command = int (*)(int, char**);
    static const std::pair<const char*, Command> commands[] = {
        {"list", &m2ctl::listCommand},   {"pub", &m2ctl::pubCommand}, {"sub", &m2ctl::subCommand},
        {"call", &m2ctl::callCommand},   {"sim", &m2ctl::simCommand}, {"tour", &m2ctl::tourCommand},
        {"check", &m2ctl::checkCommand},
    };
    for (const auto& [name, function] : commands)
        if (command == name) return function(argc - 1, argv + 1);
    throw m2ctl::UsageError("unknown command " + m2ctl::inQuotes(command) + " (m2ctl --help lists them)");
}

} // namespace

int main(int argc, char** argv) {
    try {
        return run(argc, argv);
    } catch (const m2ctl::UsageError& e) {
        report(e.what());
        return 2;
    } catch (const boost::program_options::error& e) {
        report(std::string(e.what()) + " (m2ctl " + (argc > 1 ? argv[1] : "") + " --help)");
        return 2;
    } catch (const std::invalid_argument& e) {
        // The middleware's verdict on a URI or node id the user gave.
        report(e.what());
        return 2;
    } catch (const std::exception& e) {
        report(e.what());
        return 1;
    } catch (...) {
        report("unexpected error");
        return 1;
    }
}
