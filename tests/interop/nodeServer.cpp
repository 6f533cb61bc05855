#include "nodeServer.hpp"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/securePki.hpp"

namespace duvo::interop {

namespace {

using namespace std::chrono_literals;

bool executable(const std::string& path) { return ::access(path.c_str(), X_OK) == 0; }
using vesk::duvo::pki::readFile;

} // namespace

std::string NodeServer::findNode() {
    if (const char* explicitNode = std::getenv("DUVO_NODE"); explicitNode && *explicitNode)
        return executable(explicitNode) ? explicitNode : "";
    const char* path = std::getenv("PATH");
    std::stringstream dirs(path ? path : "/usr/local/bin:/usr/bin:/bin");
    std::vector<std::string> folders;
    for (std::string dir; std::getline(dirs, dir, ':');)
        if (!dir.empty()) folders.push_back(dir);
    for (const char* name : {"node", "nodejs"})
        for (const auto& dir : folders)
            if (executable(dir + "/" + name)) return dir + "/" + name;
    return "";
}

NodeServer::NodeServer(const Paths& paths, std::chrono::seconds startTimeout) : paths_(paths) {
    std::filesystem::create_directories(paths_.workDir);
    log_ = paths_.workDir + "/server.log";
    const std::string pki = paths_.pki.empty() ? paths_.workDir + "/pki" : paths_.pki;
    std::vector<std::string> args{paths_.node, paths_.script, "--catalogue", paths_.catalogue,
                                  "--port",    "0",           "--pki",       pki};
    if (!paths_.users.empty()) args.insert(args.end(), {"--users", paths_.users});
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);

    // Emptied here, not in the child: the last run's "ready" line must not be read as this one's.
    const int logFd = ::open(log_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (logFd < 0) throw std::runtime_error("cannot write " + log_ + ": " + std::strerror(errno));
    const pid_t parent = ::getpid();
    pid_ = ::fork();
    if (pid_ < 0) {
        ::close(logFd);
        throw std::runtime_error(std::string("cannot fork the interop server: ") + std::strerror(errno));
    }
    if (pid_ == 0) {
        // The server must not outlive a test program that crashes.
        ::prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (::getppid() != parent) ::_exit(1);
        ::dup2(logFd, STDOUT_FILENO);
        ::dup2(logFd, STDERR_FILENO);
        const int devNull = ::open("/dev/null", O_RDONLY);
        if (devNull >= 0) ::dup2(devNull, STDIN_FILENO);
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    ::close(logFd);

    // node-opcua logs warnings on standard output too: look for the line, not the first line.
    const std::string ready = "ready opc.tcp://";
    const auto deadline = std::chrono::steady_clock::now() + startTimeout;
    while (std::chrono::steady_clock::now() < deadline) {
        const std::string text = readFile(log_);
        const auto at = text.find(ready);
        if (at != std::string::npos && text.find('\n', at) != std::string::npos) {
            endpoint_ = text.substr(at + 6, text.find('\n', at) - at - 6);
            return;
        }
        int status = 0;
        if (::waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;
            throw std::runtime_error("the interop server exited before it was ready (status " + std::to_string(status) +
                                     "):\n" + logTail());
        }
        std::this_thread::sleep_for(50ms);
    }
    stop(1000ms);
    throw std::runtime_error("the interop server was not ready within " + std::to_string(startTimeout.count()) +
                             " s:\n" + logTail());
}

NodeServer::~NodeServer() { stop(); }

bool NodeServer::stop(std::chrono::milliseconds grace) {
    if (pid_ < 0) return true;
    ::kill(pid_, SIGTERM);
    const auto deadline = std::chrono::steady_clock::now() + grace;
    int status = 0;
    while (std::chrono::steady_clock::now() < deadline) {
        if (::waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;
            return WIFEXITED(status) && WEXITSTATUS(status) == 0;
        }
        std::this_thread::sleep_for(20ms);
    }
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, &status, 0);
    pid_ = -1;
    return false;
}

std::string NodeServer::logTail() const {
    const std::string text = readFile(log_);
    return text.size() > 4000 ? "..." + text.substr(text.size() - 4000) : text;
}

std::string workDir() {
    const char* dir = std::getenv("DUVO_INTEROP_WORK_DIR");
    return dir && *dir ? dir : INTEROP_WORK_DIR;
}

NodeServer* sharedServer(Availability& availability) {
    static Availability status;
    static std::unique_ptr<NodeServer> server;
    static bool tried = false;
    if (!tried) {
        tried = true;
        const bool required = std::getenv("DUVO_REQUIRE_INTEROP") != nullptr;
        NodeServer::Paths paths{NodeServer::findNode(), INTEROP_SERVER_SCRIPT, INTEROP_CATALOGUE, workDir()};
        if (secure()) paths.users = duvo::test::securePki().usersFile;
        const std::string modules = paths.script.substr(0, paths.script.rfind('/')) + "/node_modules/node-opcua";
        if (paths.node.empty()) {
            status.skip = !required;
            status.reason = "interop server unavailable: no node executable on PATH (install Debian's nodejs and npm, "
                            "or run scripts/install-deps.sh)";
        } else if (::access(modules.c_str(), R_OK) != 0) {
            status.reason = "interop server unavailable: node-opcua is not installed (run npm ci in interop/, as "
                            "scripts/install-deps.sh does)";
        } else {
            try {
                // The first start creates the server's certificates, which takes seconds.
                server = std::make_unique<NodeServer>(paths, std::chrono::seconds(120));
            } catch (const std::exception& e) {
                status.reason = std::string("interop server unavailable: ") + e.what();
            }
        }
    }
    availability = status;
    return server.get();
}

bool secure() { return std::getenv("DUVO_TEST_SECURE") != nullptr; }

const std::string& secureClientPki() {
    // node-opcua keeps its certificate as PEM; trusted/ gets it as the server sends it.
    static const std::string dir = [] {
        const std::string folder = duvo::test::securePki().freshClientDir("interop-client");
        vesk::duvo::pki::writeFile(
            folder + "/trusted/node-opcua.der",
            vesk::duvo::pki::toDer(vesk::duvo::pki::readFile(workDir() + "/pki/server/own/certs/certificate.pem")));
        return folder;
    }();
    return dir;
}

} // namespace duvo::interop
