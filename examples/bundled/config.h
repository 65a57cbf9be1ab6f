/**
 * The configuration: the settings that the owner of the daemon may change while it runs.
 *
 *     # One setting per line. The remarks on the right are not part of the file.
 *     greeting = Good morning
 *     idle-ms = 5000          how long a client may go without progress
 *     run-ms = 10000          how long a command may run
 *     run-bytes = 65536       how much it may write
 *     command.today = date -u
 *     bundle-base = /srv      where the bundle's paths begin; / by default
 *     bundle = notes.txt      a file or a directory with all its contents, relative to the base
 *     bundle = photos         one line for each
 *     bundle-streams = 4      how many bundles may be under way
 *     credentials = user:password   clients need them for all paths except /
 *     dns-server = 192.0.2.53 5353  asked for /resolve; the default port is 53
 *     dns-wait-ms = 1000      how long to wait for the first reply
 *     flag = verbose          logs each request
 *     flag = leak             leaks a block with each greeting, for a test of /leaks
 *
 * Blank lines and lines that begin with # are ignored. /bin/sh -c runs the line of a command. The
 * commands of a file replace the built-in ones. A path of the bundle is relative to the base and
 * has no part that is empty, "." or "..". A lone dot names the base itself.
 */
#ifndef BUNDLED_CONFIG_H
#define BUNDLED_CONFIG_H

#include <string>
#include <string_view>

#include "bundle.h"
#include "children.h"
#include "containers.h"
#include "resolver.h"

namespace bundled {

/** Returns the commands that exist if none is configured. */
TextTable built_in_commands();

struct Config {
    std::string greeting = "This is bundled.";
    unsigned int idle_ms = 5000;  ///< How long a client may hold a connection without progress.
    ChildLimits command_limits;
    BundleSettings bundle;
    std::string credentials;  ///< Empty if clients need none.
    DnsSettings dns;
    TextTable commands = built_in_commands();  ///< Lines for /bin/sh -c by name.
    Flags flags{checked(hashtable_alloc(8))};
};

constexpr unsigned int kMaxSettingMs = 3600U * 1000U;
constexpr unsigned int kMaxRunBytes = 1024U * 1024U;
constexpr unsigned int kMaxBundleStreams = 64;

/** Reads a whole decimal number of 1 to @p max. If it returns false, @p value is unchanged. */
bool parse_number(std::string_view text, unsigned int max, unsigned int& value);

/**
 * Reads the settings of @p text, which replace those that @p config has.
 *
 * Returns true, or false with the reason in @p error. After false @p config may be partly changed.
 */
bool parse_config(std::string_view text, Config& config, std::string& error);

/** Calls parse_config() for a regular file of moderate size. */
bool load_config(const char* path, Config& config, std::string& error);

}  // namespace bundled

#endif
