#include "options.h"

#include <getopt.h>

#include <cstring>

#include "config.h"
#include "log.h"

namespace bundled {

namespace {

// Leaves room below FD_SETSIZE for the pipes of the children and the daemon's own descriptors.
constexpr unsigned int kMaxConnectionLimit = 900;

constexpr struct option kLongOptions[] = {
    {"port", required_argument, nullptr, 'p'},
    {"config", required_argument, nullptr, 'c'},
    {"idle-ms", required_argument, nullptr, 'i'},
    {"max-connections", required_argument, nullptr, 'm'},
    {"status-delay", required_argument, nullptr, 's'},
    {"track", required_argument, nullptr, 't'},
    {"help", no_argument, nullptr, 'h'},
    {nullptr, 0, nullptr, 0},
};

bool apply_option(int option, const char* value, Options& options) {
    switch (option) {
        case 'p':
            if (std::strcmp(value, "0") == 0) {
                options.port = 0;
                return true;
            }
            return parse_number(value, 65535, options.port);
        case 'c':
            options.config_path = value;
            return true;
        case 'i':
            return parse_number(value, kMaxSettingMs, options.idle_ms);
        case 'm':
            return parse_number(value, kMaxConnectionLimit, options.max_connections);
        case 's':
            return parse_number(value, 3600, options.status_delay_s);
        case 't':
            return parse_number(value, kMaxSettingMs, options.track_ms);
        case 'h':
            options.help = true;
            return true;
        default:
            return false;  // getopt_long() has written why.
    }
}

}  // namespace

bool parse_options(int argc, char** argv, Options& options) {
    int option;
    while ((option = getopt_long(argc, argv, "", kLongOptions, nullptr)) != -1) {
        if (!apply_option(option, optarg, options)) {
            if (option != '?') {
                log_line("bad value: %s", optarg);
            }
            return false;
        }
    }
    if (optind != argc) {
        log_line("unexpected argument: %s", argv[optind]);
        return false;
    }
    return true;
}

const char* usage() {
    return "Usage: bundled [OPTION]...\n"
           "Serves a bundle of files, a fixed list of commands and a status page over HTTP on\n"
           "127.0.0.1.\n\n"
           "  --port N             port to listen on; 0, the default, takes a free one\n"
           "  --config FILE        configuration, read again on SIGHUP\n"
           "  --idle-ms N          how long a client may go without progress (5000)\n"
           "  --max-connections N  clients served at a time, up to 900 (64)\n"
           "  --status-delay N     least seconds between two refreshes of the status line (2)\n"
           "  --track N            tracks the daemon's memory: /leaks has a report every N ms "
           "(off)\n"
           "  --help               this text\n";
}

}  // namespace bundled
