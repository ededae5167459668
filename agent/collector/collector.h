// The loop that finds servers, configures them and collects their counts.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "collector/state.h"

namespace tolvane::agent {

struct CollectorOptions {
    std::string configFile;  // empty: servers are not configured
    std::string stateDirectory;
    double interval = 5;  // seconds
};

class Collector {
  public:
    // Opens the state directory and loads the saved totals. Throws Error, with the
    // process id of another collector that uses the directory.
    explicit Collector(const CollectorOptions& options);
    ~Collector();
    Collector(const Collector&) = delete;
    Collector& operator=(const Collector&) = delete;

    // Calls `reader` under the mutex, so the state does not change meanwhile.
    void read(const std::function<void(const CollectorState&)>& reader) const;

    // One round: finds servers, configures those that need it, collects every
    // server's counts and saves the totals.
    void round();

    // Between two rounds: collects the counts that the next round will add to the totals,
    // so that no counter grows by 4 GiB unseen.
    void collectEarly();

    // Reads the configuration file at once.
    void reload();

  private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace tolvane::agent
