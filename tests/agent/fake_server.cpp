#include "fake_server.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>

#include "os/process.h"
#include "support/sandbox.h"

namespace tolvane::agent::test {

namespace {

int createSegment(int structures) {
    std::size_t size = segmentSize(static_cast<std::size_t>(structures));
    int shmid = shmget(IPC_PRIVATE, size, IPC_CREAT | 0777);
    auto* config = static_cast<ConfigInfo*>(shmat(shmid, nullptr, 0));
    config->version = kVersionCreated;
    config->interval = kDefaultInterval;
    config->parentPid = getpid();
    auto* records = reinterpret_cast<ResultStruct*>(config + 1);
    for (int i = 0; i < structures; ++i) {
        records[i].semaphoreId = semget(IPC_PRIVATE, 1, IPC_CREAT | 0777);
        sembuf raise = {0, 1, 0};
        semop(records[i].semaphoreId, &raise, 1);
    }
    return shmid;
}

}  // namespace

FakeServer::FakeServer(int structures, const std::string& listen, const std::string& type)
    : structures_(structures) {
    int ready[2];
    if (pipe(ready) != 0) throw std::runtime_error("pipe");
    pid_ = fork();
    if (pid_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        // By its library a measured process is known from another agent.
        const int library = open(TOLVANE_LIBRARY, O_RDONLY);
        if (mmap(nullptr, 1, PROT_READ, MAP_PRIVATE, library, 0) == MAP_FAILED) _exit(1);
        int shmid = createSegment(structures);
        tolvane::test::writeFile(kHandoffDirectory + (kHandoffPrefix + std::to_string(getpid())),
                                 "Listen=" + listen + "\nShmid=" + std::to_string(shmid) +
                                     "\nServer_Type=" + type +
                                     "\nStructures=" + std::to_string(structures) + "\n");
        if (write(ready[1], &shmid, sizeof shmid) < 0) _exit(1);
        for (;;) pause();
    }
    close(ready[1]);
    if (read(ready[0], &shmid_, sizeof shmid_) != sizeof shmid_) throw std::runtime_error("server");
    close(ready[0]);
    handoff_ = kHandoffDirectory + (kHandoffPrefix + std::to_string(pid_));
}

FakeServer::~FakeServer() {
    kill();
}

void FakeServer::kill() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = 0;
}

void FakeServer::edit(const std::function<void(ConfigInfo&, ResultStruct*)>& change) const {
    auto* config = static_cast<ConfigInfo*>(shmat(shmid_, nullptr, 0));
    change(*config, reinterpret_cast<ResultStruct*>(config + 1));
    shmdt(config);
}

std::vector<int> FakeServer::semaphores() const {
    std::vector<int> found;
    edit([&](ConfigInfo&, ResultStruct* records) {
        for (int i = 0; i < structures_; ++i) found.push_back(records[i].semaphoreId);
    });
    return found;
}

bool segmentExists(int shmid) {
    shmid_ds status{};
    return shmctl(shmid, IPC_STAT, &status) == 0;
}

bool semaphoreExists(int semid) {
    return semctl(semid, 0, GETVAL) >= 0;
}

Outcome tolvane(const std::vector<std::string>& arguments) {
    std::vector<std::string> command = {TOLVANE_PROGRAM};
    command.insert(command.end(), arguments.begin(), arguments.end());
    ProcessAnswer answer = runAndListen(command, {}, std::chrono::seconds(30));
    return {answer.exitStatus, answer.output, answer.errors};
}

}  // namespace tolvane::agent::test
