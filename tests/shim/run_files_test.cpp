// What a start removes of an earlier run, and what it writes for the next one.
#include "shim_utils/lifecycle/run_files.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "measured_process.h"
#include "shim_utils/publication/semaphores.h"
#include "support/sandbox.h"

namespace tolvane::test {
namespace {
namespace fs = std::filesystem;

constexpr char kRecord[] = "/opt/server/logs/.tolvane";
constexpr char kElsewhere[] = "/opt/server/htdocs/file";
constexpr int kRecords = 2;

struct EarlierRun {
    int segment = -1;
    pid_t pid = -1;
    std::string handoff;
};

// A segment's records, attached for a while.
class Records {
  public:
    explicit Records(int segment) : address_(static_cast<char*>(shmat(segment, nullptr, 0))) {
        EXPECT_NE(reinterpret_cast<std::intptr_t>(address_), -1);
    }
    ~Records() { shmdt(address_); }
    Records(const Records&) = delete;
    Records& operator=(const Records&) = delete;

    std::int32_t& semaphore(int i) {
        return reinterpret_cast<ResultStruct*>(address_ + kConfigSize)[i].semaphoreId;
    }

  private:
    char* address_;
};

// Leaves the objects of a server that was killed.
EarlierRun leaveBehind(std::size_t bytes, bool listed) {
    inChild([&] {
        webServerType = kApacheProcesses;
        numStructures = kRecords;
        shmid = shmget(IPC_PRIVATE, bytes, IPC_CREAT | 0777);
        ASSERT_TRUE(createSemaphores(kRecords));
        for (int i = 0; i < kRecords; ++i) Records(shmid).semaphore(i) = semaphoreOf(i);
        if (listed) writeSemaphoreList();
        writePreviousRunRecord();
        writeHandoffFile();
    });
    const auto files = filesIn(kHandoffDirectory);
    EXPECT_EQ(files.size(), 1u);
    EarlierRun run{std::stoi(readFile(kRecord).substr(std::strlen("Shmid="))), -1, files.at(0)};
    run.pid = std::stoi(fs::path(run.handoff).extension().string().substr(1));
    return run;
}

void writeRecord(int segment, const std::string& file) {
    writeFile(kRecord, "Shmid=" + std::to_string(segment) + "\nFile=" + file +
                           "\nStructures=" + std::to_string(kRecords) + "\n");
}

void shiftTime(const std::string& path, int seconds) {
    fs::last_write_time(path, fs::last_write_time(path) + std::chrono::seconds(seconds));
}

// Replaces the file by an object of another kind.
void replace(const std::string& path, const std::string& kind) {
    if (kind == "hard link") fs::create_hard_link(path, kElsewhere);
    if (kind == "hard link" || kind == "file") return;
    fs::rename(path, kElsewhere);
    if (kind == "symbolic link") fs::create_symlink(kElsewhere, path);
    if (kind == "directory") fs::create_directory(path);
    if (kind == "fifo") {
        EXPECT_EQ(mkfifo(path.c_str(), 0600), 0);
    }
}

struct Case {
    const char* what;
    std::function<void(const EarlierRun&)> change;
    const char* left;                 // segments, semaphore sets, files
    std::vector<const char*> logged;  // what each line is about
    std::size_t bytes = segmentSize(kRecords);
    bool listed = false;  // the run has listed its semaphores
};

class RunFiles : public testing::Test {
  protected:
    void SetUp() override {
        std::strcpy(rootDir, "/opt/server/");
        clear();
    }
    void TearDown() override { clear(); }

    static void clear() {
        ASSERT_EQ(unshare(CLONE_NEWIPC), 0);
        for (const auto* directory : {kHandoffDirectory, "/opt/server/logs", "/opt/server/htdocs"})
            for (const auto& file : filesIn(directory)) fs::remove_all(file);
    }

    static void expectRemoved(const std::vector<Case>& cases) {
        for (const Case& c : cases) {
            SCOPED_TRACE(c.what);
            clear();
            const EarlierRun run = leaveBehind(c.bytes, c.listed);
            c.change(run);
            LogTail log;
            removeEarlierRun();
            const bool file = fs::exists(fs::symlink_status(run.handoff));
            EXPECT_EQ(std::to_string(systemVObjects("shm")) + " " +
                          std::to_string(systemVObjects("sem")) + " " + (file ? "1" : "0"),
                      c.left);
            const auto lines = log.next();
            ASSERT_EQ(lines.size(), c.logged.size()) << testing::PrintToString(lines);
            for (std::size_t i = 0; i < lines.size(); ++i)
                EXPECT_NE(lines[i].find(c.logged[i]), std::string::npos) << lines[i];
        }
    }
};

void setMode(const EarlierRun& run, unsigned short mode) {
    shmid_ds status{};
    ASSERT_EQ(shmctl(run.segment, IPC_STAT, &status), 0);
    status.shm_perm.mode = mode;
    ASSERT_EQ(shmctl(run.segment, IPC_SET, &status), 0);
}

// Identifiers are reused after a reboot: the one in the record is another server's.
void giveSegmentToAnother(const EarlierRun& run) {
    const int other = shmget(IPC_PRIVATE, segmentSize(kRecords), IPC_CREAT | 0777);
    for (int i = 0; i < kRecords; ++i)
        Records(other).semaphore(i) = Records(run.segment).semaphore(i);
    writeRecord(other, run.handoff);
    writeFile(run.handoff, "Shmid=" + std::to_string(other) + "\n");
    shmctl(run.segment, IPC_RMID, nullptr);
}

TEST_F(RunFiles, OnlyTheSegmentOfTheRecordIsRemoved) {
    expectRemoved({
        {"as it was left", [](auto&) {}, "0 0 0", {}},
        {"segment gone", [](auto& r) { shmctl(r.segment, IPC_RMID, nullptr); }, "0 2 0", {}},
        {"another process's", giveSegmentToAnother, "1 2 0", {"Segment"}},
        {"younger", [](auto&) { shiftTime(kRecord, -10); }, "1 2 1", {"Segment", "file"}},
        {"much older", [](auto&) { shiftTime(kRecord, 3600); }, "1 2 1", {"Segment", "file"}},
        {"mode", [](auto& r) { setMode(r, 0700); }, "1 2 1", {"Segment", "file"}},
        {"size", [](auto&) {}, "1 2 1", {"Segment", "file"}, segmentSize(kRecords) + 8},
        {"no file named", [](auto& r) { writeRecord(r.segment, ""); }, "1 2 1", {"Segment"}},
        {"two files",
         [](auto& r) { writeRecord(r.segment, r.handoff + "\nFile=/opt/server/x"); },
         "1 2 1",
         {"Segment", "file"}},
    });
}

std::function<void(const EarlierRun&)> nameSet(int semaphores, int mode, int delay = 0) {
    return [=](const EarlierRun& run) {
        std::this_thread::sleep_for(std::chrono::seconds(delay));
        const int set = semget(IPC_PRIVATE, semaphores, IPC_CREAT | mode);
        Records(run.segment).semaphore(0) = set;
    };
}

// Any local user can write into a segment. The set of a record that names a
// foreign set cannot be found any more.
TEST_F(RunFiles, OnlySemaphoresMadeWithTheSegmentAreRemoved) {
    expectRemoved({
        {"private", nameSet(1, 0600), "0 2 0", {"semaphore"}},
        {"two in a set", nameSet(2, 0777), "0 2 0", {"semaphore"}},
        {"younger", nameSet(1, 0777, 4), "0 2 0", {"semaphore"}},
        {"gone already",
         [](auto& r) { semctl(Records(r.segment).semaphore(0), 0, IPC_RMID); },
         "0 0 0",
         {}},
        {"none", [](auto& r) { Records(r.segment).semaphore(0) = -1; }, "0 1 0", {}},
    });
}

void touchSemaphores(const EarlierRun& run) {
    std::this_thread::sleep_for(std::chrono::seconds(4));
    for (int i = 0; i < kRecords; ++i) semctl(Records(run.segment).semaphore(i), 0, SETVAL, 0);
}

// Changes by other users to the segment or the sets then have no effect.
TEST_F(RunFiles, ListedSemaphoresAreRemovedAndNoOthers) {
    const auto bytes = segmentSize(kRecords);
    const std::string list = "/opt/server/logs/.tolvane_semaphores";
    expectRemoved({
        {"foreign set in the segment", nameSet(1, 0777), "0 1 0", {}, bytes, true},
        {"sets changed since", touchSemaphores, "0 0 0", {}, bytes, true},
        {"sets changed, no list", touchSemaphores, "0 2 0", {"semaphore"}, bytes, false},
        {"another run's list",
         [&](auto& r) {
             nameSet(1, 0600)(r);
             writeFile(list, "Shmid=4711\nSemaphores=0 1 2 \n");
         },
         "0 2 0",
         {"semaphore"},
         bytes,
         true},
        {"list that others can write",
         [&](auto& r) {
             nameSet(1, 0600)(r);
             fs::permissions(list, fs::perms::all);
         },
         "0 2 0",
         {"semaphore"},
         bytes,
         true},
    });
}

TEST_F(RunFiles, NothingOfAnotherUserIsRemoved) {
    if (geteuid() != 0) GTEST_SKIP() << "needs two users";
    constexpr uid_t kOther = 12345;
    expectRemoved({
        {"record",
         [](auto&) { EXPECT_EQ(chown(kRecord, kOther, kOther), 0); },
         "1 2 1",
         {"Segment", "file"}},
        {"file",
         [](auto& r) { EXPECT_EQ(chown(r.handoff.c_str(), kOther, kOther), 0); },
         "0 0 1",
         {"file"}},
        {"semaphores",
         [](auto& r) {
             EXPECT_EQ(seteuid(kOther), 0);
             nameSet(1, 0777)(r);
             EXPECT_EQ(seteuid(0), 0);
         },
         "0 2 0",
         {"semaphore"}},
    });
}

TEST_F(RunFiles, OnlyTheHandoffFileOfTheRecordIsRemoved) {
    const auto named = [](const std::string& before) {
        return [=](const EarlierRun& r) {
            fs::create_directory(std::string(kHandoffDirectory) + "d");
            writeRecord(r.segment, kHandoffDirectory + before + std::to_string(r.pid));
        };
    };
    const auto becomes = [](const std::string& kind) {
        return [=](const EarlierRun& r) { replace(r.handoff, kind); };
    };
    const auto holds = [](const std::string& text) {
        return [=](const EarlierRun& r) { writeFile(r.handoff, text); };
    };
    expectRemoved({
        {"way around", named("d/../webadapter."), "1 2 1", {"Segment", "file"}},
        {"longer number", named("webadapter.0"), "1 2 1", {"Segment", "file"}},
        {"other path",
         [](auto& r) { writeFile(kElsewhere, ""), writeRecord(r.segment, kElsewhere); },
         "1 2 1",
         {"Segment", "file"}},
        {"symbolic link", becomes("symbolic link"), "0 0 1", {"file"}},
        {"hard link", becomes("hard link"), "0 0 1", {"file"}},
        {"fifo", becomes("fifo"), "0 0 1", {"file"}},
        {"directory", becomes("directory"), "0 0 1", {"file"}},
        // Any local user can write into the file, so only its path and owner count.
        {"another segment's", holds("Listen=*:80\nShmid=2000000000\n"), "0 0 0", {}},
        {"no segment's", holds(" Shmid=0\n"), "0 0 0", {}},
        {"long", holds(std::string(100'000, 'x')), "0 0 0", {}},
        {"another's, segment gone",
         [](auto& r) {
             writeFile(r.handoff, "Shmid=2000000000\n");
             shmctl(r.segment, IPC_RMID, nullptr);
         },
         "0 2 1",
         {"file"}},
        {"gone", [](auto& r) { fs::remove(r.handoff); }, "0 0 0", {}},
    });
    EXPECT_FALSE(fs::exists(kElsewhere));
}

TEST_F(RunFiles, InvalidRecordRemovesNothing) {
    const auto becomes = [](const std::string& kind) {
        return [=](const EarlierRun&) { replace(kRecord, kind); };
    };
    const std::string garbage(100'000, 'x');
    expectRemoved({
        {"symbolic link", becomes("symbolic link"), "1 2 1", {kRecord}},
        {"hard link", becomes("hard link"), "1 2 1", {kRecord}},
        {"fifo", becomes("fifo"), "1 2 1", {kRecord}},
        {"directory", becomes("directory"), "1 2 1", {kRecord}},
        {"huge",
         [&](auto&) { writeFile(kRecord, readFile(kRecord) + garbage); },
         "1 2 1",
         {kRecord}},
        {"garbage", [&](auto&) { writeFile(kRecord, garbage.substr(0, 1500)); }, "1 2 1", {}},
        {"empty", [](auto&) { writeFile(kRecord, ""); }, "1 2 1", {}},
        {"missing", [](auto&) { fs::remove(kRecord); }, "1 2 1", {"file not Exist for shared mem"}},
    });
}

TEST_F(RunFiles, WritesThroughNoLinkFifoOrDirectory) {
    const std::string handoff = kHandoffDirectory + ("webadapter." + std::to_string(getpid()));
    const struct {
        std::string path;
        void (*write)();
        std::string message;
    } files[] = {
        {kRecord, writePreviousRunRecord,
         std::string(kRecord) + " File cannot be created for writing"},
        {handoff, writeHandoffFile, "cannot open " + handoff + " File "},
    };
    for (const auto& [path, write, message] : files) {
        for (const std::string kind : {"file", "hard link", "symbolic link", "fifo", "directory"}) {
            SCOPED_TRACE(path + " " + kind);
            clear();
            writeFile(path, "old and longer than what is written there");
            fs::permissions(path, fs::perms::owner_read);
            replace(path, kind);
            const std::string before = readFile(kElsewhere);
            LogTail log;
            write();
            const bool written = kind == "file" || kind == "hard link";
            EXPECT_EQ(log.next(), written ? std::vector<std::string>{} : std::vector{message});
            EXPECT_EQ(readFile(kElsewhere), before);
            if (!written) continue;
            EXPECT_NE(readFile(path).find("Shmid="), std::string::npos);
            const auto all = fs::status(path).permissions() & fs::perms::all;
            EXPECT_EQ(all == fs::perms::all, path == handoff);
        }
    }
}

// The agent would read a part of the identifier as the whole.
TEST_F(RunFiles, RemovesAFileThatCannotBeWrittenWhole) {
    writeFile(kLogFile, "");
    inChild([] {
        const rlimit limit{20, 20};
        ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
        writeHandoffFile();
    });
    writeFile(kLogFile, "");
    EXPECT_EQ(filesIn(kHandoffDirectory), std::vector<std::string>{});
}

}  // namespace
}  // namespace tolvane::test
