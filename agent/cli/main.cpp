// The tolvane command line.
#include <fmt/format.h>
#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <exception>
#include <functional>
#include <sstream>
#include <vector>

#include "cli/commands.h"
#include "cli/exit_code.h"
#include "cli/suggestion.h"
#include "cli/terminal.h"
#include "os/error.h"
#include "os/text.h"

namespace {

using namespace tolvane::agent;

struct Options {
    RunOptions run;
    PrepareOptions prepare;
    ListOptions list;
    CleanOptions clean;
    DoctorOptions doctor;
    std::string checkFile;
    ConfigureOptions configure;
    ShowOptions show;
    TopOptions top;
    ServeOptions serve;
};

using Action = std::function<int()>;

CLI::App* addCommand(CLI::App& app, const char* name, const char* description, const char* example,
                     Action& action, std::function<int()> run) {
    CLI::App* command = app.add_subcommand(name, description);
    command->footer(fmt::format("Example:\n{}", example));
    command->callback([&action, run = std::move(run)] { action = run; });
    return command;
}

CLI::Validator seconds() {
    auto check = [](const std::string& text) {
        double value = 0;
        bool good = CLI::detail::lexical_cast(text, value) && value >= 0.1 && value <= 3600;
        return good ? std::string() : "'" + text + "' is not a number from 0.1 to 3600";
    };
    return CLI::Validator(check, "SECONDS in [0.1 - 3600]", "seconds");
}

void addServerOption(CLI::App* command, std::optional<std::string>& server) {
    command->add_option(
        "--server", server,
        "Which server: its process id, segment id, port or address:port (see 'tolvane list')");
}

void addRun(CLI::App& app, RunOptions& options, Action& action) {
    CLI::App* run =
        addCommand(app, "run", "Run a server with the measurement library preloaded",
                   "  tolvane run --config sites.toml -- apachectl start\n"
                   "  tolvane run --semaphores 8 -- apachectl -D FOREGROUND\n"
                   "  tolvane run --type netscape --root /srv/ns -- /srv/ns/bin/ns-httpd",
                   action, [&options] { return runCommand(options); });
    run->add_option("--type", options.type, "Server type; default: from the command's name")
        ->check(CLI::IsMember({"apache", "netscape"}));
    run->add_option(
        "--root", options.root,
        "Directory with conf/httpd.conf and logs/httpd.pid (Apache) or config/magnus.conf; "
        "default: prepared from the server's configuration");
    run->add_option("--library", options.library,
                    "The libtolvane.so to preload; default: the one installed with this program");
    run->add_option(
        "--ssl-factor", options.sslFactor,
        "SSL_FACTOR: 'start' for a server without SSL, 'startssl' with SSL; default: from its "
        "configuration");
    run->add_option("--counting", options.counting,
                    "TOLVANE_COUNTING: count HTTP 'messages' or socket 'calls'; default: messages")
        ->check(CLI::IsMember({"messages", "calls"}));
    run->add_option("--semaphores", options.semaphores,
                    "NUM_SEMAPHORES: result records, and semaphores, of a server with more than 10 "
                    "processes; default: 3")
        ->check(CLI::Range(1, kMaxSemaphores));
    run->add_option("--request-interval", options.requestInterval,
                    "REQUEST_INTERVAL: send calls between two publications of a prefork process; "
                    "default: 5")
        ->check(CLI::Range(1, kMaxRequestInterval));
    run->add_option("--config", options.configFile,
                    "TOML file to write to the server as it starts; default: none");
    run->add_flag("-q,--quiet", options.quiet, "Do not print the settings in use");
    run->add_option("COMMAND", options.command, "The server and its arguments, after '--'")
        ->required();
}

void addPrepare(CLI::App& app, PrepareOptions& options, Action& action) {
    CLI::App* prepare = addCommand(
        app, "prepare",
        "Prepare a root directory for an Apache with another file layout than the library reads",
        "  tolvane prepare\n"
        "  tolvane prepare -d /etc/httpd -- /usr/sbin/httpd\n"
        "'tolvane run' does this when necessary.",
        action, [&options] { return prepareCommand(options); });
    prepare->add_option(
        "--root", options.root,
        fmt::format("Directory to create; default: below {}", tolvane::kPreparedRoots));
    prepare->add_option("-d", options.serverDirectory, "The server's own -d: its root directory");
    prepare->add_option("-f", options.serverFile, "The server's own -f: its configuration file");
    prepare->add_option("-D", options.defines, "The server's own -D: a name to define")
        ->expected(1)
        ->take_all();
    prepare->add_option("COMMAND", options.command,
                        "The server and its arguments, after '--'; default: the installed Apache");
}

void addWatching(CLI::App& app, Options& options, Action& action) {
    CLI::App* list =
        addCommand(app, "list", "List the measured servers: live, ending or stale, and the reason",
                   "  tolvane list", action, [&] { return listCommand(options.list); });
    list->add_flag("--json", options.list.json, "Write JSON");

    CLI::App* show = addCommand(app, "show", "Show the counts per site and category",
                                "  tolvane show\n  tolvane show --sample 10 --json", action,
                                [&] { return showCommand(options.show); });
    addServerOption(show, options.show.server);
    show->add_flag("--json", options.show.json, "Write JSON");
    show->add_option("--sample", options.show.sampleSeconds,
                     "Measure rates over this many seconds; default: since the server's start")
        ->check(seconds());

    CLI::App* top = addCommand(
        app, "top",
        "Show the counts continuously; keys: < > sort column, r reverse, c categories, q quit",
        "  tolvane top\n  tolvane top --sort err% --delay 5\n  tolvane top --count 3 | cat", action,
        [&] { return topCommand(options.top); });
    addServerOption(top, options.top.server);
    top->add_option("--delay", options.top.delay, "Seconds between two updates")
        ->check(seconds())
        ->capture_default_str();
    top->add_option("--count", options.top.count, "Number of updates; default: unlimited")
        ->check(CLI::Range(1, 1000000000));
    top->add_flag("--json", options.top.json, "Write a JSON object per update, one per line");
    top->add_option("--sort", options.top.sortBy,
                    "Heading of the column to sort by; default: req/s");
}

void addConfiguring(CLI::App& app, Options& options, Action& action) {
    CLI::App* check =
        addCommand(app, "check", "Check a configuration file", "  tolvane check sites.toml", action,
                   [&] { return checkCommand(options.checkFile); });
    check->add_option("FILE", options.checkFile, "The TOML file; '-': standard input")->required();

    CLI::App* configure =
        addCommand(app, "configure", "Write sites and categories to a running server",
                   "  tolvane configure sites.toml\n"
                   "with a file such as\n"
                   "  interval = 10\n"
                   "  [[site]]\n"
                   "  name = \"shop.example\"\n"
                   "  hosts = [\"www.shop.example\"]\n"
                   "  [[site.category]]\n"
                   "  label = \"checkout\"\n"
                   "  urls = [\"/cart*\", \"/shop*.jsp\"]",
                   action, [&] { return configureCommand(options.configure); });
    configure->add_option("FILE", options.configure.file, "The TOML file; '-': standard input")
        ->required();
    addServerOption(configure, options.configure.server);
    configure->add_flag("--reset", options.configure.reset,
                        "Reset the counts of sites and categories to 0");
    configure->add_flag("--remove-all", options.configure.removeAll,
                        "Accept a file without sites, which removes all sites");
}

void addServing(CLI::App& app, ServeOptions& options, Action& action) {
    options.version = TOLVANE_VERSION;
    CLI::App* serve = addCommand(
        app, "serve", "Collect the totals of every measured server and serve them over HTTP",
        "  tolvane serve --config sites.toml\n"
        "  tolvane serve --listen '[::1]:9931' --interval 1\n"
        "Paths: / (web page), /metrics (Prometheus), /api/servers (JSON).",
        action, [&options] { return serveCommand(options); });
    serve->add_option("--config", options.configFile,
                      "TOML file to write to every server, and again when it changes; "
                      "default: none");
    serve->add_option("--listen", options.listen, "Address and port; ':9931' for all addresses")
        ->capture_default_str();
    serve
        ->add_option("--allow-host", options.allowedHosts,
                     "Host name under which clients may address the collector, beside localhost "
                     "and addresses; may be repeated")
        ->expected(1)
        ->take_all();
    serve->add_option("--interval", options.interval, "Collection interval in seconds")
        ->check(seconds())
        ->capture_default_str();
    serve->add_option("--state", options.stateDirectory, "Directory for the totals")
        ->capture_default_str();
}

void addCaring(CLI::App& app, Options& options, Action& action) {
    CLI::App* clean = addCommand(
        app, "clean", "Remove files, segments and semaphores of servers that no longer run",
        "  tolvane clean --dry-run", action, [&] { return cleanCommand(options.clean); });
    clean->add_flag("--dry-run", options.clean.dryRun,
                    "Print what would be removed, and remove nothing");
    CLI::App* doctor =
        addCommand(app, "doctor", "Check the installation and the running servers",
                   "  sudo tolvane doctor", action, [&] { return doctorCommand(options.doctor); });
    doctor->add_flag("--repair", options.doctor.repair,
                     "Write damaged or missing handoff files of running servers anew");
    doctor->add_flag("--json", options.doctor.json, "Write JSON");
}

// "help" and "help COMMAND" as the option that does the same.
std::vector<std::string> helpAsOption(std::vector<std::string> arguments) {
    if (arguments.empty() || arguments[0] != "help") return arguments;
    arguments.erase(arguments.begin());
    arguments.resize(std::min<std::size_t>(arguments.size(), 1));
    arguments.emplace_back("--help");
    return arguments;
}

void refuseUnknownCommand(const CLI::App& app, const std::vector<std::string>& arguments) {
    if (arguments.empty() || arguments[0].starts_with("-")) return;
    std::vector<std::string> known = {"help"};
    for (const CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; })) {
        known.push_back(command->get_name());
    }
    if (std::find(known.begin(), known.end(), arguments[0]) != known.end()) return;
    fail(ErrorKind::kInvalidInput, "unknown command '{}'{}; 'tolvane help' lists the commands",
         printable(arguments[0]), suggestionFor(arguments[0], known));
}

[[noreturn]] void failWithUsage(const CLI::App& app, const std::vector<std::string>& arguments,
                                std::string text) {
    bool named = !arguments[0].starts_with("-");
    const CLI::App* command = named ? app.get_subcommand(arguments[0]) : &app;
    std::vector<std::string> known;
    for (const CLI::Option* option : command->get_options()) {
        for (const std::string& name : option->get_lnames()) known.push_back("--" + name);
    }
    for (const std::string& argument : arguments) {
        std::string name = argument.substr(0, argument.find('='));
        if (name == "--") break;
        if (!name.starts_with("--")) continue;
        if (std::find(known.begin(), known.end(), name) != known.end()) continue;
        text = fmt::format("unknown option '{}'{}", printable(name), suggestionFor(name, known));
        break;
    }
    fail(ErrorKind::kInvalidInput, "{}; see 'tolvane {}--help'", text,
         named ? arguments[0] + " " : "");
}

int parseAndRun(int argc, char** argv) {
    CLI::App app("Run, configure and monitor web servers that Tolvane measures.", "tolvane");
    app.footer(
        "Exit codes: 0 success; 1 no server, or a problem was found; 2 wrong usage or input, "
        "nothing was changed; 3 a system call failed, or the server has ended.\n"
        "Example:\n  tolvane run --config sites.toml -- apachectl start && tolvane top");
    app.set_version_flag("--version", "tolvane " TOLVANE_VERSION);
    // A missing sub-command is reported below, because CLI11 would report an unknown
    // sub-command in the same way.
    app.require_subcommand(0, 1);
    app.get_formatter()->column_width(24);
    Options options;
    Action action;
    addRun(app, options.run, action);
    addPrepare(app, options.prepare, action);
    addConfiguring(app, options, action);
    addWatching(app, options, action);
    addServing(app, options.serve, action);
    addCaring(app, options, action);
    std::vector<std::string> arguments = helpAsOption({argv + 1, argv + argc});
    refuseUnknownCommand(app, arguments);
    try {
        app.parse(std::vector<std::string>(arguments.rbegin(), arguments.rend()));
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() != 0) failWithUsage(app, arguments, error.what());
        std::ostringstream help;
        app.exit(error, help, help);
        writeOut(help.str());
        return kExitOk;
    }
    if (!action) fail(ErrorKind::kInvalidInput, "a command is missing; 'tolvane help' lists them");
    return action();
}

}  // namespace

int main(int argc, char** argv) {
    // A closed pipe is handled where it is written. A process inherits ignored
    // signals, so `run` restores the default for the server.
    ::signal(SIGPIPE, SIG_IGN);
    try {
        return parseAndRun(argc, argv);
    } catch (const Error& error) {
        printError(error.what());
        return exitCodeOf(error);
    } catch (const ReaderGone&) {
        return kExitOk;
    } catch (const std::exception& error) {
        printError(error.what());
        return kExitFailed;
    }
}
