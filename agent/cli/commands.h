// The sub-commands. Each returns the program's exit code or throws Error.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "os/agent_directories.h"

namespace tolvane::agent {

inline constexpr int kMaxSemaphores = 1024;
inline constexpr int kMaxRequestInterval = 1000000;

struct RunOptions {
    std::string type;  // "apache", "netscape", or empty: from the command's name
    std::string root;
    std::string library;
    std::optional<std::string> sslFactor;
    std::optional<std::string> counting;  // "calls" or "messages"
    std::optional<int> semaphores;
    std::optional<int> requestInterval;
    std::string configFile;  // empty: the server is not configured
    bool quiet = false;
    std::vector<std::string> command;
};

struct PrepareOptions {
    std::string root;
    std::string serverDirectory;  // the server's -d
    std::string serverFile;       // the server's -f
    std::vector<std::string> defines;
    std::vector<std::string> command;
};

struct ListOptions {
    bool json = false;
};

struct CleanOptions {
    bool dryRun = false;
};

struct DoctorOptions {
    bool repair = false;
    bool json = false;
};

struct ConfigureOptions {
    std::string file;
    std::optional<std::string> server;
    bool reset = false;
    bool removeAll = false;  // accepts a file without sites
};

struct ShowOptions {
    std::optional<std::string> server;
    bool json = false;
    double sampleSeconds = 0;
};

struct TopOptions {
    std::optional<std::string> server;
    double delay = 2;
    int count = 0;  // 0: unlimited
    bool json = false;
    std::string sortBy;
};

struct ServeOptions {
    std::string configFile;
    std::string listen = "127.0.0.1:9931";
    std::vector<std::string> allowedHosts;
    double interval = 5;  // seconds
    std::string stateDirectory = kCollectorState;
    std::string version;  // of this program
};

int runCommand(const RunOptions& options);
int prepareCommand(const PrepareOptions& options);
int listCommand(const ListOptions& options);
int cleanCommand(const CleanOptions& options);
int checkCommand(const std::string& file);
int configureCommand(const ConfigureOptions& options);
int showCommand(const ShowOptions& options);
int topCommand(const TopOptions& options);
int doctorCommand(const DoctorOptions& options);
int serveCommand(const ServeOptions& options);

}  // namespace tolvane::agent
