// The findings of `tolvane doctor`, one line each.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "servers/server.h"

namespace tolvane::agent {

struct Finding {
    enum class Level { kOk, kNote, kProblem };
    Level level;
    std::string text;
    std::string remedy;  // empty for kOk
};

class Findings {
  public:
    void ok(std::string text) { add({Finding::Level::kOk, std::move(text), ""}); }
    void note(std::string text, std::string remedy) {
        add({Finding::Level::kNote, std::move(text), std::move(remedy)});
    }
    void problem(std::string text, std::string remedy) {
        add({Finding::Level::kProblem, std::move(text), std::move(remedy)});
    }
    const std::vector<Finding>& all() const { return findings_; }

  private:
    void add(Finding finding) { findings_.push_back(std::move(finding)); }
    std::vector<Finding> findings_;
};

// The ports of the server's addresses.
std::set<int> portsOf(const Server& server);

void examineInstallation(Findings& findings);
void examineServers(const std::vector<Server>& servers, Findings& findings);
void examineLiveServer(const Server& server, Findings& findings);

}  // namespace tolvane::agent
