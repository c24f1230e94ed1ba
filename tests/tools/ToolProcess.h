#pragma once

// A `kest` child process: its standard output and standard error read line
// by line by a thread each, its exit status collected. Every wait has a
// deadline and waits on a condition variable; the destructor kills a child
// still running.

#include <fcntl.h>
#include <signal.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace KestTest {

class ToolProcess {
public:
    enum Stream { Out = 0, Err = 1 };

    // Starts `program` with `args`; its standard input is /dev/null.
    ToolProcess(const std::string& program, const std::vector<std::string>& args) {
        ::signal(SIGPIPE, SIG_IGN);
        int out[2];
        int err[2];
        if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
        std::vector<std::string> argv{program};
        argv.insert(argv.end(), args.begin(), args.end());
        std::vector<char*> raw;
        for (std::string& a : argv) raw.push_back(a.data());
        raw.push_back(nullptr);
        pid_ = fork();
        if (pid_ < 0) throw std::runtime_error("fork");
        if (pid_ == 0) {
            const int null = open("/dev/null", O_RDONLY);
            dup2(null, 0);
            dup2(out[1], 1);
            dup2(err[1], 2);
            execv(raw[0], raw.data());
            _exit(127);
        }
        close(out[1]);
        close(err[1]);
        fds_[Out] = out[0];
        fds_[Err] = err[0];
        readers_[Out] = std::thread([this] { read(Out); });
        readers_[Err] = std::thread([this] { read(Err); });
    }

    ~ToolProcess() {
        if (!reaped_) kill(pid_, SIGKILL);
        for (auto& reader : readers_) {
            if (reader.joinable()) reader.join();
        }
        close(fds_[Out]);
        close(fds_[Err]);
        reap();
    }

    ToolProcess(const ToolProcess&) = delete;
    ToolProcess& operator=(const ToolProcess&) = delete;

    // The first line of `stream` from the `index`th on that satisfies
    // `match`, waiting up to `timeout` for it; std::nullopt when none came.
    std::optional<std::string> waitLine(Stream stream, const std::function<bool(const std::string&)>& match,
                                        std::chrono::milliseconds timeout = std::chrono::seconds(20),
                                        std::size_t index = 0) {
        std::unique_lock<std::mutex> lock(mutex_);
        std::optional<std::string> found;
        const auto seen = [&] {
            for (std::size_t i = index; i < lines_[stream].size(); ++i) {
                if (match(lines_[stream][i])) {
                    found = lines_[stream][i];
                    return true;
                }
            }
            return closed_[stream];
        };
        arrived_.wait_for(lock, timeout, seen);
        return found;
    }

    // Waits until `stream` holds at least `count` lines.
    bool waitLines(Stream stream, std::size_t count, std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
        std::unique_lock<std::mutex> lock(mutex_);
        return arrived_.wait_for(lock, timeout, [&] { return lines_[stream].size() >= count || closed_[stream]; }) &&
               lines_[stream].size() >= count;
    }

    // The text after "PREFIX" of the first line of standard error that
    // starts with it ("kest echo: listening on " gives the endpoint).
    std::string after(const std::string& prefix, std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
        const auto line =
            waitLine(Err, [&](const std::string& l) { return l.rfind(prefix, 0) == 0; }, timeout);
        return line ? line->substr(prefix.size()) : std::string();
    }

    // Waits until the child has closed both outputs, then reaps it: its
    // exit status, or std::nullopt when it did not end in time (or was
    // killed by a signal: then 128 + the signal).
    std::optional<int> waitExit(std::chrono::milliseconds timeout = std::chrono::seconds(30)) {
        {
            std::unique_lock<std::mutex> lock(mutex_);
            if (!arrived_.wait_for(lock, timeout, [&] { return closed_[Out] && closed_[Err]; })) {
                return std::nullopt;
            }
        }
        reap();
        return status_;
    }

    std::vector<std::string> lines(Stream stream) {
        std::lock_guard<std::mutex> lock(mutex_);
        return lines_[stream];
    }

    void signal(int sig) { kill(pid_, sig); }

private:
    void reap() {
        if (reaped_) return;
        int status = 0;
        waitpid(pid_, &status, 0);
        reaped_ = true;
        if (WIFEXITED(status)) status_ = WEXITSTATUS(status);
        if (WIFSIGNALED(status)) status_ = 128 + WTERMSIG(status);
    }

    void read(Stream stream) {
        std::string pending;
        char buffer[65536];
        for (;;) {
            const ssize_t n = ::read(fds_[stream], buffer, sizeof buffer);
            if (n <= 0) break;
            pending.append(buffer, static_cast<std::size_t>(n));
            std::size_t end;
            while ((end = pending.find('\n')) != std::string::npos) {
                std::lock_guard<std::mutex> lock(mutex_);
                lines_[stream].push_back(pending.substr(0, end));
                pending.erase(0, end + 1);
                arrived_.notify_all();
            }
        }
        std::lock_guard<std::mutex> lock(mutex_);
        if (!pending.empty()) lines_[stream].push_back(pending);  // a last line without its end
        closed_[stream] = true;
        arrived_.notify_all();
    }

    pid_t pid_ = -1;
    bool reaped_ = false;
    std::optional<int> status_;
    int fds_[2] = {-1, -1};
    std::thread readers_[2];
    std::mutex mutex_;
    std::condition_variable arrived_;
    std::vector<std::string> lines_[2];  // guarded by mutex_
    bool closed_[2] = {false, false};    // guarded by mutex_
};

}  // namespace KestTest
