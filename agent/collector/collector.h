// The loop that watches for servers, configures them and takes their counts.
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
    // Opens the state directory and loads what was kept. Throws Error, with
    // the holder's process id when another collector has the directory.
    explicit Collector(const CollectorOptions& options);
    ~Collector();
    Collector(const Collector&) = delete;
    Collector& operator=(const Collector&) = delete;

    // Calls `reader` while nothing changes.
    void read(const std::function<void(const CollectorState&)>& reader) const;

    // One round: looks for servers, configures those that need it, takes every
    // server's counts and keeps them.
    void round();

    // Looks at the configuration file now, without waiting for it to settle.
    void reload();

  private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace tolvane::agent
