// The server's own answers, and telling commands apart.
#include "apache/probe.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "apache/command.h"
#include "os/error.h"
#include "servers/library.h"
#include "support/sandbox.h"

namespace tolvane::agent {
namespace {

using tolvane::test::writeFile;

TEST(Probe, ReadsTheServersAnswers) {
    ServerFacts facts;
    std::string compiledRoot;
    parseVersion(
        "Server version: Apache/2.4.62 (Debian)\nArchitecture:   32-bit\n -D "
        "HTTPD_ROOT=\"/etc/apache2\"\n",
        facts, compiledRoot);
    EXPECT_EQ(facts.version, "2.4.62");
    EXPECT_EQ(facts.wordSize, WordSize::k32);
    EXPECT_EQ(compiledRoot, "/etc/apache2");
    parseDump(
        "Included configuration files:\n"
        "  (*) /etc/apache2/apache2.conf\n"
        "    (146) /etc/apache2/mods-enabled/a b.load\n"
        "      (3) /etc/apache2/deeper\n"
        "    (150) /etc/apache2/ports.conf\n"
        "ServerRoot: \"/etc/apache2\"\n"
        "PidFile: \"/var/run/apache2/apache2.pid\"\n"
        "Define: DUMP_INCLUDES\nDefine: PORT=8080\n"
        "Loaded Modules:\n core_module (static)\n mpm_itk_module (shared)\n"
        " mpm_prefork_module (shared)\n",
        facts);
    EXPECT_EQ(facts.mainFile.path, "/etc/apache2/apache2.conf");
    ASSERT_EQ(facts.mainFile.files.size(), 2U);
    EXPECT_EQ(facts.mainFile.files[0].path, "/etc/apache2/mods-enabled/a b.load");
    ASSERT_EQ(facts.mainFile.files[0].files.size(), 1U);
    EXPECT_EQ(facts.mainFile.files[0].files[0].line, 3U);
    EXPECT_EQ(facts.mainFile.files[1].line, 150U);
    EXPECT_EQ(facts.pidFile, "/var/run/apache2/apache2.pid");
    EXPECT_EQ(facts.defines.at("PORT"), "8080");
    EXPECT_EQ(processingModule(facts), "prefork");
}

TEST(Probe, RefusesAnEmptyDump) {
    for (const char* answer : {"", "Syntax OK\n", "Included configuration files:\n",
                               "Included configuration files:\n  (x) /a\n    (99999999999) /b\n"}) {
        ServerFacts facts;
        EXPECT_THROW(parseDump(answer, facts), Error) << answer;
    }
}

void script(const std::string& path, const std::string& text) {
    writeFile(path, text);
    chmod(path.c_str(), 0755);
}

TEST(Command, KeepsTheArgumentsThatDecideAboutTheConfiguration) {
    script("/opt/apachectl", "#!/bin/sh\n");
    ServerCommand command =
        inspectCommand({"/opt/apachectl", "-k", "start", "-d/srv", "-f", "x.conf", "-X", "-DFOO",
                        "-D", "BAR", "-c", "Listen 8", "-e", "debug"});
    EXPECT_EQ(command.kind, ServerKind::kApache);
    EXPECT_EQ(command.serverDirectory, "/srv");
    EXPECT_EQ(command.executable.interpreter, "/bin/sh");
    EXPECT_EQ(command.configurationArguments,
              (std::vector<std::string>{"-d", "/srv", "-f", "x.conf", "-D", "FOO", "-D", "BAR",
                                        "-c", "Listen 8"}));
    EXPECT_THROW(inspectCommand({"/opt/absent"}), Error);
    EXPECT_THROW(inspectCommand({"/opt"}), Error);
}

TEST(Command, KindFollowsFromTheName) {
    const std::pair<const char*, ServerKind> cases[] = {
        {"apache2", ServerKind::kApache},         {"httpd.worker", ServerKind::kApache},
        {"apache2ctl-shop", ServerKind::kApache}, {"ns-httpd", ServerKind::kNetscape},
        {"nginx", ServerKind::kUnknown},          {"my-httpd", ServerKind::kUnknown},
    };
    for (const auto& [name, kind] : cases) {
        script(std::string("/opt/") + name, "#!/bin/sh\n");
        EXPECT_EQ(inspectCommand({std::string("/opt/") + name}).kind, kind) << name;
    }
}

// The first bytes of a file for each machine, as far as they matter.
std::string elfHeader(char fileClass, char machine) {
    std::string header(64, '\0');
    header.replace(0, 4,
                   "\x7F"
                   "ELF");
    header[4] = fileClass;
    header[18] = machine;
    return header;
}

TEST(Elf, KnowsTheWordSize) {
    const std::pair<std::string, WordSize> cases[] = {
        {elfHeader(1, 3), WordSize::k32},
        {elfHeader(2, 62), WordSize::k64},
        {elfHeader(2, 3), WordSize::kUnknown},
        {elfHeader(1, 62), WordSize::kUnknown},
        {elfHeader(2, 62).substr(0, 20), WordSize::kUnknown},
        {"", WordSize::kUnknown},
        {std::string(64, 'x'), WordSize::kUnknown},
    };
    for (const auto& [header, size] : cases) EXPECT_EQ(elfWordSize(header), size);
}

TEST(Command, FindsTheServerThatAScriptNames) {
    for (const char* name : {"httpd", "note", "httpd.worker"}) {
        script(std::string("/opt/") + name, elfHeader(1, 3));
    }
    setenv("PATH", "/opt", 1);
    EXPECT_EQ(serversNamedIn(
                  "HTTPD=${APACHE_HTTPD:-/opt/httpd}\n/opt/note; exec '/opt/httpd' -k start /\n"
                  "httpd.worker -d opt/httpd"),
              (std::vector<std::string>{"/opt/httpd", "/opt/httpd.worker"}));
}

TEST(Preload, FitsTheServersWordSize) {
    const Libraries both = {{WordSize::k32, "/x32/libtolvane.so"},
                            {WordSize::k64, "/x64/libtolvane.so"}};
    EXPECT_EQ(preloadValue(both, WordSize::k64, WordSize::k64), "/x64/libtolvane.so");
    EXPECT_EQ(preloadValue(both, WordSize::k32, WordSize::k32), "/x32/libtolvane.so");
    // A 64-bit shell that starts a 32-bit server, and one that starts who knows what.
    for (WordSize server : {WordSize::k32, WordSize::kUnknown}) {
        std::string chosen = preloadValue(both, server, WordSize::k64);
        ASSERT_NE(chosen.find("/$LIB/"), std::string::npos);
        for (auto [lib, target] : {std::pair{"lib/i386-linux-gnu", "/x32/libtolvane.so"},
                                   {"lib/x86_64-linux-gnu", "/x64/libtolvane.so"},
                                   {"lib64", "/x64/libtolvane.so"},
                                   {"lib32", "/x32/libtolvane.so"}}) {
            std::string path = chosen;
            path.replace(path.find("$LIB"), 4, lib);
            char linked[100] = {};
            EXPECT_GT(readlink(path.c_str(), linked, sizeof linked - 1), 0) << path;
            EXPECT_STREQ(linked, target);
        }
    }
    EXPECT_THROW(preloadValue({{WordSize::k64, "/x"}}, WordSize::k32, WordSize::k32), Error);
    EXPECT_THROW(preloadValue({{WordSize::k64, "/a b"}}, WordSize::k64, WordSize::k64), Error);
}

TEST(Preload, KeepsOtherLibraries) {
    EXPECT_EQ(joinPreload("/t.so", ""), "/t.so");
    EXPECT_EQ(joinPreload("/t.so", "/a.so:/b.so /c.so"), "/t.so:/a.so:/b.so:/c.so");
    EXPECT_EQ(joinPreload("/new/libtolvane.so", "/a.so:/old/libtolvane.so"),
              "/new/libtolvane.so:/a.so");
}

}  // namespace
}  // namespace tolvane::agent
