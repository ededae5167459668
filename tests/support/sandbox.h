// Private namespaces with an own /opt, System V IPC and loopback network. The
// tests do not touch the real ones, and can check what is left.
#pragma once

#include <string>
#include <vector>

namespace tolvane::test {

inline constexpr char kServerRoot[] = "/opt/server";

// Moves the calling process, still with a single thread, into the namespaces.
// Ends it with a message where they are not permitted.
void enterSandbox();

// As after an installation: empty agent directories, an empty server root, no
// System V object.
void resetSandbox();

void writeFile(const std::string& path, const std::string& text);
std::string readFile(const std::string& path);  // empty when there is none
std::vector<std::string> filesIn(const std::string& directory);

// The messages in the log, without their time stamps.
std::vector<std::string> logMessages();

// "shm" or "sem": how many of them exist.
int systemVObjects(const std::string& kind);

// The segments, semaphores, handoff and lock files of a stopped server; empty
// if there are no such objects.
std::string leftovers();

}  // namespace tolvane::test
