// The revision of the hardware, from the device's variable "hw_rev".

#include <climits>
#include <cstdlib>

#include "tessra/misc.h"

namespace {

// Parses a number and limits it to the range of an int, as strtol() does if a long has that range.
int parse_int(const char* text, char** end) {
    const long value = strtol(text, end, 10);
    if (value > INT_MAX) return INT_MAX;
    if (value < INT_MIN) return INT_MIN;
    return static_cast<int>(value);
}

}  // namespace

void get_hw_rev(int* major, int* minor) {
    if (major == nullptr || minor == nullptr) return;
    char* const text = get_nrv_printenv("hw_rev");
    if (text == nullptr) {
        *major = 0;
        *minor = 0;
        return;
    }
    char* end = nullptr;
    *major = parse_int(text, &end);
    if (*end != 0) ++end;  // The separator may be any character.
    if (*end != 0) *minor = parse_int(end, nullptr);
    free(text);
}
