#include "server_processes.h"

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

namespace tolvane::bench {
namespace {

std::string processDirectory(pid_t pid) {
    return "/proc/" + std::to_string(pid);
}

void addWithDescendants(pid_t pid, std::vector<pid_t>& pids) {
    pids.push_back(pid);
    for (const auto& task : std::filesystem::directory_iterator(processDirectory(pid) + "/task")) {
        std::ifstream children(task.path() / "children");
        for (pid_t child; children >> child;) addWithDescendants(child, pids);
    }
}

[[noreturn]] void gone(pid_t pid) {
    throw std::runtime_error("process " + std::to_string(pid) + " of a server is gone");
}

Memory memoryOf(pid_t pid) {
    Memory memory;
    std::ifstream file(processDirectory(pid) + "/smaps_rollup");
    if (!file) gone(pid);
    for (std::string name; file >> name;) {
        if (name == "Pss:") file >> memory.proportional;
        if (name == "Private_Dirty:") file >> memory.privateDirty;
    }
    return memory;
}

double median(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

}  // namespace

ServerProcesses::ServerProcesses(pid_t root) {
    addWithDescendants(root, pids_);
}

double ServerProcesses::cpuTime() const {
    double sum = 0;
    for (const pid_t pid : pids_) {
        clockid_t clock;
        timespec time;
        if (clock_getcpuclockid(pid, &clock) != 0 || clock_gettime(clock, &time) != 0) gone(pid);
        sum += static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
    }
    return sum;
}

Memory ServerProcesses::memoryPerProcess() const {
    std::vector<double> proportional;
    std::vector<double> privateDirty;
    for (std::size_t i = pids_.size() > 1 ? 1 : 0; i < pids_.size(); ++i) {
        const Memory memory = memoryOf(pids_[i]);
        proportional.push_back(memory.proportional);
        privateDirty.push_back(memory.privateDirty);
    }
    return {median(proportional), median(privateDirty)};
}

}  // namespace tolvane::bench
