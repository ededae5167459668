// The format of the System V shared memory segment that the shim shares with the
// agent. paths.h names the files that lead the agent to a segment.
//
// Separately built programs of either word size read and write the same bytes, so
// every size and offset is part of the format and asserted below.
//
//   offset        size                    content
//   0             310856                  one ConfigInfo
//   310856        numStructures * 4656    the result records (ResultStruct)
//
// Integers are 32 bits, little-endian, two's complement. The floating point field
// is an IEEE 754 double. There is no padding. Text fields contain a NUL-terminated
// string. A new segment is all zero.
//
// Ownership: the agent writes the configuration (ConfigInfo except `parentPid`) and
// sets a group's dirty flag to 0 when it has collected the group. The shim writes
// the counters, sets the dirty flags to 1, and writes `semaphoreId`, `parentPid`,
// the first `interval` and the first and last `version`.
#pragma once

#include <cstddef>
#include <cstdint>

#include "tolvane/paths.h"

namespace tolvane {

// Capacities. Counts in the configuration block must not exceed them. A process of
// the shim bounds its copy of the block before it uses it.
inline constexpr int kMaxSites = 10;
inline constexpr int kMaxCategories = 15;  // per site
inline constexpr int kMaxSections = 6;     // URL patterns per category
inline constexpr int kMaxPieces = 6;       // literal pieces per pattern
inline constexpr int kMaxExtraHosts = 6;   // per site, beside its own name
inline constexpr int kLabelSize = 64;      // bytes, terminating NUL included
inline constexpr int kPieceSize = 48;
inline constexpr int kNameSize = 128;

// Values of ConfigInfo::version that the shim writes. Any version that an
// agent writes to make a configuration valid is 1 or more.
inline constexpr std::int32_t kVersionCreated = -1;  // not configured yet
inline constexpr std::int32_t kVersionRemoved = -2;  // the server has ended

inline constexpr std::int32_t kDefaultInterval = 60;  // seconds
inline constexpr std::int32_t kUnknownPid = -1;
inline constexpr std::int32_t kNoSemaphore = -1;

#pragma pack(push, 4)

// A URL pattern: up to six literal, case-sensitive pieces with any text between
// consecutive pieces.
struct UrlSection {
    std::int32_t numPieces;                // 0 to 6; 0 matches every URL
    char piece[kMaxPieces][kPieceSize];    // at most 47 characters each
    std::int32_t leadingWildcard;          // 0: the first piece must begin the URL
    std::int32_t trailingWildcard;         // 0: the last piece must end the URL
    std::int32_t pieceLength[kMaxPieces];  // bytes in piece[i], without its NUL
};

// A URL category of a site. A URL is in the category if it matches any section.
struct CategoryConfig {
    char label[kLabelSize];    // for the agent; the shim never reads it
    std::int32_t numSections;  // 0 to 6
    UrlSection sections[kMaxSections];
};

// The configuration block, at offset 0 of the segment. A process copies the whole
// block when `version` is greater than that of its copy (signed comparison). An
// agent that rewrites a block in use first sets `version` to a value of 0 or less,
// so that no process copies an incomplete block, and sets the new version last.
struct ConfigInfo {
    std::int32_t numSites;                  // agent: 0 to 10
    std::int32_t interval;                  // seconds between two publications of a
                                            // threaded server; shim: 60 at creation
    std::int32_t version;                   // shim: -1 at creation, -2 at the end; agent: >= 1
    std::int32_t numCategories[kMaxSites];  // agent: 0 to 15 each
    std::int32_t numHosts[kMaxSites];       // agent: 0 to 6 each
    CategoryConfig categories[kMaxSites][kMaxCategories];
    char siteName[kMaxSites][kNameSize];  // host name, optionally ":port"
    char hostName[kMaxSites][kMaxExtraHosts][kNameSize];
    std::int32_t parentPid;  // shim: id of the server's parent, -1 while unknown
};

// Traffic counters, of a whole record or of one site. Counters wrap at 2^32.
struct CounterBlock {
    std::uint32_t connections;  // accepted; of a site: those whose first match is the site
    std::uint32_t requests;
    std::uint32_t bytesSent;        // bytes
    std::uint32_t bytesReceived;    // bytes
    std::uint32_t errors;           // responses of status class 4 or 5
    std::uint32_t droppedRequests;  // closed with no response since the last read
    std::int32_t openConnections;   // gauge
    std::uint32_t redirects;        // responses of status class 3
    std::uint32_t clientErrors;     // responses of status class 4
    std::uint32_t serverErrors;     // responses of status class 5
};

// Counters of a URL category of a site.
struct CategoryCounters {
    std::uint32_t bytesSent;  // bytes
    std::uint32_t requests;
    std::uint32_t errors;  // responses of status class 4 or 5
    std::uint32_t droppedRequests;
    std::int32_t inProgress;  // gauge
    double responseTimeSum;   // seconds, over responses of status class below 4
};

// A result record. Record i is at offset kConfigSize + i * kRecordSize of the
// segment. A dirty flag of 1 means that counts were added to the group since the
// agent last collected it. The agent sets the flag to 0 when it collects the group,
// and the next publication resets the group before it adds counts.
struct ResultStruct {
    CounterBlock total;
    CounterBlock site[kMaxSites];
    CategoryCounters category[kMaxSites][kMaxCategories];
    std::int32_t categoriesDirty;
    std::int32_t sitesDirty;
    std::int32_t totalDirty;
    std::int32_t semaphoreId;  // System V set of one semaphore that guards the
                               // record; -1: none (Netscape type)
};

#pragma pack(pop)

inline constexpr std::size_t kConfigSize = 310856;
inline constexpr std::size_t kRecordSize = 4656;

// Bytes of a segment with that many records.
constexpr std::size_t segmentSize(std::size_t numStructures) {
    return kConfigSize + numStructures * kRecordSize;
}

static_assert(sizeof(UrlSection) == 324);
static_assert(offsetof(UrlSection, numPieces) == 0);
static_assert(offsetof(UrlSection, piece) == 4);
static_assert(offsetof(UrlSection, leadingWildcard) == 292);
static_assert(offsetof(UrlSection, trailingWildcard) == 296);
static_assert(offsetof(UrlSection, pieceLength) == 300);

static_assert(sizeof(CategoryConfig) == 2012);
static_assert(offsetof(CategoryConfig, label) == 0);
static_assert(offsetof(CategoryConfig, numSections) == 64);
static_assert(offsetof(CategoryConfig, sections) == 68);

static_assert(sizeof(ConfigInfo) == kConfigSize);
static_assert(offsetof(ConfigInfo, numSites) == 0);
static_assert(offsetof(ConfigInfo, interval) == 4);
static_assert(offsetof(ConfigInfo, version) == 8);
static_assert(offsetof(ConfigInfo, numCategories) == 12);
static_assert(offsetof(ConfigInfo, numHosts) == 52);
static_assert(offsetof(ConfigInfo, categories) == 92);
static_assert(offsetof(ConfigInfo, siteName) == 301892);
static_assert(offsetof(ConfigInfo, hostName) == 303172);
static_assert(offsetof(ConfigInfo, parentPid) == 310852);

static_assert(sizeof(CounterBlock) == 40);
static_assert(offsetof(CounterBlock, connections) == 0);
static_assert(offsetof(CounterBlock, requests) == 4);
static_assert(offsetof(CounterBlock, bytesSent) == 8);
static_assert(offsetof(CounterBlock, bytesReceived) == 12);
static_assert(offsetof(CounterBlock, errors) == 16);
static_assert(offsetof(CounterBlock, droppedRequests) == 20);
static_assert(offsetof(CounterBlock, openConnections) == 24);
static_assert(offsetof(CounterBlock, redirects) == 28);
static_assert(offsetof(CounterBlock, clientErrors) == 32);
static_assert(offsetof(CounterBlock, serverErrors) == 36);

static_assert(sizeof(CategoryCounters) == 28);
static_assert(offsetof(CategoryCounters, bytesSent) == 0);
static_assert(offsetof(CategoryCounters, requests) == 4);
static_assert(offsetof(CategoryCounters, errors) == 8);
static_assert(offsetof(CategoryCounters, droppedRequests) == 12);
static_assert(offsetof(CategoryCounters, inProgress) == 16);
static_assert(offsetof(CategoryCounters, responseTimeSum) == 20);

static_assert(sizeof(ResultStruct) == kRecordSize);
static_assert(offsetof(ResultStruct, total) == 0);
static_assert(offsetof(ResultStruct, site) == 40);
static_assert(offsetof(ResultStruct, category) == 440);
static_assert(offsetof(ResultStruct, categoriesDirty) == 4640);
static_assert(offsetof(ResultStruct, sitesDirty) == 4644);
static_assert(offsetof(ResultStruct, totalDirty) == 4648);
static_assert(offsetof(ResultStruct, semaphoreId) == 4652);

}  // namespace tolvane
