// Paths of files under the server root.
#pragma once

#include "shim_utils/platform/text.h"
#include "tolvane/internal/shim_tables.h"

namespace tolvane {

using ServerPath = Text<kPathSize>;

// The path of the file `name` under the server root.
inline ServerPath serverPath(const char* name) {
    ServerPath path;
    path.add(rootDir).add(name);
    return path;
}

}  // namespace tolvane
