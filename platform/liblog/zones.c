// Decides which messages are wanted. The environment variable TESSRA_LOG is read for each message.
// Its rules are separated by commas, and the last rule that fits a zone counts.
//
//     6:2        zone 6 up to level 2
//     all:1      every zone up to level 1; the default if the variable isn't set or is empty
//     all:1,6:3  zone 6 up to level 3, the others up to level 1
//     off        nothing
//
// Levels begin at 1, the most important. If no rule fits a zone, no message of the zone is wanted.
// A rule that can't be read fits no zone. Nothing here changes errno, so strtol() isn't used.
#include <limits.h>
#include <stdbool.h>
#include <stdlib.h>
#include <string.h>

#include "liblog.h"

static const char kAllZones[] = "all:";

enum { kDefaultLevel = 1, kNoRule = -1 };

// Reads a decimal number and moves *text behind it. A number above INT_MAX becomes INT_MAX. Returns
// false if there is no digit.
static bool read_number(const char** text, int* number) {
    const char* const begin = *text;
    *number = 0;
    for (; **text >= '0' && **text <= '9'; ++*text) {
        const int digit = **text - '0';
        *number = *number > (INT_MAX - digit) / 10 ? INT_MAX : *number * 10 + digit;
    }
    return *text != begin;
}

// Returns the highest level that a rule gives to the zone, or kNoRule if the rule doesn't fit.
static int level_of_rule(const char* rule, size_t length, int zone) {
    if (length == 3 && strncmp(rule, "off", length) == 0) return 0;
    const char* const end = rule + length;
    int number;
    if (strncmp(rule, kAllZones, sizeof kAllZones - 1) == 0) {
        rule += sizeof kAllZones - 1;
    } else {
        if (!read_number(&rule, &number) || number != zone || *rule != ':') return kNoRule;
        ++rule;
    }
    return read_number(&rule, &number) && rule == end ? number : kNoRule;
}

int logzone_enabled(int zone, int level) {
    const char* rule = getenv("TESSRA_LOG");
    if (rule == NULL || *rule == '\0') return level <= kDefaultLevel;
    int highest = 0;
    for (;;) {
        const size_t length = strcspn(rule, ",");
        const int found = level_of_rule(rule, length, zone);
        if (found != kNoRule) highest = found;
        if (rule[length] == '\0') return highest > 0 && level <= highest;
        rule += length + 1;
    }
}
