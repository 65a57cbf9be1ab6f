#include "options.h"

#include <getopt.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <tessra/error_functions.h>

#include "config.h"

namespace bundled {

namespace {

// Leaves room below FD_SETSIZE for the pipes of the children and the daemon's own descriptors.
constexpr unsigned int kMaxConnectionLimit = 900;

constexpr struct option kLongOptions[] = {
    {"port", required_argument, nullptr, 'p'},
    {"config", required_argument, nullptr, 'c'},
    {"pid-file", required_argument, nullptr, 'f'},
    {"idle-ms", required_argument, nullptr, 'i'},
    {"max-connections", required_argument, nullptr, 'm'},
    {"status-delay", required_argument, nullptr, 's'},
    {"track", required_argument, nullptr, 't'},
    {"help", no_argument, nullptr, 'h'},
    {nullptr, 0, nullptr, 0},
};

constexpr char kUsage[] =
    "bundled [OPTION]...\n"
    "Serves a bundle of files, a fixed list of commands, names and a status page over HTTP on\n"
    "127.0.0.1.\n\n"
    "  --port N             port to listen on; 0, the default, takes a free one\n"
    "  --config FILE        configuration, read again on SIGHUP\n"
    "  --pid-file FILE      is locked, so that there is one daemon, and gets its process id\n"
    "  --idle-ms N          how long a client may go without progress (5000)\n"
    "  --max-connections N  clients served at a time, up to 900 (64)\n"
    "  --status-delay N     least seconds between two refreshes of the status line (2)\n"
    "  --track N            tracks the daemon's memory: /leaks has a report every N ms (off)\n"
    "  --help               this text\n";

[[noreturn]] void help() {
    exit(std::printf("Usage: %s", kUsage) < 0 ? EXIT_FAILURE : EXIT_SUCCESS);
}

void set_number(const char* value, unsigned int max, unsigned int& number) {
    if (!parse_number(value, max, number)) {
        cmdLineErr("'%s' isn't a number from 1 to %u\n", value, max);
    }
}

void apply_option(int option, const char* value, Options& options) {
    switch (option) {
        case 'p':
            options.port = 0;
            if (std::strcmp(value, "0") != 0) {
                set_number(value, 65535, options.port);
            }
            return;
        case 'c':
            options.config_path = value;
            return;
        case 'f':
            options.pid_path = value;
            return;
        case 'i':
            return set_number(value, kMaxSettingMs, options.idle_ms);
        case 'm':
            return set_number(value, kMaxConnectionLimit, options.max_connections);
        case 's':
            return set_number(value, 3600, options.status_delay_s);
        case 't':
            return set_number(value, kMaxSettingMs, options.track_ms);
        case 'h':
            help();
        default:
            usageErr("%s", kUsage);  // getopt_long() has reported the error.
    }
}

}  // namespace

Options parse_options(int argc, char** argv) {
    Options options;
    int option;
    while ((option = getopt_long(argc, argv, "", kLongOptions, nullptr)) != -1) {
        apply_option(option, optarg, options);
    }
    if (optind != argc) {
        cmdLineErr("unexpected argument '%s'\n", argv[optind]);
    }
    return options;
}

}  // namespace bundled
