// m2-sim as a child process, the way scripts use it.
#include <gtest/gtest.h>

#include <csignal>

#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "simTestSupport.hpp"

extern char** environ;

using namespace duvo::simtest;

namespace {

/// m2-sim with its stdout on a pipe; killed if a test leaves it running.
class Program {
public:
    explicit Program(std::vector<std::string> args) {
        int fds[2];
        if (::pipe(fds) != 0) throw std::runtime_error("pipe");
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
        posix_spawn_file_actions_addclose(&actions, fds[0]);
        posix_spawn_file_actions_addclose(&actions, fds[1]);
        args.insert(args.begin(), M2_SIM_PROGRAM);
        std::vector<char*> argv;
        for (auto& a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        const int rc = posix_spawn(&pid_, M2_SIM_PROGRAM, &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        ::close(fds[1]);
        out_ = fds[0];
        if (rc != 0) throw std::runtime_error("cannot start m2-sim");
    }
    ~Program() {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
        ::close(out_);
    }

    /// Everything up to the first newline, or what came before EOF or the bound.
    std::string readLine(std::chrono::milliseconds bound = std::chrono::seconds(10)) {
        std::string line;
        const auto deadline = std::chrono::steady_clock::now() + bound;
        char c = 0;
        while (std::chrono::steady_clock::now() < deadline) {
            pollfd p{out_, POLLIN, 0};
            if (::poll(&p, 1, 100) <= 0) continue;
            if (::read(out_, &c, 1) != 1 || c == '\n') break;
            line += c;
        }
        return line;
    }

    void signal(int sig) { ::kill(pid_, sig); }

    /// The exit code, or -1 when it did not exit normally within the bound.
    int wait(std::chrono::milliseconds bound = std::chrono::seconds(10)) {
        const auto deadline = std::chrono::steady_clock::now() + bound;
        int status = 0;
        while (std::chrono::steady_clock::now() < deadline) {
            if (::waitpid(pid_, &status, WNOHANG) == pid_) {
                pid_ = -1;
                return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return -1;
    }

private:
    pid_t pid_ = -1;
    int out_ = -1;
};

class ProgramStops : public ::testing::TestWithParam<int> {};

TEST_P(ProgramStops, after_printing_its_ready_line_and_serving_a_client) {
    Program program({"--port", "0"});
    const std::string line = program.readLine();
    const std::string prefix = "ready opc.tcp://127.0.0.1:";
    ASSERT_EQ(line.rfind(prefix, 0), 0u) << "'" << line << "'";
    const std::string port = line.substr(prefix.size());
    ASSERT_TRUE(!port.empty() && port.find_first_not_of("0123456789") == std::string::npos) << "'" << line << "'";
    ASSERT_NE(std::stoi(port), 0);
    {
        Client client;
        ASSERT_EQ(client.connect(line.substr(std::string("ready ").size())), UA_STATUSCODE_GOOD);
        EXPECT_EQ(client.call("WhRpcSetpower", "RPC_SetPower", {scalar(true)}).status, UA_STATUSCODE_GOOD);
    }
    program.signal(GetParam());
    EXPECT_EQ(program.wait(), 0);
    EXPECT_EQ(program.readLine(std::chrono::milliseconds(500)), ""); // nothing more on stdout
}

INSTANTIATE_TEST_SUITE_P(M2Sim, ProgramStops, ::testing::Values(SIGTERM, SIGINT),
                         [](const auto& info) { return info.param == SIGTERM ? "on_SIGTERM" : "on_SIGINT"; });

TEST(M2Sim, refuses_an_unknown_option) {
    Program program({"--no-such-option"});
    EXPECT_EQ(program.wait(), 2);
    EXPECT_EQ(program.readLine(std::chrono::milliseconds(500)), "");
}

} // namespace
