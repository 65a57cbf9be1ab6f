#include "status.h"

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "descriptor.h"
#include "log.h"

namespace bundled {

namespace {

constexpr const char* kShownAtZero[] = {
    "bundles abandoned", "bundles cut short",  "bundles refused",       "bundles sent",
    "children run",      "connections served", "connections timed out", "reloads",
    "reloads refused",   "signals seen",
};

constexpr const char* kLineName = "/status";
constexpr const char* kNewLineName = "/status.new";

// The folder's name is a part of a shell command and of a printf format, so it has no special
// characters.
constexpr char kFolderTemplate[] = "/tmp/bundled-XXXXXX";

}  // namespace

Counters::Counters() {
    for (const char* name : kShownAtZero) {
        (void)find_or_make(name);
    }
}

Counters::~Counters() {
    for_each([](Counter* counter) { delete counter; });
}

Counters::Counter* Counters::find_or_make(const char* name) {
    char* key = const_cast<char*>(name);
    auto* counter = static_cast<Counter*>(BT_find(counters_.get(), key));
    if (counter == nullptr) {
        std::unique_ptr<Counter> made(new (here()) Counter{{}, name, 0});
        (void)enter(*counters_, key, made.get());
        counter = made.release();
    }
    return counter;
}

StatusLine::~StatusLine() {
    if (folder_.empty()) {
        return;
    }
    (void)unlink((folder_ + kNewLineName).c_str());  // Either file may be missing.
    (void)unlink((folder_ + kLineName).c_str());
    if (rmdir(folder_.c_str()) != 0) {
        log_line("cannot remove %s: %s", folder_.c_str(), std::strerror(errno));
    }
}

bool StatusLine::open(unsigned int delay_s) {
    char name[sizeof kFolderTemplate];
    std::memcpy(name, kFolderTemplate, sizeof name);
    if (mkdtemp(name) == nullptr) {
        return false;
    }
    folder_ = name;
    // With the rename a reader sees only whole lines. Percent signs are doubled for printf.
    command_ = "cd " + folder_ + " && " +
               "echo \"$(date -u '+%%Y-%%m-%%d %%H:%%M:%%S') UTC, up"
               " $(cut -d. -f1 /proc/uptime) s\" > status.new && mv status.new status";
    task_.command_line = command_.data();
    task_.minimum_delay = delay_s;
    return true;
}

void StatusLine::refresh() {
    errno = 0;
    run_bg_task(&task_);
    if (errno != 0) {
        log_line("cannot refresh the status line: %s", std::strerror(errno));
    }
}

std::string StatusLine::line() const {
    const Descriptor file(::open((folder_ + kLineName).c_str(), O_RDONLY | O_CLOEXEC));
    char text[256];
    const ssize_t count = file.is_open() ? read(file.get(), text, sizeof text) : 0;
    if (count <= 0) {
        return "not yet known";
    }
    const std::string line(text, static_cast<std::size_t>(count));
    return line.substr(0, line.find('\n'));
}

}  // namespace bundled
