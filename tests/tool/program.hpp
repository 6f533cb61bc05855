#pragma once
// A program run as a user runs it: a child process with its stdout and stderr on pipes.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>
#include <string>
#include <vector>

extern char** environ;

namespace duvo::test {

struct Outcome {
    int code = -1; // -1: killed, crashed or still running at the bound
    std::string out;
    std::string err;
};

/// The program with the arguments and extra environment; killed if a test leaves it running.
class Program {
public:
    Program(const char* program, std::vector<std::string> args, const std::vector<std::string>& env = {}) {
        int out[2], err[2];
        // Close-on-exec, so that no other child holds these pipes open.
        if (::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
        posix_spawn_file_actions_adddup2(&actions, err[1], STDERR_FILENO);
        args.insert(args.begin(), program);
        std::vector<char*> argv;
        for (auto& a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        std::vector<std::string> variables(env);
        for (char** e = environ; *e; ++e) variables.emplace_back(*e);
        std::vector<char*> envp;
        for (auto& v : variables) envp.push_back(v.data());
        envp.push_back(nullptr);
        const int rc = posix_spawn(&pid_, program, &actions, nullptr, argv.data(), envp.data());
        posix_spawn_file_actions_destroy(&actions);
        ::close(out[1]);
        ::close(err[1]);
        fds_[0] = out[0];
        fds_[1] = err[0];
        if (rc != 0) throw std::runtime_error(std::string("cannot start ") + program);
    }
    ~Program() {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
        for (int fd : fds_)
            if (fd >= 0) ::close(fd);
    }
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    /// The next line of stdout (without the newline), or what came before EOF or the bound.
    std::string readLine(std::chrono::milliseconds bound = std::chrono::seconds(10)) {
        const auto deadline = std::chrono::steady_clock::now() + bound;
        while (std::chrono::steady_clock::now() < deadline && outcome_.out.find('\n') == std::string::npos &&
               fds_[0] >= 0)
            pump(50);
        const auto newline = outcome_.out.find('\n');
        std::string line = outcome_.out.substr(0, newline);
        outcome_.out.erase(0, newline == std::string::npos ? std::string::npos : newline + 1);
        return line;
    }

    void signal(int sig) { ::kill(pid_, sig); }

    /// Everything it writes until it exits, and its exit code.
    Outcome finish(std::chrono::milliseconds bound = std::chrono::seconds(30)) {
        const auto deadline = std::chrono::steady_clock::now() + bound;
        while (std::chrono::steady_clock::now() < deadline && (fds_[0] >= 0 || fds_[1] >= 0)) pump(50);
        int status = 0;
        while (std::chrono::steady_clock::now() < deadline && ::waitpid(pid_, &status, WNOHANG) != pid_) ::usleep(2000);
        if (WIFEXITED(status) && std::chrono::steady_clock::now() < deadline) {
            outcome_.code = WEXITSTATUS(status);
            pid_ = -1;
        }
        return outcome_;
    }

private:
    void pump(int timeoutMs) {
        pollfd p[2] = {{fds_[0], POLLIN, 0}, {fds_[1], POLLIN, 0}};
        if (::poll(p, 2, timeoutMs) <= 0) return;
        for (int i = 0; i < 2; ++i) {
            if (fds_[i] < 0 || !(p[i].revents & (POLLIN | POLLHUP))) continue;
            char buffer[4096];
            const ssize_t n = ::read(fds_[i], buffer, sizeof buffer);
            if (n > 0) {
                (i == 0 ? outcome_.out : outcome_.err).append(buffer, std::size_t(n));
            } else {
                ::close(fds_[i]);
                fds_[i] = -1;
            }
        }
    }

    pid_t pid_ = -1;
    int fds_[2] = {-1, -1};
    Outcome outcome_;
};

} // namespace duvo::test
