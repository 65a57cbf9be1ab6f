#include "tracking.h"

#include <tessra/memchk.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "descriptor.h"
#include "log.h"

namespace bundled {

namespace {

bool tracking = false;
std::string* report = nullptr;  // Receives the lines of the dump under way.

__attribute__((format(printf, 2, 3))) void take_line(int /*level*/, char* format, ...) {
    char line[256];
    va_list args;
    va_start(args, format);
    (void)std::vsnprintf(line, sizeof line, format, args);  // Longer than the tracker's lines.
    va_end(args);
    report->append(line).append("\n");
}

}  // namespace

void set_tracking(bool on) { tracking = on; }

void* Tracked::operator new(std::size_t size, Site site) {
    return checked(tracking ? tessra_memchk_calloc(1, size, site.file, site.line)
                            : std::calloc(1, size));
}

void Tracked::operator delete(void* block) { FreeBlock()(block); }
void Tracked::operator delete(void* block, Site /*site*/) { FreeBlock()(block); }

void FreeBlock::operator()(void* block) const { memchk_free(block, nullptr, 0); }

Text copy(std::string_view text, Site site) {
    const char* bytes = text.empty() ? "" : text.data();
    return Text(static_cast<char*>(
        checked(tracking ? tessra_memchk_n_dup(bytes, text.size(), site.file, site.line)
                         : strndup(bytes, text.size()))));
}

LeakReports::~LeakReports() { event_timer_del(on_time, this); }

bool LeakReports::start(unsigned int interval_ms) {
    interval_ms_ = interval_ms;
    return arm_timer(on_time, this, interval_ms);
}

void LeakReports::on_time(void* arg) noexcept {
    auto* self = static_cast<LeakReports*>(arg);
    self->dump();
    if (!arm_timer(on_time, self, self->interval_ms_)) {
        log_line("dump %u was the last: %s", self->dumps_, std::strerror(errno));
    }
}

void LeakReports::dump() {
    latest_ = "dump " + std::to_string(++dumps_) + "\n";
    report = &latest_;
    errno = 0;
    dump_allocation_tree(0, take_line);
    const bool complete = errno == 0;
    const auto lines = std::count(latest_.begin(), latest_.end(), '\n');
    log_line("dump %u: %d sites with survivors%s", dumps_, static_cast<int>(lines) - 3,
             complete ? "" : ", and perhaps more: memory was short");
}

}  // namespace bundled
