// A program run by a test: started with posix_spawn, its standard output and error going to a
// file, waited for with a time limit, and ended (SIGTERM, then SIGKILL after 10 seconds) by the
// destructor if it is still running, also when a test fails.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <utility>
#include <vector>

extern char** environ;

#ifndef STEMLIB_PROGRAM_LAUNCHER
#define STEMLIB_PROGRAM_LAUNCHER ""
#endif

namespace StemlibTest {

// The command that starts a program of this build: the program itself, or where the build is for
// another processor, the build's launcher (STEMLIB_PROGRAM_LAUNCHER) followed by the program.
inline std::vector<std::string> builtProgram(const std::string& program,
                                             const std::vector<std::string>& arguments = {}) {
    std::vector<std::string> command;
    if (*STEMLIB_PROGRAM_LAUNCHER != '\0') {
        command.push_back(STEMLIB_PROGRAM_LAUNCHER);
    }
    command.push_back(program);
    command.insert(command.end(), arguments.begin(), arguments.end());
    return command;
}

class ChildProcess {
public:
    // Starts program with arguments (not including the program itself), in the working folder
    // of the test, with the test's environment and the NAME=value entries of environment on top;
    // output and errors are appended to outputFile. pid() is -1 if it did not start.
    ChildProcess(const std::string& program, const std::vector<std::string>& arguments,
                 const std::string& outputFile, std::vector<std::string> environment = {}) {
        std::vector<char*> envp;
        for (std::string& entry : environment) {
            envp.push_back(entry.data());
        }
        for (char** entry = environ; *entry != nullptr; ++entry) {
            const std::string name(*entry, std::strcspn(*entry, "="));
            bool replaced = false;
            for (const std::string& own : environment) {
                replaced = replaced || own.compare(0, name.size() + 1, name + "=") == 0;
            }
            if (!replaced) {
                envp.push_back(*entry);
            }
        }
        envp.push_back(nullptr);
        std::vector<std::string> all{program};
        all.insert(all.end(), arguments.begin(), arguments.end());
        std::vector<char*> argv;
        for (std::string& argument : all) {
            argv.push_back(argument.data());
        }
        argv.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, outputFile.c_str(),
                                         O_WRONLY | O_CREAT | O_APPEND, 0644);
        posix_spawn_file_actions_adddup2(&actions, 1, 2);
        pid_t pid = -1;
        if (::posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), envp.data()) ==
            0) {
            _pid = pid;
        }
        posix_spawn_file_actions_destroy(&actions);
    }

    // Starts command[0] with the rest of command as its arguments.
    ChildProcess(const std::vector<std::string>& command, const std::string& outputFile,
                 std::vector<std::string> environment = {})
        : ChildProcess(command.at(0), std::vector<std::string>(command.begin() + 1, command.end()),
                       outputFile, std::move(environment)) {}

    ~ChildProcess() { stop(); }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t pid() const { return _pid; }
    bool running() {
        if (_pid <= 0) {
            return false;
        }
        int status = 0;
        if (::waitpid(_pid, &status, WNOHANG) == _pid) {
            _exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            _pid = -1;
            return false;
        }
        return true;
    }

    // Waits up to limit for the program to end; its exit code (128 + signal when killed), or -1
    // if it is still running.
    int wait(std::chrono::seconds limit) {
        const auto deadline = std::chrono::steady_clock::now() + limit;
        while (running()) {
            if (std::chrono::steady_clock::now() > deadline) {
                return -1;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return _exitCode;
    }

    // Asks the program to stop (SIGTERM) and waits for it; SIGKILL after 10 seconds.
    int stop() {
        if (!running()) {
            return _exitCode;
        }
        ::kill(_pid, SIGTERM);
        if (wait(std::chrono::seconds(10)) < 0 && _pid > 0) {
            ::kill(_pid, SIGKILL);
            int status = 0;
            ::waitpid(_pid, &status, 0);
            _exitCode = 128 + SIGKILL;
            _pid = -1;
        }
        return _exitCode;
    }

private:
    pid_t _pid = -1;
    int _exitCode = -1;
};

} // namespace StemlibTest
