// A publication in the middle of a server's call, and a call in the middle of a
// publication, always at the critical access.
#include <gtest/gtest.h>

#include <cstring>

#include "fake_clock.h"
#include "measured_process.h"
#include "page_trap.h"
#include "shim_utils/publication/publication.h"
#include "tolvane/entry_points.h"
#include "transfer.h"

namespace tolvane::test {
namespace {

constexpr char kRequest[] = "GET /x HTTP/1.1\r\nHost: a.test\r\n\r\n";
constexpr char kResponse[] = "HTTP/1.1 200 OK\r\n\r\n";

// A connection whose slot has a page boundary within a response time sum.
class InterruptedPublication : public testing::Test {
  protected:
    InterruptedPublication() : process_(kNetscape) {
        while (!sumStraddlesPages()) GETINDEX(kNetscape, fd_++);
        std::vector<std::string> categories(kMaxCategories, "/other");
        categories[static_cast<std::size_t>(category_)] = "/x";
        putIntoForce({{"a.test", categories}});
    }

    void accept() { countAccepted(fd_, kPlain); }
    void read() { received(fd_, 100, kRequest, sizeof kRequest - 1); }
    void write(std::int64_t microseconds) {
        fakeClock().step = microseconds;
        sent(fd_, 1000, kResponse, sizeof kResponse - 1);
    }
    void close() { countClosed(fd_); }

    ResultStruct& local() { return slotAt(fd_).result; }
    char* lastWordOfSum() {
        return reinterpret_cast<char*>(&local().category[0][category_]) + sizeof(CategoryCounters) -
               4;
    }

    double sharedSum() const { return shmPtr[0].category[0][category_].responseTimeSum; }

    void expectAllPublished() {
        publishSlots();
        EXPECT_EQ(counters(shmPtr[0]), counters(local()));
    }

  private:
    bool sumStraddlesPages() {
        for (category_ = 0; category_ < kMaxCategories; ++category_) {
            if (reinterpret_cast<std::uintptr_t>(lastWordOfSum()) % 4096 == 0) return true;
        }
        return false;
    }
    static std::string counters(ResultStruct record) {
        record.total.openConnections = record.site[0].openConnections = 0;
        for (CategoryCounters& category : record.category[0]) category.inProgress = 0;
        return describe(record);
    }

    MeasuredProcess process_;
    int fd_ = 0;
    int category_ = 0;
};

TEST_F(InterruptedPublication, InTheMiddleOfACallLosesNothing) {
    PageTrap trap([] { publishSlots(); });
    const std::function<void()> calls[] = {[this] { accept(); }, [this] { read(); },
                                           [this] { write(250'000); }, [this] { read(); },
                                           [this] { close(); }};
    int interrupted = 0;
    for (const auto& call : calls) {
        SCOPED_TRACE(++interrupted);
        trap.set(&local(), PROT_READ);
        call();
        EXPECT_EQ(trap.sprung(), interrupted);
        expectAllPublished();
    }
}

TEST_F(InterruptedPublication, InterruptedByACallLosesNothing) {
    accept();
    read();
    PageTrap trap([this] {
        write(250'000);
        read();
        write(500'000);
    });
    trap.set(lastWordOfSum(), PROT_NONE);
    publishSlots();
    EXPECT_EQ(trap.sprung(), 1);
    expectAllPublished();
}

TEST_F(InterruptedPublication, NeverPublishesHalfOfASum) {
    accept();
    read();
    write(3'145'728'015'625);  // both halves of the sum change, exactly
    expectAllPublished();
    const double before = sharedSum();
    double meanwhile = -1;
    read();
    PageTrap trap([&] {
        publishSlots();
        meanwhile = sharedSum();
    });
    trap.set(lastWordOfSum(), PROT_READ);
    write(1'000'250'000);
    EXPECT_EQ(trap.sprung(), 1);
    EXPECT_EQ(meanwhile, before);
    expectAllPublished();
    EXPECT_GT(sharedSum(), before);
}

}  // namespace
}  // namespace tolvane::test
