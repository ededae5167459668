#include "support/segment.h"

#include <gtest/gtest.h>
#include <sys/sem.h>
#include <sys/shm.h>

#include <cstring>
#include <iterator>
#include <sstream>
#include <stdexcept>

#include "support/process.h"
#include "support/sandbox.h"

namespace tolvane::test {
namespace {

using Word = std::uint32_t CounterBlock::*;
constexpr std::pair<const char*, Word> kWords[] = {
    {"connections", &CounterBlock::connections},
    {"requests", &CounterBlock::requests},
    {"sent", &CounterBlock::bytesSent},
    {"received", &CounterBlock::bytesReceived},
    {"errors", &CounterBlock::errors},
    {"dropped", &CounterBlock::droppedRequests},
    {"redirects", &CounterBlock::redirects},
    {"clientErrors", &CounterBlock::clientErrors},
    {"serverErrors", &CounterBlock::serverErrors},
};
using CategoryWord = std::uint32_t CategoryCounters::*;
constexpr std::pair<const char*, CategoryWord> kCategoryWords[] = {
    {"requests", &CategoryCounters::requests},
    {"sent", &CategoryCounters::bytesSent},
    {"errors", &CategoryCounters::errors},
    {"dropped", &CategoryCounters::droppedRequests},
};

template <class Block, class Words>
void add(Block& sum, const Block& other, const Words& words) {
    for (const auto& [name, word] : words) sum.*word += other.*word;
}

template <class Block, class Words>
std::string line(const std::string& title, const Block& block, const Words& words) {
    std::string counts;
    for (const auto& [name, word] : words) {
        if (block.*word) counts += std::string(" ") + name + "=" + std::to_string(block.*word);
    }
    return counts.empty() ? "" : title + counts + "\n";
}

void setPattern(UrlSection& section, std::string pattern) {
    section.leadingWildcard = pattern.starts_with('*');
    section.trailingWildcard = pattern.ends_with('*');
    std::istringstream pieces(pattern);
    for (std::string piece; std::getline(pieces, piece, '*');) {
        if (piece.empty()) continue;
        std::strcpy(section.piece[section.numPieces], piece.c_str());
        section.pieceLength[section.numPieces++] = static_cast<std::int32_t>(piece.size());
    }
}

}  // namespace

Counts& Counts::operator+=(const Counts& other) {
    add(total, other.total, kWords);
    for (int s = 0; s < kMaxSites; ++s) {
        add(site[s], other.site[s], kWords);
        for (int c = 0; c < kMaxCategories; ++c) {
            add(category[s][c], other.category[s][c], kCategoryWords);
        }
    }
    return *this;
}

std::string Counts::text() const {
    std::string result = line("total", total, kWords);
    for (int s = 0; s < kMaxSites; ++s) {
        const std::string name = "site " + std::to_string(s);
        result += line(name, site[s], kWords);
        for (int c = 0; c < kMaxCategories; ++c) {
            result += line(name + " category " + std::to_string(c), category[s][c], kCategoryWords);
        }
    }
    return result;
}

Segment::Segment() {
    std::string text;
    eventually(std::chrono::seconds(10), [&] {
        const auto files = filesIn(kHandoffDirectory);
        if (files.size() != 1) return false;
        handoffFile_ = files[0];
        text = readFile(handoffFile_);
        return text.find("Structures=") != std::string::npos && text.ends_with('\n');
    });
    const auto shmid = text.find("Shmid=");
    const auto structures = text.find("Structures=");
    if (structures == std::string::npos) throw std::runtime_error("no handoff file");
    id_ = std::stoi(text.substr(shmid + 6));
    structures_ = std::stoi(text.substr(structures + 11));
    void* address = shmat(id_, nullptr, 0);
    if (reinterpret_cast<std::intptr_t>(address) == -1) throw std::runtime_error("no segment");
    config_ = static_cast<ConfigInfo*>(address);
    records_ = reinterpret_cast<ResultStruct*>(static_cast<char*>(address) + kConfigSize);
}

Segment::~Segment() {
    if (config_) shmdt(config_);
}

Counts Segment::counts() const {
    Counts sum;
    for (int i = 0; i < structures_; ++i) {
        ResultStruct copy;
        std::memcpy(&copy, &records_[i], sizeof copy);
        Counts one;
        one.total = copy.total;
        std::copy(std::begin(copy.site), std::end(copy.site), one.site.begin());
        std::memcpy(one.category.data(), copy.category, sizeof copy.category);
        sum += one;
    }
    return sum;
}

double Segment::responseTime(int site, int category) const {
    double sum = 0;
    for (int i = 0; i < structures_; ++i)
        sum += records_[i].category[site][category].responseTimeSum;
    return sum;
}

int Segment::semaphoreValue(int record) const {
    return semctl(records_[record].semaphoreId, 0, GETVAL);
}

void Segment::configure(const std::vector<Site>& sites, int interval) {
    config_->numSites = static_cast<std::int32_t>(sites.size());
    config_->interval = interval;
    for (std::size_t s = 0; s < sites.size(); ++s) {
        std::strcpy(config_->siteName[s], sites[s].name.c_str());
        config_->numHosts[s] = static_cast<std::int32_t>(sites[s].hosts.size());
        for (std::size_t h = 0; h < sites[s].hosts.size(); ++h) {
            std::strcpy(config_->hostName[s][h], sites[s].hosts[h].c_str());
        }
        config_->numCategories[s] = static_cast<std::int32_t>(sites[s].categories.size());
        for (std::size_t c = 0; c < sites[s].categories.size(); ++c) {
            config_->categories[s][c].numSections = 1;
            config_->categories[s][c].sections[0] = {};
            setPattern(config_->categories[s][c].sections[0], sites[s].categories[c]);
        }
    }
    raiseVersion();
}

void Segment::raiseVersion() {
    const int next = config_->version < 1 ? 1 : config_->version + 1;
    __atomic_store_n(&config_->version, next, __ATOMIC_SEQ_CST);
}

void expectCounts(const Segment& segment, const Counts& expected, std::chrono::milliseconds time) {
    eventually(time, [&] { return segment.counts().text() == expected.text(); });
    EXPECT_EQ(segment.counts().text(), expected.text());
}

}  // namespace tolvane::test
