#pragma once
// The independent server (node-opcua, interop/server.js) as a child process of the test
// program: one per program, started on first use and stopped when the program ends.
#include <chrono>
#include <string>

#include <sys/types.h>

namespace duvo::interop {

class NodeServer {
public:
    struct Paths {
        std::string node;       // the node executable; empty when none was found
        std::string script;     // interop/server.js
        std::string catalogue;  // the JSON of `m2ctl list --json`
        std::string workDir;    // the server's log, and its certificates unless pki is set
        std::string pki = {};   // the certificate folder, shared by servers that run one after another
        std::string users = {}; // "user:password" lines: SignAndEncrypt for those users only
    };

    /// Starts the server and waits for its "ready" line; throws std::runtime_error with the
    /// server's log when it does not come up.
    NodeServer(const Paths& paths, std::chrono::seconds startTimeout);
    ~NodeServer();
    NodeServer(const NodeServer&) = delete;
    NodeServer& operator=(const NodeServer&) = delete;

    /// "opc.tcp://127.0.0.1:PORT", as the server announced it.
    const std::string& endpoint() const { return endpoint_; }
    pid_t pid() const { return pid_; }

    /// SIGTERM, then SIGKILL if it has not exited within the grace time; true if it stopped
    /// on SIGTERM alone.
    bool stop(std::chrono::milliseconds grace = std::chrono::milliseconds(5000));

    /// The node executable on PATH ("node", else Debian's "nodejs"); empty when there is none.
    static std::string findNode();

private:
    std::string logTail() const;

    Paths paths_;
    std::string log_;
    std::string endpoint_;
    pid_t pid_ = -1;
};

/// Why the interop tests cannot run here, or empty when they can.
struct Availability {
    bool skip = false;  // node is absent and DUVO_REQUIRE_INTEROP is unset
    std::string reason; // set when the server is not running
};

/// Where this program's server keeps its certificates and log: DUVO_INTEROP_WORK_DIR, or the
/// build's default.
std::string workDir();

/// The program's one server, started on first call; null with the reason when it cannot run.
/// With DUVO_TEST_SECURE set, it is the secured variant (SignAndEncrypt, the test users).
NodeServer* sharedServer(Availability& availability);

/// True when this run talks to the secured variant.
bool secure();

/// A client PKI folder with the test client's certificate that trusts the secured server's.
const std::string& secureClientPki();

} // namespace duvo::interop
