#include "support/process.h"

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <thread>

namespace tolvane::test {
namespace {

std::vector<char*> pointers(std::vector<std::string>& texts) {
    std::vector<char*> result;
    for (auto& text : texts) result.push_back(text.data());
    result.push_back(nullptr);
    return result;
}

}  // namespace

Process::Process(std::vector<std::string> command, std::vector<std::string> environment) {
    environment.push_back("PATH=/usr/bin:/bin");
    const auto argv = pointers(command);
    const auto envp = pointers(environment);
    pid_ = fork();
    if (pid_ < 0) throw std::runtime_error("fork");
    if (pid_ == 0) {
        // A group of its own: Apache signals its whole group when it stops.
        setpgid(0, 0);
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        execve(argv[0], argv.data(), envp.data());
        _exit(127);
    }
    setpgid(pid_, pid_);
}

Process::~Process() {
    kill(-pid_, SIGKILL);
    if (!reaped_) waitpid(pid_, nullptr, 0);
}

std::vector<pid_t> Process::children() const {
    const auto id = std::to_string(pid_);
    std::ifstream list("/proc/" + id + "/task/" + id + "/children");
    return {std::istream_iterator<pid_t>(list), {}};
}

void Process::signal(int number) const {
    kill(pid_, number);
}

std::optional<int> Process::wait(std::chrono::milliseconds time) {
    int status = 0;
    reaped_ = reaped_ || eventually(time, [&] { return waitpid(pid_, &status, WNOHANG) == pid_; });
    return reaped_ ? std::optional(status) : std::nullopt;
}

bool eventually(std::chrono::milliseconds time, const std::function<bool()>& condition) {
    const auto end = std::chrono::steady_clock::now() + time;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

}  // namespace tolvane::test
