// The readers of a server's configuration files against one that goes word by
// word. The first byte of an input says which server it is, the second one the
// length of the module info file; the rest is the server's own file.
#include <cstdlib>
#include <cstring>

#include "fuzzing.h"
#include "memory_files.h"
#include "plain_server_files.h"
#include "shim_utils/discovery/port_table.h"
#include "shim_utils/discovery/server_discovery.h"
#include "shim_utils/platform/log.h"
#include "tolvane/internal/shim_tables.h"

namespace tolvane {

// Without its file; and every text ends.
void printErrorMsg(const char* text) {
    fuzz::mustAgree(std::strlen(text) < 2048, "message length");
}

namespace fuzz {
namespace {

// A byte of 0xFF, the number and the byte behind it stand for copies of the
// latter: lines longer than any buffer come from short inputs. Few are enough.
class RepeatedText {
  public:
    std::string_view put(std::string_view text) {
        length_ = 0;
        for (Input input(text); !input.empty();) {
            const unsigned byte = input.take();
            if (byte != 0xFF || length_ >= kRepeats) {
                text_[length_++] = static_cast<char>(byte);
            } else {
                const std::size_t count = repeats(input.take());
                std::memset(text_ + length_, static_cast<int>(input.take()), count);
                length_ += count;
            }
            mustAgree(length_ < kSize - 16 * 64, "room for the input");
        }
        return {text_, length_};
    }

  private:
    // Mostly few: what is long takes long.
    static std::size_t repeats(unsigned number) {
        return number < 0xC0 ? number % 64 + 1 : (number % 16 + 1) * 64;
    }

    static constexpr std::size_t kRepeats = 1100;  // no repeats behind so many bytes
    static constexpr std::size_t kSize = 1 << 20;
    char text_[kSize];
    std::size_t length_ = 0;
};

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

void compareNetscape(std::string_view magnus) {
    holdFile("/server/config/magnus.conf", magnus);
    getNetscapeConfigInfo();
    compareTables(readNetscapeFiles(magnus));
}

void compareApache(const ApacheFiles& files) {
    static char sslOff[] = "SSL_FACTOR=start";
    static char sslOn[] = "SSL_FACTOR=startssl";
    putenv(files.sslMode ? sslOn : sslOff);
    holdFile("/server/conf/httpd.conf", files.conf);
    if (files.hasModuleInfo) holdFile("/server/logs/.tolvane_info", files.moduleInfo);
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
    std::strcpy(tolvane::rootDir, "/server/");
    clearenv();  // the readers look for variables at every execution
    return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace tolvane::fuzz;
    static RepeatedText info;
    static RepeatedText file;
    Input input(textOf(data, size));
    const unsigned kind = input.take() % 5;
    const std::string_view moduleInfo = info.put(input.take(input.take()));
    const std::string_view ownFile = file.put(input.rest());
    clearTables();
    removeFiles();
    if (kind == 4) {
        compareNetscape(ownFile);
    } else {
        compareApache({kind % 2 != 0, kind / 2 != 0, moduleInfo, ownFile});
    }
    return 0;
}
