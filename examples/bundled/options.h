/** The command line. */
#ifndef BUNDLED_OPTIONS_H
#define BUNDLED_OPTIONS_H

namespace bundled {

struct Options {
    unsigned int port = 0;  ///< 0 takes a free one.
    const char* config_path = nullptr;
    const char* pid_path = nullptr;
    unsigned int idle_ms = 0;  ///< 0 if not given. A configuration file overrides it.
    unsigned int max_connections = 64;
    unsigned int status_delay_s = 2;
    unsigned int track_ms = 0;  ///< Between two dumps of the allocation tracker; 0: no tracking.
};

/** Reads the command line. Exits if the command line is wrong or asks for help. */
Options parse_options(int argc, char** argv);

}  // namespace bundled

#endif
