#include "shim_utils/platform/local_time.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>

#include "shim_utils/platform/own_files.h"
#include "shim_utils/platform/text.h"
#include "shim_utils/platform/time_rule.h"

namespace tolvane {
namespace {

constexpr char kZoneDirectory[] = "/usr/share/zoneinfo/";
constexpr char kDefaultZone[] = "/etc/localtime";
constexpr std::size_t kZoneSize = 256;

long long bigEndian(const unsigned char* bytes, int width) {
    long long value = bytes[0] < 0x80 ? bytes[0] : bytes[0] - 0x100;
    for (int i = 1; i < width; ++i) value = value * 0x100 + bytes[i];
    return value;
}

// A time zone file. It is too long for a server thread's stack, so each value is
// read when it is needed. The file's content is not trusted: counts are bounded,
// and a read beyond the end fails.
class ZoneFile {
  public:
    explicit ZoneFile(const char* zone) {
        Text<sizeof kZoneDirectory + kZoneSize> path;
        if (zone[0] != '/') path.add(kZoneDirectory);
        fd_ = openOwn(path.add(zone).text(), O_RDONLY | O_NONBLOCK);
    }
    ~ZoneFile() {
        if (fd_ >= 0) closeOwn(fd_);
    }
    ZoneFile(const ZoneFile&) = delete;
    ZoneFile& operator=(const ZoneFile&) = delete;

    // A file has a block with times of 32 bits and, from version 2 on, another block
    // with times of 64 bits.
    bool utcOffset(long long seconds, long& offset) {
        if (fd_ < 0 || !readHeader(0, 4)) return false;
        if (version_ >= '2' && !readHeader(end_, 8)) return false;
        const long passed = transitionsUntil(seconds);
        if (passed < 0) return false;
        if (passed == transitions_ && offsetOfFooter(seconds, offset)) return true;
        return offsetAfter(passed, offset);
    }

  private:
    bool read(long position, void* bytes, std::size_t size) const {
        return syscall(SYS_lseek, fd_, position, SEEK_SET) == position &&
               syscall(SYS_read, fd_, bytes, size) == static_cast<long>(size);
    }

    bool readHeader(long position, int width) {
        constexpr int kHeaderSize = 44;
        unsigned char header[kHeaderSize];
        if (!read(position, header, kHeaderSize) || std::memcmp(header, "TZif", 4) != 0)
            return false;
        long counts[6];  // UT flags, standard flags, leap seconds, transitions, types, letters
        for (int i = 0; i < 6; ++i) {
            counts[i] = static_cast<long>(bigEndian(header + 20 + 4 * i, 4));
            if (counts[i] < 0 || counts[i] > 0xFFFF) return false;
        }
        version_ = header[4];
        width_ = width;
        times_ = position + kHeaderSize;
        transitions_ = counts[3];
        types_ = times_ + transitions_ * (width + 1);
        end_ = types_ + counts[4] * 6 + counts[5] + counts[2] * (width + 4) + counts[1] + counts[0];
        return true;
    }

    // The number of transitions until `seconds`; -1 if they cannot be read.
    long transitionsUntil(long long seconds) const {
        long low = 0;
        for (long high = transitions_; low < high;) {
            const long middle = (low + high) / 2;
            unsigned char time[8];
            if (!read(times_ + middle * width_, time, static_cast<std::size_t>(width_))) return -1;
            if (bigEndian(time, width_) <= seconds) {
                low = middle + 1;
            } else {
                high = middle;
            }
        }
        return low;
    }

    bool offsetAfter(long passed, long& offset) const {
        unsigned char type = 0;
        if (passed > 0 && !read(times_ + transitions_ * width_ + passed - 1, &type, 1))
            return false;
        unsigned char seconds[4];
        if (!read(types_ + type * 6, seconds, sizeof seconds)) return false;
        offset = static_cast<long>(bigEndian(seconds, sizeof seconds));
        constexpr long kMost = 26 * 3600;
        return offset >= -kMost && offset <= kMost;
    }

    // A rule after the second block applies after the last transition.
    bool offsetOfFooter(long long seconds, long& offset) const {
        if (width_ != 8 || syscall(SYS_lseek, fd_, end_ + 1, SEEK_SET) != end_ + 1) return false;
        char rule[80] = {};
        if (syscall(SYS_read, fd_, rule, sizeof rule - 1) <= 0) return false;
        char* end = std::strchr(rule, '\n');
        if (end == nullptr) return false;
        *end = '\0';
        return ruleOffset(rule, seconds, offset);
    }

    int fd_;
    int version_ = 0;
    int width_ = 0;  // bytes of a time
    long times_ = 0;
    long transitions_ = 0;
    long types_ = 0;
    long end_ = 0;
};

// The value of TZ at its first use in the process, because the server may later
// change its environment while another thread logs. A thread that calls this during
// the copy, or a child forked during it, reads TZ again.
const char* timeZone() {
    enum State { kUnread, kCopying, kKept };
    static std::atomic<int> state{kUnread};
    static char kept[kZoneSize];
    if (state.load(std::memory_order_acquire) == kKept) return kept;

    const char* zone = std::getenv("TZ");
    if (zone == nullptr) zone = kDefaultZone;
    if (zone[0] == ':') ++zone;
    const std::size_t length = std::strlen(zone);
    int unread = kUnread;
    if (length < sizeof kept && state.compare_exchange_strong(unread, kCopying)) {
        std::memcpy(kept, zone, length + 1);
        state.store(kKept, std::memory_order_release);
    }
    return zone;
}

}  // namespace

LocalTime calendarTime(long long seconds) {
    constexpr long long kDay = 86400;
    constexpr int kDaysOf400Years = 146097;
    long long day = seconds / kDay - (seconds % kDay < 0 ? 1 : 0);
    const auto second = static_cast<int>(seconds - day * kDay);
    // Years begin in March here, so that a leap day is the last day.
    day += 719468;  // from 1 March of the year 0 to the epoch
    const long long era = (day >= 0 ? day : day - kDaysOf400Years + 1) / kDaysOf400Years;
    const auto dayOfEra = static_cast<int>(day - era * kDaysOf400Years);
    const int yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const int dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const int month = (5 * dayOfYear + 2) / 153;
    return {era * 400 + yearOfEra + (month < 10 ? 0 : 1),
            month < 10 ? month + 3 : month - 9,
            dayOfYear - (153 * month + 2) / 5 + 1,
            second / 3600,
            second / 60 % 60,
            second % 60};
}

bool utcOffset(const char* zone, long long seconds, long& offset) {
    return ZoneFile(zone).utcOffset(seconds, offset) || ruleOffset(zone, seconds, offset);
}

// If the server has changed its root directory, the zone may be unreadable.
bool localTime(long long seconds, LocalTime& local) {
    constexpr long long kLast = 67'767'976'233'532'799;  // end of the largest year with 31 bits
    if (seconds > kLast) return false;
    static std::atomic<long> last{0};
    long offset;
    if (utcOffset(timeZone(), seconds, offset)) {
        last.store(offset, std::memory_order_relaxed);
    } else {
        offset = last.load(std::memory_order_relaxed);
    }
    local = calendarTime(seconds + offset);
    return true;
}

}  // namespace tolvane
