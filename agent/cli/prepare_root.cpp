#include "cli/prepare_root.h"

#include <fmt/core.h>

#include <cstdio>

#include "cli/terminal.h"

namespace tolvane::agent {

MeasuredRoot prepareRootWithNotes(const ServerCommand& command, const std::string& wanted,
                                  bool always) {
    Progress progress;
    progress.show("querying the configuration of the server");
    MeasuredRoot root = prepareRoot(command, wanted, always);
    progress.clear();
    for (const std::string& note : root.notes) fmt::print(stderr, "tolvane: note: {}\n", note);
    return root;
}

}  // namespace tolvane::agent
