#include "support/segment.h"

#include <gtest/gtest.h>
#include <sys/sem.h>
#include <sys/shm.h>

#include <stdexcept>

#include "support/process.h"
#include "support/sandbox.h"

namespace tolvane::test {
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
    for (int i = 0; i < structures_; ++i) sum += records_[i];
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
    test::configure(*config_, sites);
    config_->interval = interval;
    raiseVersion();
}

void Segment::raiseVersion() {
    const int next = config_->version < 1 ? 1 : config_->version + 1;
    __atomic_store_n(&config_->version, next, __ATOMIC_SEQ_CST);
}

void expectCounts(const Segment& segment, const std::string& text, std::chrono::milliseconds time) {
    eventually(time, [&] { return segment.counts().text() == text; });
    EXPECT_EQ(segment.counts().text(), text);
}

}  // namespace tolvane::test
