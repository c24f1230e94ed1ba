#pragma once

// A bridge_node child process driven through its standard input, whose
// answers ("KN ..." lines on its standard output) a reader thread collects.
// Every wait has a deadline and waits on a condition variable.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace KestTest {

class NodeProcess {
public:
    explicit NodeProcess(const std::vector<std::string>& args) {
        int toChild[2];
        int fromChild[2];
        // A child that died must not kill the test when it is written to.
        ::signal(SIGPIPE, SIG_IGN);
        // Close-on-exec: no child inherits the pipes of another.
        if (pipe2(toChild, O_CLOEXEC) != 0 || pipe2(fromChild, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
        std::vector<std::string> argv{KEST_BRIDGE_NODE};
        argv.insert(argv.end(), args.begin(), args.end());
        std::vector<char*> raw;
        for (std::string& a : argv) raw.push_back(a.data());
        raw.push_back(nullptr);
        pid_ = fork();
        if (pid_ < 0) throw std::runtime_error("fork");
        if (pid_ == 0) {
            dup2(toChild[0], 0);
            dup2(fromChild[1], 1);
            close(toChild[0]);
            close(toChild[1]);
            close(fromChild[0]);
            close(fromChild[1]);
            execv(raw[0], raw.data());
            _exit(127);
        }
        close(toChild[0]);
        close(fromChild[1]);
        input_ = fdopen(toChild[1], "w");
        outputFd_ = fromChild[0];
        reader_ = std::thread([this] { read(); });
    }

    ~NodeProcess() {
        if (running()) {
            kill(pid_, SIGKILL);
        }
        if (input_ != nullptr) fclose(input_);
        if (reader_.joinable()) reader_.join();
        close(outputFd_);
        reap();
    }

    NodeProcess(const NodeProcess&) = delete;
    NodeProcess& operator=(const NodeProcess&) = delete;

    void send(const std::string& command) {
        std::fputs((command + "\n").c_str(), input_);
        std::fflush(input_);
    }

    // The next answer line (without "KN "), or "" when none came in time.
    std::string next(std::chrono::milliseconds timeout = std::chrono::seconds(30)) {
        std::unique_lock<std::mutex> lock(mutex_);
        if (!arrived_.wait_for(lock, timeout, [&] { return !lines_.empty() || closed_; })) return "";
        if (lines_.empty()) return "";
        std::string line = lines_.front();
        lines_.pop_front();
        return line;
    }

    std::string ask(const std::string& command, std::chrono::milliseconds timeout = std::chrono::seconds(30)) {
        send(command);
        return next(timeout);
    }

    // The answer lines up to "end".
    std::vector<std::string> askAll(const std::string& command) {
        send(command);
        std::vector<std::string> lines;
        for (int i = 0; i < 1000; ++i) {
            std::string line = next();
            if (line.empty() || line == "end") break;
            lines.push_back(line);
        }
        return lines;
    }

    void signal(int sig) { kill(pid_, sig); }

    // Waits until the child's output closes (it died or exited), then reaps it.
    bool waitExit(std::chrono::milliseconds timeout = std::chrono::seconds(30)) {
        std::unique_lock<std::mutex> lock(mutex_);
        if (!arrived_.wait_for(lock, timeout, [&] { return closed_; })) return false;
        lock.unlock();
        reap();
        return true;
    }

    pid_t pid() const { return pid_; }

private:
    bool running() {
        std::lock_guard<std::mutex> lock(mutex_);
        return !closed_;
    }

    void reap() {
        if (!reaped_) {
            int status = 0;
            waitpid(pid_, &status, 0);
            reaped_ = true;
        }
    }

    void read() {
        std::string pending;
        char buffer[65536];
        for (;;) {
            const ssize_t n = ::read(outputFd_, buffer, sizeof buffer);
            if (n <= 0) break;
            pending.append(buffer, static_cast<std::size_t>(n));
            std::size_t end;
            while ((end = pending.find('\n')) != std::string::npos) {
                std::string line = pending.substr(0, end);
                pending.erase(0, end + 1);
                if (line.rfind("KN ", 0) == 0) {  // the rest is the dispatcher's drop warnings
                    std::lock_guard<std::mutex> lock(mutex_);
                    lines_.push_back(line.substr(3));
                    arrived_.notify_all();
                }
            }
        }
        std::lock_guard<std::mutex> lock(mutex_);
        closed_ = true;
        arrived_.notify_all();
    }

    pid_t pid_ = -1;
    bool reaped_ = false;
    FILE* input_ = nullptr;
    int outputFd_ = -1;
    std::thread reader_;
    std::mutex mutex_;
    std::condition_variable arrived_;
    std::deque<std::string> lines_;  // guarded by mutex_
    bool closed_ = false;            // guarded by mutex_
};

// The words of a line.
inline std::vector<std::string> words(const std::string& line) {
    std::istringstream in(line);
    std::vector<std::string> result;
    std::string word;
    while (in >> word) result.push_back(word);
    return result;
}

}  // namespace KestTest
