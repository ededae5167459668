// After a reboot the system assigns identifiers and process ids again, and every
// user can write to an old segment. Therefore an object is removed only if its own
// attributes show that the run which wrote the record created it.
#include <fcntl.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "shim_utils/discovery/config_lines.h"
#include "shim_utils/lifecycle/run_files.h"
#include "shim_utils/platform/log.h"
#include "shim_utils/platform/own_files.h"
#include "shim_utils/platform/text.h"
#include "shim_utils/publication/semaphores.h"
#include "tolvane/internal/shim_tables.h"

namespace tolvane {
namespace {

// Maximum seconds from a segment's creation to the creation of its semaphores, and
// to the writing of the record.
constexpr time_t kSemaphoresWithin = 2;
constexpr time_t kRecordWithin = 60;

// Maximum size of a record or handoff file. The shim writes shorter files.
constexpr std::size_t kLargestFile = 2047;

// The content of a file of less than `Size` bytes.
template <std::size_t Size>
struct WholeFile {
    struct stat status;
    char text[Size];
};
using SmallFile = WholeFile<kLargestFile + 1>;

enum class Found { kNothing, kSmallFile, kLongFile, kSomethingElse };

// Reads the whole file if it is a regular file with a single name. Does not follow
// links or wait for FIFOs.
template <std::size_t Size>
Found readWholeFile(const char* path, WholeFile<Size>& file) {
    int fd = openOwn(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
    if (fd < 0) return errno == ELOOP ? Found::kSomethingElse : Found::kNothing;
    bool plain =
        fstat(fd, &file.status) == 0 && S_ISREG(file.status.st_mode) && file.status.st_nlink == 1;
    long length = plain ? syscall(SYS_read, fd, file.text, sizeof file.text) : -1;
    closeOwn(fd);
    if (length < 0) return Found::kSomethingElse;
    const bool whole = length < static_cast<long>(Size);
    file.text[whole ? length : static_cast<long>(Size) - 1] = '\0';
    return whole ? Found::kSmallFile : Found::kLongFile;
}

// Terminates the line at `text` and returns the next line; null after the last.
char* cutLine(char* text) {
    char* end = std::strchr(text, '\n');
    if (end == nullptr) return nullptr;
    *end = '\0';
    return end + 1;
}

// The text after `key` if `line` begins with it, else null.
const char* valueOfKey(const char* line, const char* key) {
    std::size_t length = std::strlen(key);
    return std::strncmp(line, key, length) == 0 ? line + length : nullptr;
}

int identifierAt(const char* digits) {
    return isDigit(*digits) ? numberValue(digits) : -1;
}

struct EarlierRun {
    int segment = -1;        // -1: the record names no segment
    bool namesFile = false;  // the record names a file of any kind
    int pid = kUnknownPid;   // in that file's name; unknown: not the name of a handoff file
    int structures = 0;
    uid_t owner;     // of the record
    time_t written;  // time of the record's last change
};

// The process id in the handoff file's name at `text`; unknown for any other path.
int pidOfHandoffFile(const char* text) {
    char path[128];
    wordValue(text, path);
    const char* name = valueOfKey(path, kHandoffDirectory);
    const char* digits = name != nullptr ? valueOfKey(name, kHandoffPrefix) : nullptr;
    int pid = digits != nullptr ? identifierAt(digits) : kUnknownPid;
    return pid > 0 && std::strcmp(path, handoffPath(pid).text()) == 0 ? pid : kUnknownPid;
}

EarlierRun readRecord(SmallFile& file) {
    EarlierRun run;
    run.owner = file.status.st_uid;
    run.written = file.status.st_mtime;
    char* next;
    for (char* line = file.text; line != nullptr; line = next) {
        next = cutLine(line);
        if (const char* id = valueOfKey(line, "Shmid="); id != nullptr) {
            run.segment = identifierAt(id);
        } else if (const char* path = valueOfKey(line, "File="); path != nullptr) {
            run.namesFile = *skipBlanks(path) != '\0';
            run.pid = pidOfHandoffFile(skipBlanks(path));
        } else if (const char* number = valueOfKey(line, "Structures="); number != nullptr) {
            run.structures = numberValue(skipBlanks(number));
            break;
        }
    }
    return run;
}

// The segment that a handoff file names.
int segmentOfHandoffFile(SmallFile& file) {
    char* next;
    for (char* line = file.text; line != nullptr; line = next) {
        next = cutLine(line);
        if (const char* id = valueOfKey(line, "Shmid="); id != nullptr) return identifierAt(id);
    }
    return -1;
}

// How many records fit a segment of `size` bytes.
std::size_t recordsIn(std::size_t size) {
    return size < kConfigSize ? 0 : (size - kConfigSize) / kRecordSize;
}

// The attribute that shows that the run did not create the segment; null if no
// attribute does.
const char* differingAttribute(const shmid_ds& segment, const EarlierRun& run) {
    std::size_t fitting = recordsIn(segment.shm_segsz);
    if (fitting == 0 || segment.shm_segsz != segmentSize(fitting)) return "size";
    if ((segment.shm_perm.mode & 0777) != 0777) return "mode";
    if (segment.shm_cpid != run.pid) return "creating process";
    if (segment.shm_perm.cuid != run.owner || segment.shm_perm.uid != run.owner) return "owner";
    bool justBefore =
        segment.shm_ctime <= run.written && segment.shm_ctime >= run.written - kRecordWithin;
    return justBefore ? nullptr : "creation time";
}

bool looksLikeOurs(const shmid_ds& segment, const semid_ds& set) {
    return set.sem_nsems == 1 && (set.sem_perm.mode & 0777) == 0777 &&
           set.sem_perm.cuid == segment.shm_perm.cuid && set.sem_perm.uid == segment.shm_perm.uid;
}

bool createdWith(const shmid_ds& segment, const semid_ds& set) {
    return looksLikeOurs(segment, set) && set.sem_ctime >= segment.shm_ctime &&
           set.sem_ctime <= segment.shm_ctime + kSemaphoresWithin;
}

// Removes the semaphores in the run's own list. The run's segment still exists, so
// the machine has not been restarted, and no other program uses any of these
// identifiers. False if there is no such list.
bool removeListedSemaphores(const EarlierRun& run, const shmid_ds& segment) {
    static WholeFile<kSemaphoreListSize> file;
    ServerPath path = semaphoreListPath();
    if (readWholeFile(path.text(), file) != Found::kSmallFile) return false;
    if (file.status.st_uid != run.owner || (file.status.st_mode & 077) != 0) return false;
    char* list = cutLine(file.text);
    const char* id = valueOfKey(file.text, "Shmid=");
    if (list == nullptr || id == nullptr || identifierAt(id) != run.segment) return false;
    const char* next = valueOfKey(list, "Semaphores=");
    if (next == nullptr) return false;
    for (int i = 0; i < run.structures && isDigit(*next); ++i) {
        semid_ds set;
        int semaphore = numberValue(next);
        if (semctl(semaphore, 0, IPC_STAT, &set) == 0 && looksLikeOurs(segment, set)) {
            removeSemaphore(semaphore);
        }
        next = skipBlanks(next + wordLength(next));
    }
    return true;
}

void logSemaphoresThatStay(int count, int first, int segment) {
    Text<160> message;
    message.add("Segment ").add(segment).add(" of an earlier run names ").add(count);
    message.add(" semaphore sets that are not its own and stay, first ").add(first);
    printErrorMsg(message.text());
}

// Without the list: removes the semaphores that the segment names, if their
// creation times show that they were created with it.
void removeRecordSemaphores(const EarlierRun& run, const shmid_ds& segment) {
    void* address = shmat(run.segment, nullptr, SHM_RDONLY);
    if (address == reinterpret_cast<void*>(-1)) return;
    auto* record = reinterpret_cast<const ResultStruct*>(static_cast<char*>(address) + kConfigSize);
    auto named = static_cast<std::size_t>(run.structures);
    std::size_t fitting = recordsIn(segment.shm_segsz);
    int foreign = 0;
    int firstForeign = -1;
    for (std::size_t i = 0; i < named && i < fitting; ++i) {
        // Read once, because another process may write to the segment.
        int id = __atomic_load_n(&record[i].semaphoreId, __ATOMIC_RELAXED);
        semid_ds set;
        bool readable = semctl(id, 0, IPC_STAT, &set) == 0;
        if (readable && createdWith(segment, set)) {
            removeSemaphore(id);
        } else if (readable || errno == EACCES) {
            if (foreign++ == 0) firstForeign = id;
        }
    }
    shmdt(address);
    if (foreign > 0) logSemaphoresThatStay(foreign, firstForeign, run.segment);
}

void logSegmentThatStays(int segment, const char* attribute) {
    Text<160> message;
    message.add("Segment ").add(segment).add(" is not the earlier run's and stays: its ");
    message.add(attribute).add(" differs");
    printErrorMsg(message.text());
}

// The state of the run's segment, which shows whether the handoff file is the run's.
enum class Segment { kRemoved, kGone, kMayBeOthers };

Segment removeSegment(const EarlierRun& run) {
    shmid_ds segment;
    if (run.segment < 0) return Segment::kGone;
    if (shmctl(run.segment, IPC_STAT, &segment) != 0) {
        if (errno != EACCES) return Segment::kGone;
        logSegmentThatStays(run.segment, "mode");
        return Segment::kMayBeOthers;
    }
    const char* attribute = differingAttribute(segment, run);
    if (attribute == nullptr) {
        if (!removeListedSemaphores(run, segment)) removeRecordSemaphores(run, segment);
        shmctl(run.segment, IPC_RMID, nullptr);
        return Segment::kRemoved;
    }
    logSegmentThatStays(run.segment, attribute);
    // The creator's id is 0 if it belongs to another process namespace.
    bool others = segment.shm_cpid == run.pid || segment.shm_cpid == 0;
    return others ? Segment::kMayBeOthers : Segment::kGone;
}

// Whether the segment exists and process `pid` created it.
bool leadsToLiveSegment(int segment, int pid) {
    shmid_ds status;
    return segment >= 0 && shmctl(segment, IPC_STAT, &status) == 0 && status.shm_cpid == pid;
}

// Any user can write to the file. If the run's segment still existed, the machine
// has not been restarted. The file is then the run's, unless a later process with
// the same id has created another segment.
bool isFileOfRun(SmallFile& file, const EarlierRun& run, Segment segment) {
    if (file.status.st_uid != run.owner || run.segment < 0) return false;
    int named = segmentOfHandoffFile(file);
    if (named == run.segment) return segment != Segment::kMayBeOthers;
    return segment == Segment::kRemoved && !leadsToLiveSegment(named, run.pid);
}

void removeHandoffFile(const EarlierRun& run, Segment segment) {
    if (!run.namesFile) return;
    if (run.pid == kUnknownPid) {
        printErrorMsg("The file that the earlier run's record names is no handoff file and stays");
        return;
    }
    HandoffPath path = handoffPath(run.pid);
    SmallFile file;
    Found found = readWholeFile(path.text(), file);
    if (found == Found::kNothing) return;
    if (found != Found::kSomethingElse && isFileOfRun(file, run, segment)) {
        unlink(path.text());
        return;
    }
    Text<160> message;
    message.add("Handoff file ").add(path.text()).add(" is not the earlier run's and stays");
    printErrorMsg(message.text());
}

// Logs the reason and returns false if there is no record that can be read.
bool findRecord(EarlierRun& run) {
    ServerPath path = recordPath();
    SmallFile file;
    Found found = readWholeFile(path.text(), file);
    if (found == Found::kSmallFile) {
        run = readRecord(file);
        return true;
    }
    Text<1024> message;
    message.add(path.text());
    message.add(found == Found::kNothing
                    ? " file not Exist for shared mem check"
                    : " is no record of an earlier run: nothing of it is removed");
    printErrorMsg(message.text());
    return false;
}

}  // namespace

void removeEarlierRun() {
    EarlierRun run;
    if (!findRecord(run)) return;
    removeHandoffFile(run, removeSegment(run));
}

}  // namespace tolvane
