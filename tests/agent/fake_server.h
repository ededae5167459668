// A process that looks like a measured server to the tool: it owns a segment
// with its semaphores, and a handoff file names it.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "tolvane/segment_format.h"

namespace tolvane::agent::test {

class FakeServer {
  public:
    explicit FakeServer(int structures = 1, const std::string& listen = "*:8080",
                        const std::string& type = "APACHE");
    ~FakeServer();
    FakeServer(const FakeServer&) = delete;
    FakeServer& operator=(const FakeServer&) = delete;

    // Attaches the segment for the time of the call.
    void edit(const std::function<void(ConfigInfo&, ResultStruct*)>& change) const;
    // Ends it as a power failure would: everything stays behind.
    void kill();

    pid_t pid() const { return pid_; }
    int shmid() const { return shmid_; }
    const std::string& handoff() const { return handoff_; }
    std::vector<int> semaphores() const;

  private:
    int structures_;
    pid_t pid_ = 0;
    int shmid_ = -1;
    std::string handoff_;
};

bool segmentExists(int shmid);
bool semaphoreExists(int semid);

struct Outcome {
    int code;
    std::string output;
    std::string errors;
};

// Runs the tool itself.
Outcome tolvane(const std::vector<std::string>& arguments);

}  // namespace tolvane::agent::test
