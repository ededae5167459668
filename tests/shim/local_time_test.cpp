#include "shim_utils/platform/local_time.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "support/sandbox.h"

namespace tolvane::test {
namespace {
namespace fs = std::filesystem;

constexpr char kZones[] = "/usr/share/zoneinfo";

// Rules of TZ, and the names of time zone files.
std::vector<std::string> zones() {
    std::vector<std::string> all = {
        "UTC0",
        "UTC-1",

        "CET-1CEST,M3.5.0,M10.5.0/3",
        "IST-1GMT0,M10.5.0,M3.5.0/1",
        "AAA3BBB,J60,J300/1:30:15",
        "AAA-5:30BBB-6:00,59/0,364/-3",
        "AEST-10AEDT,M10.1.0,M4.1.0/3",
        "<-02>2<-01>,M3.5.0/-1,M10.5.0/0",
        "<+1245>-12:45<+1345>,M9.5.0/2:45,M4.1.0/3:45",
        "EET-2EEST,M3.4.4/50,M10.4.4/50",
        "AAA12:30:45",
    };
    for (const auto& entry : fs::recursive_directory_iterator(kZones)) {
        const std::string name = entry.path().lexically_relative(kZones);
        // Those of "right" count leap seconds.
        if (entry.is_regular_file() && readFile(entry.path()).starts_with("TZif") &&
            !name.starts_with("right/"))
            all.push_back(name);
    }
    return all;
}

TEST(LocalTime, AgreesWithTheCLibrary) {
    constexpr long long kFrom = 0;  // 1970 to 2100, where time_t reaches that far
    constexpr long long kTo = sizeof(time_t) > 4 ? 4'102'444'800 : 2'147'000'000;
    const char* const ownZone = std::getenv("TZ");
    const std::string before = ownZone != nullptr ? ownZone : "";
    std::mt19937_64 random(1);
    std::uniform_int_distribution<long long> seconds(kFrom, kTo);
    for (const std::string& zone : zones()) {
        setenv("TZ", zone.c_str(), 1);
        tzset();
        for (int i = 0; i < 100; ++i) {
            const auto when = static_cast<time_t>(seconds(random));
            tm expected = {};
            localtime_r(&when, &expected);
            long offset = 99;
            ASSERT_TRUE(utcOffset(zone.c_str(), when, offset)) << zone;
            ASSERT_EQ(offset, expected.tm_gmtoff) << zone << " at " << when;
            const LocalTime local = calendarTime(when + offset);
            using Fields = std::array<long long, 6>;
            ASSERT_EQ((Fields{local.year, local.month, local.day, local.hour, local.minute,
                              local.second}),
                      (Fields{expected.tm_year + 1900, expected.tm_mon + 1, expected.tm_mday,
                              expected.tm_hour, expected.tm_min, expected.tm_sec}))
                << zone << " at " << when;
        }
    }
    setenv("TZ", before.c_str(), 1);
}

TEST(LocalTime, RefusesInvalidZones) {
    long offset;
    for (const char* zone : {"", "A", "UTC", "no/zone", "AAA", "AAA1BBB,", "AAA1BBB,M3.5.0",
                             "AAA1BBB,M13.1.0,M1.1.0", "AAA1BBB,J0,J1", "AAA1BBB,1,366",
                             "AAA99999999999", "<AAA1", "/dev/zero", "/proc/self/mem"}) {
        EXPECT_EQ(utcOffset(zone, 1'000'000'000, offset), std::string(zone) == "UTC") << zone;
    }
    // The C library takes other dates for a rule without any, from a file of its own.
    ASSERT_TRUE(utcOffset("CET-1CEST", 1'088'859'909, offset));
    EXPECT_EQ(offset, 7200);
    // Cut short or changed anywhere, a file is bounded.
    const std::string good = readFile(std::string(kZones) + "/Europe/Berlin");
    const std::string file = "/opt/zone";
    for (std::size_t i = 0; i < good.size(); ++i) {
        writeFile(file, good.substr(0, i));
        utcOffset(file.c_str(), 1'000'000'000, offset);
        std::string bad = good;
        bad[i] = static_cast<char>(bad[i] ^ 0xFF);
        writeFile(file, bad);
        offset = 0;
        utcOffset(file.c_str(), 4'000'000'000, offset);
        EXPECT_LE(std::labs(offset), 200 * 3600);
    }
}

}  // namespace
}  // namespace tolvane::test
