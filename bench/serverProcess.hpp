#pragma once
// The simulator in a process of its own, so that the clients measured here never share a
// thread or a core's time slice with the server's loop in a way the other side does not.
#include <cstdint>
#include <string>
#include <vector>

#include <sys/types.h>

namespace duvo::bench {

/// Runs the simulator in this process: prints "ready ENDPOINT", then executes one command per
/// line of standard input until it ends:
///   "w VARIABLE VALUE"  a server-side write of the Int32 VALUE (as a device would change it)
/// With "--secure PKI_DIR USERS_FILE" it offers only Sign and SignAndEncrypt endpoints and
/// only to those users. Returns the process's exit code.
int serveMain(const std::vector<std::string>& args);

/// A child process running serveMain(); stopped and reaped by the destructor.
class ServerProcess {
public:
    /// self: this program's path, started again with "--serve" and the arguments.
    explicit ServerProcess(const std::string& self, const std::vector<std::string>& args = {});
    ~ServerProcess();
    ServerProcess(const ServerProcess&) = delete;
    ServerProcess& operator=(const ServerProcess&) = delete;

    const std::string& endpoint() const { return endpoint_; }
    /// "127.0.0.1:PORT", the authority of entity URIs.
    std::string authority() const;

    /// Asks the server to write value to the Int32 variable on its own side; returns once the
    /// command is handed over (the write follows within microseconds).
    void writeInt32(const std::string& variable, std::int32_t value);

private:
    pid_t pid_ = -1;
    int toChild_ = -1;
    std::string endpoint_;
};

} // namespace duvo::bench
