#include "config.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <utility>

#include "descriptor.h"

namespace bundled {

namespace {

constexpr std::size_t kMaxFileBytes = 65536;
constexpr int kMaxCommands = 64;
constexpr std::string_view kCommandPrefix = "command.";
constexpr std::string_view kFlags[] = {"verbose", "leak"};

TextTable no_commands() { return TextTable(checked(hashtable_alloc(kMaxCommands))); }

std::string_view trimmed(std::string_view text) {
    constexpr std::string_view kBlank = " \t\r";
    const std::size_t first = text.find_first_not_of(kBlank);
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(kBlank) - first + 1);
}

bool is_command_name(std::string_view name) {
    constexpr std::string_view kAllowed =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_";
    return !name.empty() && name.find_first_not_of(kAllowed) == std::string_view::npos;
}

bool add_command(hashtable_t& commands, std::string_view name, std::string_view line) {
    Text key = copy(name);
    if (!is_command_name(name) || line.empty() || hashtable_count(&commands) >= kMaxCommands ||
        str_hashtable_count(&commands, key.get()) != 0) {
        return false;
    }
    put(commands, std::move(key), copy(line));
    return true;
}

bool set_flag(hashtable_t& flags, std::string_view name) {
    if (std::find(std::begin(kFlags), std::end(kFlags), name) == std::end(kFlags)) {
        return false;
    }
    const std::string flag(name);
    named_flag_set(&flags, flag.c_str());
    return named_flag_has(&flags, flag.c_str()) != 0;
}

bool is_below_base(std::string_view path) {
    for (;;) {
        const std::size_t slash = path.find('/');
        const std::string_view part = path.substr(0, slash);
        if (part.empty() || part == "." || part == "..") {
            return false;
        }
        if (slash == std::string_view::npos) {
            return true;
        }
        path.remove_prefix(slash + 1);
    }
}

bool add_bundle_path(LinkedList& paths, std::string_view path) {
    if (path.size() > 1 && path.back() == '/') {
        path.remove_suffix(1);
    }
    if (path != "." && !is_below_base(path)) {
        return false;
    }
    Text text = copy(path);
    push(paths, text.get());
    (void)text.release();
    return true;
}

bool set_bundle_base(std::string& base, std::string_view path) {
    if (path.empty() || path.front() != '/') {
        return false;
    }
    base = path.substr(0, path.find_last_not_of('/') + 1);
    return true;
}

bool set_credentials(std::string& credentials, std::string_view value) {
    credentials = value;
    return value.find(':') != std::string_view::npos;
}

bool set_dns_server(sockaddr_in& server, std::string_view value) {
    const std::size_t blank = value.find_first_of(" \t");
    unsigned int port = 53;
    if (blank != std::string_view::npos &&
        !parse_number(trimmed(value.substr(blank)), 65535, port)) {
        return false;
    }
    server.sin_family = AF_INET;
    server.sin_port = htons(static_cast<in_port_t>(port));
    return inet_pton(AF_INET, std::string(value.substr(0, blank)).c_str(), &server.sin_addr) == 1;
}

bool apply_setting(std::string_view key, std::string_view value, Config& config,
                   hashtable_t& commands) {
    if (key == "greeting") {
        config.greeting = value;
        return true;
    }
    if (key == "idle-ms") {
        return parse_number(value, kMaxSettingMs, config.idle_ms);
    }
    if (key == "run-ms") {
        return parse_number(value, kMaxSettingMs, config.command_limits.time_ms);
    }
    if (key == "run-bytes") {
        return parse_number(value, kMaxRunBytes, config.command_limits.output_bytes);
    }
    if (key == "bundle-base") {
        return set_bundle_base(config.bundle.base, value);
    }
    if (key == "bundle") {
        return add_bundle_path(*config.bundle.paths, value);
    }
    if (key == "bundle-streams") {
        return parse_number(value, kMaxBundleStreams, config.bundle.streams);
    }
    if (key == "credentials") {
        return set_credentials(config.credentials, value);
    }
    if (key == "dns-server") {
        return set_dns_server(config.dns.server, value);
    }
    if (key == "dns-wait-ms") {
        return parse_number(value, kMaxSettingMs, config.dns.wait_ms);
    }
    if (key == "flag") {
        return set_flag(*config.flags, value);
    }
    if (key.substr(0, kCommandPrefix.size()) == kCommandPrefix) {
        return add_command(commands, key.substr(kCommandPrefix.size()), value);
    }
    return false;
}

bool apply_line(std::string_view line, Config& config, hashtable_t& commands) {
    line = trimmed(line);
    if (line.empty() || line.front() == '#') {
        return true;
    }
    const std::size_t equals = line.find('=');
    if (equals == std::string_view::npos || line.find('\0') != std::string_view::npos) {
        return false;
    }
    return apply_setting(trimmed(line.substr(0, equals)), trimmed(line.substr(equals + 1)), config,
                         commands);
}

// Reads to the end of the file, or until the text is longer than a configuration may be.
bool read_all(int fd, std::string& text) {
    char chunk[4096];
    while (text.size() <= kMaxFileBytes) {
        const ssize_t count = read(fd, chunk, sizeof chunk);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return count == 0;
        }
        text.append(chunk, static_cast<std::size_t>(count));
    }
    return true;
}

}  // namespace

TextTable built_in_commands() {
    TextTable commands = no_commands();
    put(*commands, copy("hello"), copy("echo hello"));
    put(*commands, copy("uname"), copy("uname -sr"));
    return commands;
}

bool parse_number(std::string_view text, unsigned int max, unsigned int& value) {
    unsigned long long number = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') {
            return false;
        }
        number = number * 10 + static_cast<unsigned int>(c - '0');
        if (number > max) {
            return false;
        }
    }
    if (number == 0) {  // An empty text gives 0, too.
        return false;
    }
    value = static_cast<unsigned int>(number);
    return true;
}

bool parse_config(std::string_view text, Config& config, std::string& error) {
    TextTable commands = no_commands();
    for (unsigned int number = 1; !text.empty(); ++number) {
        const std::size_t end = text.find('\n');
        if (!apply_line(text.substr(0, end), config, *commands)) {
            error = "line " + std::to_string(number) + " is not a valid setting";
            return false;
        }
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
    if (hashtable_count(commands.get()) != 0) {
        config.commands = std::move(commands);
    }
    return true;
}

bool load_config(const char* path, Config& config, std::string& error) {
    // Opening and reading a FIFO or a terminal would block the loop, so only regular files count.
    const Descriptor file(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat info;
    if (!file.is_open() || fstat(file.get(), &info) != 0) {
        error = std::strerror(errno);
        return false;
    }
    if (!S_ISREG(info.st_mode)) {
        error = "not a regular file";
        return false;
    }
    std::string text;
    if (!read_all(file.get(), text)) {
        error = std::strerror(errno);
        return false;
    }
    if (text.size() > kMaxFileBytes) {
        error = "too long";
        return false;
    }
    return parse_config(text, config, error);
}

}  // namespace bundled
