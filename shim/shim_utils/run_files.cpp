#include "run_files.h"

#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstring>

#include "config_lines.h"
#include "log.h"
#include "semaphores.h"
#include "server_path.h"
#include "text.h"
#include "tolvane/shim_tables.h"

namespace tolvane {
namespace {

// Small: the handoff file may have to be deleted inside an accept.
Text<64> handoffPath() {
    Text<64> path;
    path.add(kHandoffDirectory).add(kHandoffPrefix).add(getpid());
    return path;
}

ServerPath recordPath() {
    return serverPath("logs/.tolvane");
}

void logAbout(const char* before, const char* path, const char* after) {
    Text<1024> message;
    message.add(before).add(path).add(after);
    printErrorMsg(message.text());
}

struct EarlierRun {
    int segment = -1;  // -1: the record names none
    char handoffFile[1024] = "";
    int structures = 0;
};

// The text behind `key` when `line` begins with it, else null.
const char* valueOfKey(const char* line, const char* key) {
    std::size_t length = std::strlen(key);
    return std::strncmp(line, key, length) == 0 ? line + length : nullptr;
}

EarlierRun readRecord(std::FILE* file) {
    EarlierRun run;
    char line[1024];
    while (std::fgets(line, sizeof line, file) != nullptr) {
        if (const char* id = valueOfKey(line, "Shmid="); id != nullptr) {
            run.segment = isDigit(*id) ? numberValue(id) : -1;
        } else if (const char* path = valueOfKey(line, "File="); path != nullptr) {
            wordValue(skipBlanks(path), run.handoffFile);
        } else if (const char* number = valueOfKey(line, "Structures="); number != nullptr) {
            run.structures = numberValue(skipBlanks(number));
            break;
        }
    }
    return run;
}

// How many records fit a segment of `size` bytes.
std::size_t recordsIn(std::size_t size) {
    return size < kConfigSize ? 0 : (size - kConfigSize) / kRecordSize;
}

void removeRecordSemaphores(int segment, std::size_t records) {
    void* address = shmat(segment, nullptr, SHM_RDONLY);
    if (address == reinterpret_cast<void*>(-1)) return;
    const char* record = static_cast<const char*>(address) + kConfigSize;
    for (std::size_t i = 0; i < records; ++i, record += kRecordSize) {
        removeSemaphore(reinterpret_cast<const ResultStruct*>(record)->semaphoreId);
    }
    shmdt(address);
}

// Identifiers are reused, so the one in the record may be somebody else's by
// now: a segment is removed only if it can be one of ours.
void removeSegment(const EarlierRun& run) {
    if (run.segment < 0 || run.segment == shmid) return;
    shmid_ds status;
    if (shmctl(run.segment, IPC_STAT, &status) == 0) {
        std::size_t fitting = recordsIn(status.shm_segsz);
        if (fitting == 0 || status.shm_segsz != segmentSize(fitting)) {
            Text<128> message;
            message.add("Segment ").add(run.segment);
            message.add(" of an earlier run belongs to another program now and stays");
            printErrorMsg(message.text());
            return;
        }
        auto named = static_cast<std::size_t>(run.structures);
        removeRecordSemaphores(run.segment, named < fitting ? named : fitting);
    }
    shmctl(run.segment, IPC_RMID, nullptr);
}

void writeAddresses(std::FILE* file, const PortTable& table, const char* separator) {
    for (int i = 0; i < table.numHttpPort; ++i, separator = ",") {
        std::fprintf(file, "%s%s:%d", separator, table.ipAddressName[i], table.httpPort[i]);
    }
}

}  // namespace

void removeEarlierRun() {
    ServerPath path = recordPath();
    std::FILE* file = std::fopen(path.text(), "re");
    if (file == nullptr) {
        logAbout("", path.text(), " file not Exist for shared mem check");
        return;
    }
    EarlierRun run = readRecord(file);
    std::fclose(file);
    removeSegment(run);
    if (run.handoffFile[0] != '\0') unlink(run.handoffFile);
}

void writePreviousRunRecord() {
    ServerPath path = recordPath();
    std::FILE* file = std::fopen(path.text(), "we");
    if (file == nullptr) {
        logAbout("", path.text(), " File cannot be created for writing");
        return;
    }
    std::fprintf(file, "Shmid=%d\nFile=%s\nStructures=%d\n", shmid, handoffPath().text(),
                 numStructures);
    std::fclose(file);
}

void writeHandoffFile() {
    Text<64> path = handoffPath();
    std::FILE* file = std::fopen(path.text(), "we");
    if (file == nullptr) {
        logAbout("cannot open ", path.text(), " File ");
        return;
    }
    std::fputs("Listen=", file);
    writeAddresses(file, plainPorts, "");
    writeAddresses(file, sslPorts, plainPorts.numHttpPort > 0 ? "," : "");
    std::fprintf(file, "\nShmid=%d\nServer_Type=%s\nStructures=%d\n", shmid,
                 webServerType == kNetscape ? "NETSCAPE" : "APACHE", numStructures);
    std::fclose(file);
    chmod(path.text(), 0777);
}

void deleteHandoffFile() {
    unlink(handoffPath().text());
}

}  // namespace tolvane
