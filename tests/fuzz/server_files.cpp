// The readers of a server's configuration files against one that goes word by
// word. The first byte of an input says which server it is, the second one the
// length of the module info file; the rest is the server's own file.
#include <fcntl.h>
#include <unistd.h>

#include <cstring>

#include "fuzzing.h"
#include "plain_server_files.h"
#include "shim_utils/discovery/port_table.h"
#include "shim_utils/discovery/server_discovery.h"
#include "shim_utils/platform/log.h"
#include "support/sandbox.h"
#include "tolvane/internal/shim_tables.h"

namespace tolvane {

// Without its file; and every text ends.
void printErrorMsg(const char* text) {
    fuzz::mustAgree(std::strlen(text) < 2048, "message length");
}

namespace fuzz {
namespace {

// A file that is written anew for every input.
class FilledFile {
  public:
    explicit FilledFile(const char* name)
        : path_(std::string(test::kServerRoot) + "/" + name), hidden_(path_ + ".hidden") {
        file_ = open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        mustAgree(file_ >= 0, "file for the input");
    }

    void fill(std::string_view text) {
        show(true);
        const bool done = ftruncate(file_, 0) == 0 && pwrite(file_, text.data(), text.size(), 0) ==
                                                          static_cast<ssize_t>(text.size());
        mustAgree(done, "writing the input");
    }
    // Whether there is such a file.
    void show(bool shown) {
        if (shown == shown_) return;
        const std::string& from = shown ? hidden_ : path_;
        mustAgree(rename(from.c_str(), (shown ? path_ : hidden_).c_str()) == 0, "renaming");
        shown_ = shown;
    }

  private:
    std::string path_;
    std::string hidden_;
    bool shown_ = true;
    int file_;
};

// A byte of 0xF0 or more stands for copies of the one behind it: lines longer
// than any buffer come from short inputs. A few such lines are enough.
std::string withRepeats(std::string_view text) {
    std::string whole;
    for (Input input(text); !input.empty();) {
        const unsigned byte = input.take();
        const bool repeats = byte >= 0xF0 && whole.size() < 2048;
        whole.append(repeats ? (byte - 0xEF) * 64 : 1,
                     static_cast<char>(repeats ? input.take() : byte));
    }
    return whole;
}

void clearTables() {
    webServerType = kApacheProcesses;
    maxNumProcess = 1;
    plainAddresses.count = sslAddresses.count = 0;
    plainPorts = {};
    sslPorts = {};
}

bool same(const PortTable& table, const std::vector<PlainAddress>& expected) {
    if (table.numHttpPort != static_cast<int>(expected.size())) return false;
    for (std::size_t i = 0; i < expected.size(); ++i) {
        if (table.httpPort[i] != expected[i].port || table.ipAddress[i] != expected[i].address ||
            table.ipAddressName[i] != expected[i].name) {
            return false;
        }
    }
    return true;
}

void compareTables(const PlainServer& expected) {
    mustAgree(same(plainPorts, expected.plain), "plain addresses");
    mustAgree(same(sslPorts, expected.ssl), "SSL addresses");
}

void compareNetscape(const std::string& magnus) {
    static FilledFile file("config/magnus.conf");
    file.fill(magnus);
    getNetscapeConfigInfo();
    compareTables(readNetscapeFiles(magnus));
}

void compareApache(const ApacheFiles& files) {
    static FilledFile conf("conf/httpd.conf");
    static FilledFile info("logs/.tolvane_info");
    conf.fill(files.conf);
    if (files.hasModuleInfo) info.fill(files.moduleInfo);
    info.show(files.hasModuleInfo);
    files.sslMode ? setenv("SSL_FACTOR", "startssl", 1) : unsetenv("SSL_FACTOR");

    getApacheConfigInfo();
    const PlainServer expected = readApacheFiles(files);
    compareTables(expected);
    mustAgree(webServerType == expected.type, "server type");
    mustAgree(maxNumProcess == expected.maxProcesses, "processes");
}

}  // namespace
}  // namespace fuzz
}  // namespace tolvane

int LLVMFuzzerInitialize(int*, char***) {
    tolvane::test::enterSandbox();
    std::strcpy(tolvane::rootDir, (std::string(tolvane::test::kServerRoot) + "/").c_str());
    return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace tolvane::fuzz;
    Input input(textOf(data, size));
    const unsigned kind = input.take() % 5;
    const std::string info = withRepeats(input.take(input.take()));
    const std::string file = withRepeats(input.rest());
    tolvane::fuzz::clearTables();
    if (kind == 4) {
        compareNetscape(file);
    } else {
        compareApache({kind % 2 != 0, kind / 2 != 0, info, file});
    }
    return 0;
}
