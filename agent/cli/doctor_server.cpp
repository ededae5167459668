// One live server: its process's variables, library, files, semaphores and
// configuration.
#include <fmt/format.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <optional>
#include <thread>

#include "cli/doctor_findings.h"
#include "cli/threaded_server.h"
#include "counts/counts.h"
#include "os/elf.h"
#include "os/error.h"
#include "os/listeners.h"
#include "os/process.h"
#include "os/text.h"
#include "servers/attached.h"
#include "servers/library.h"
#include "servers/uptake.h"

namespace tolvane::agent {

namespace {

using Environment = std::map<std::string, std::string>;

// The semaphore's units. Waits until the deadline while there are none: a publication
// holds the semaphore for microseconds.
int unitsOnceFree(std::int32_t id, std::chrono::steady_clock::time_point deadline) {
    for (;;) {
        int value = ::semctl(id, 0, GETVAL);
        if (value != 0 || std::chrono::steady_clock::now() > deadline) return value;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

bool isIn(const Environment& environment, const std::string& name, const std::string& value) {
    auto found = environment.find(name);
    return found != environment.end() && lower(found->second) == value;
}

// Whether the library takes connections of the server for SSL connections.
bool hasSslPorts(const Environment& environment) {
    auto root = environment.find("WEB_SERVER_ROOT");
    if (root == environment.end() || environment.count("SSL_FACTOR") == 0 ||
        isIn(environment, "SSL_FACTOR", "start")) {
        return false;
    }
    auto text = readFile(root->second + "/" + kApacheConfigurationFile);
    if (!text) return false;
    auto lines = splitLines(*text);
    return std::any_of(lines.begin(), lines.end(), [](std::string_view line) {
        std::string directive = lower(trim(line));
        return directive.starts_with("sslengine") && directive.ends_with("on");
    });
}

class Examiner {
  public:
    Examiner(const Server& server, Findings& findings)
        : server_(server), findings_(findings), name_("server " + nameOf(server)) {}

    void examine();

  private:
    void examineHandoff();
    void examineVariables(const Environment& environment);
    void examineRoot(const std::string& root);
    void examinePidFile(const std::string& root);
    void examineLibrary();
    void examineHttps(const Environment& environment);
    void examineSemaphores(const Sample& sample);
    void examineConfiguration(const Sample& sample);
    void examinePublication(const Sample& sample);
    void examineStoppedPublication(const Sample& sample);
    std::optional<std::time_t> lastPublication(const Sample& sample) const;

    void problem(const std::string& text, const std::string& remedy) {
        findings_.problem(name_ + ": " + text, remedy);
        sound_ = false;
    }
    void note(const std::string& text, const std::string& remedy) {
        findings_.note(name_ + ": " + text, remedy);
    }
    bool isApache() const { return server_.handoff.serverType == "APACHE"; }

    const Server& server_;
    Findings& findings_;
    std::string name_;
    bool sound_ = true;
};

void Examiner::examineHandoff() {
    if (server_.damage.empty()) return;
    problem(fmt::format("handoff file damaged: {}: {}; the server's segment is {}",
                        server_.handoff.path, server_.damage, server_.handoff.shmid),
            "tolvane doctor --repair");
}

void Examiner::examineVariables(const Environment& environment) {
    constexpr const char* kRestart = "restart it with 'tolvane run'";
    for (const char* name : {"WEB_SERVER", "WEB_SERVER_ROOT"}) {
        if (environment.count(name) == 0) problem(fmt::format("{} is not set", name), kRestart);
    }
    for (const char* name : {"NUM_SEMAPHORES", "REQUEST_INTERVAL"}) {
        auto found = environment.find(name);
        if (found == environment.end() || parseInt32(found->second)) continue;
        problem(fmt::format("{}={} is not a number", name, found->second), kRestart);
    }
    auto interval = environment.find("REQUEST_INTERVAL");
    if (interval != environment.end() && parseInt32(interval->second).value_or(1) <= 0) {
        problem(fmt::format("REQUEST_INTERVAL={} is not above 0", interval->second), kRestart);
    }
    auto counting = environment.find("TOLVANE_COUNTING");
    if (counting != environment.end() && counting->second != "messages" &&
        counting->second != "calls") {
        problem(fmt::format("TOLVANE_COUNTING={} is neither messages nor calls: socket calls are "
                            "counted",
                            printable(counting->second)),
                kRestart);
    }
    auto preload = environment.find("LD_PRELOAD");
    if (preload == environment.end() || preload->second.find(kLibraryName) == std::string::npos) {
        note(
            "LD_PRELOAD does not name libtolvane.so, so new programs that it starts are "
            "not measured",
            kRestart);
    }
    auto root = environment.find("WEB_SERVER_ROOT");
    if (root != environment.end()) examineRoot(root->second);
}

void Examiner::examineRoot(const std::string& root) {
    std::string file =
        root + "/" + (isApache() ? kApacheConfigurationFile : kNetscapeConfigurationFile);
    if (::access(file.c_str(), R_OK) != 0) {
        problem(fmt::format("{}: {}", file, std::strerror(errno)),
                "the next start will not be measured; prepare the root again");
    }
    std::string logs = root + "/logs";
    if (isApache() && ::access(logs.c_str(), W_OK) != 0) {
        problem(fmt::format("{}: {}", logs, std::strerror(errno)),
                "the server must be able to write its previous-run record there");
    }
    if (isApache()) examinePidFile(root);
}

void Examiner::examinePidFile(const std::string& root) {
    std::string file = root + "/" + kApachePidFile;
    auto text = readFile(file);
    if (!text) {
        problem(
            fmt::format("{}: {}", file, std::strerror(errno)),
            "link it to the server's PidFile; without it the segment stays when the server stops");
        return;
    }
    auto pid = parseInt32(trim(*text));
    if (server_.parentPid > 0 && pid != server_.parentPid) {
        problem(fmt::format("{} contains {}, but the main process in the segment is {}", file,
                            printable(trim(*text)), server_.parentPid),
                "link it to the PidFile of this server, then restart the server");
    }
}

void Examiner::examineLibrary() {
    auto mappings = processMappings(server_.process);
    if (!mappings) return;
    bool replaced = std::any_of(mappings->begin(), mappings->end(), [](const std::string& line) {
        return line.find(kLibraryName + std::string(" (deleted)")) != std::string::npos;
    });
    if (replaced)
        note("its library file was replaced since it started", "restart it to use the new library");
    std::string executable = fmt::format("/proc/{}/exe", server_.process);
    WordSize size = inspectExecutable(executable).wordSize;
    if (size != WordSize::kUnknown && findLibraries().count(size) == 0) {
        note(fmt::format(
                 "it is a {0}-bit program, and no {0}-bit library is installed with this program",
                 static_cast<int>(size)),
             "the next 'tolvane run' needs --library");
    }
}

void Examiner::examineHttps(const Environment& environment) {
    if (!isApache() || !hasSslPorts(environment)) return;
    constexpr const char* kNotRead =
        "HTTPS is not read: {}; of SSL connections only number and bytes are counted";
    if (!isIn(environment, "TOLVANE_COUNTING", "messages")) {
        note(fmt::format(kNotRead, "socket calls are counted"),
             "restart it with 'tolvane run --counting messages'");
        return;
    }
    auto mappings = processMappings(server_.process);
    if (!mappings) return;
    bool loaded = std::any_of(mappings->begin(), mappings->end(), [](const std::string& line) {
        return line.find("/libssl.so.") != std::string::npos;
    });
    if (!loaded) {
        note(fmt::format(kNotRead, "the server does not load OpenSSL as a shared library"),
             "use a build of the server that loads libssl.so.3 or libssl.so.1.1");
    }
}

void Examiner::examineSemaphores(const Sample& sample) {
    if (!isApache()) return;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    for (std::size_t i = 0; i < sample.records.size(); ++i) {
        std::int32_t id = sample.records[i].semaphoreId;
        int value = unitsOnceFree(id, deadline);
        if (value < 0 && errno != EACCES) {
            problem(
                fmt::format(
                    "the semaphore of record {} does not exist, so its counts stay in the workers",
                    i),
                "restart the server");
        } else if (value == 0) {
            pid_t last = ::semctl(id, 0, GETPID);
            problem(fmt::format("the semaphore of record {} is held, last used by process {} "
                                "({}), so nothing is published into the record",
                                i, last, processName(last)),
                    "continue or end that process; if it does not belong to the server, also "
                    "restart the server");
        } else if (value > 1) {
            problem(fmt::format("the semaphore of record {} has {} units", i, value),
                    "restart the server");
        }
    }
}

void Examiner::examineConfiguration(const Sample& sample) {
    if (sample.version == kVersionCreated) {
        note("no configuration, so only the totals are counted", "tolvane configure FILE");
        return;
    }
    if (sample.version >= kMaxVersion) {
        problem(fmt::format("version {} of the configuration is the highest possible, so no "
                            "process takes a later one",
                            sample.version),
                "find the writer, then restart the server");
    }
    if (!sample.config.steady) {
        problem("a configuration is unfinished", "run 'tolvane configure FILE' again");
        return;
    }
    if (!sample.config.complaint.empty()) {
        problem("the configuration is out of range: " + sample.config.complaint,
                "write a valid configuration with 'tolvane configure FILE'");
    }
    if (server_.pending > 0) {
        note(fmt::format("configuration {} is in force within {} s", sample.version,
                         server_.pending),
             "wait");
    } else if (noSiteCounted(sample)) {
        CountSet counts = countsOf(sample.records);
        note(fmt::format("no process uses configuration {}: {} counted, but no request for a site",
                         sample.version, plural(counts.total[&CounterBlock::requests], "request")),
             fmt::format("send a few requests to each worker or wait {} s, then compare the site "
                         "names with what clients send as Host",
                         2 * std::clamp(sample.config.info->interval, 1, 86400)));
    }
}

// Every publication locks the semaphore of its record. A collector locks it as well, so
// the time of the last lock is no evidence while one reads the server.
std::optional<std::time_t> Examiner::lastPublication(const Sample& sample) const {
    auto others = attachedProcesses(server_.handoff.shmid, server_.parentPid).others;
    std::time_t last = 0;
    for (const ResultStruct& record : sample.records) {
        semid_ds status{};
        pid_t user = ::semctl(record.semaphoreId, 0, GETPID);
        if (::semctl(record.semaphoreId, 0, IPC_STAT, &status) != 0) return std::nullopt;
        if (std::find(others.begin(), others.end(), user) != others.end()) return std::nullopt;
        last = std::max(last, static_cast<std::time_t>(status.sem_otime));
    }
    return last;
}

// A prefork process that counts calls publishes after some send calls, so a publication
// is certain only when there were more connections than that, over all processes.
void Examiner::examineStoppedPublication(const Sample& sample) {
    constexpr std::time_t kPatience = 120;  // seconds
    ServerMode mode = modeOf(server_.handoff, server_.process);
    auto last = isApache() && mode.known ? lastPublication(sample) : std::nullopt;
    if (!last) return;
    std::int32_t interval = std::clamp(sample.config.info->interval, 1, 86400);
    std::time_t silent = std::time(nullptr) - *last;
    if (silent < std::max<std::time_t>(kPatience, mode.threaded ? 3L * interval : 0)) return;
    std::size_t ended = endedConnections(portsOf(server_));
    bool each = mode.threaded || mode.messages;
    std::size_t enough = each ? 1 : server_.processes * static_cast<std::size_t>(mode.sendCalls);
    if (ended < enough) return;
    problem(fmt::format("nothing was published for {} s, although {} ended in the last minute",
                        silent, plural(ended, "connection")),
            fmt::format("see {} for the reason, then restart the server", kLogFile));
}

void Examiner::examinePublication(const Sample& sample) {
    examineStoppedPublication(sample);
    if (server_.published) return;
    note(
        "nothing is published yet, so every count is 0: " +
            publicationText(modeOf(server_.handoff, server_.process), sample.config.info->interval),
        "send requests");
}

void Examiner::examine() {
    examineHandoff();
    auto environment = server_.process > 0 ? processEnvironment(server_.process) : std::nullopt;
    if (environment) {
        examineVariables(*environment);
        if (auto fault = threadsFault(server_)) problem(fault->text, fault->remedy);
        examineLibrary();
        examineHttps(*environment);
    } else {
        note("its process cannot be examined", "run doctor as root");
    }
    try {
        Sample sample = takeSample(server_);
        examineSemaphores(sample);
        examineConfiguration(sample);
        examinePublication(sample);
    } catch (const Error& error) {
        problem(error.what(), "tolvane list");
    }
    if (sound_) findings_.ok(fmt::format("{}: {}", name_, server_.reason));
}

}  // namespace

void examineLiveServer(const Server& server, Findings& findings) {
    Examiner(server, findings).examine();
}

}  // namespace tolvane::agent
