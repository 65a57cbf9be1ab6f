// The stand-in for liblog: which messages it prints, and how.
#include "liblog.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>

namespace {

constexpr int kZone = 6;

void set_rules(const char* rules) {
    unsetenv("TESSRA_LOG");
    if (rules) setenv("TESSRA_LOG", rules, 1);
}

std::string printed(const std::string& text) {
    testing::internal::CaptureStderr();
    __vask_log(kZone, 1, "%s", text.c_str());
    return testing::internal::GetCapturedStderr();
}

// `highest` is the highest enabled level of zone 6, `other` that of zones -1 and 0. 0 means
// none.
TEST(Liblog, RuleIsReadWrong) {
    const struct {
        const char* rules;
        int highest, other = 0;
    } rows[] = {
        {nullptr, 1, 1},
        {"", 1, 1},  // As by "TESSRA_LOG= program", which doesn't ask for silence.
        {"off", 0},
        {"6:2", 2},
        {"all:3", 3, 3},
        {"7:2", 0},
        {"60:2", 0},
        {"16:2", 0},  // A rule names the whole number of a zone.
        {"all:1,6:3", 3, 1},
        {"6:3,all:1", 1, 1},  // The last rule that fits counts, not the narrowest.
        {"6:3,off", 0},
        {"6:3,7:1", 3},
        {"6:2x", 0},
        {"6:2,6:", 2},  // An unreadable rule changes nothing, and hides no other.
        {"6:2,:,:2,-1:2,,all:,all,offf,6:-1,6:,6", 2},
        {"6:99999999999999999999,99999999999999999999:0", 2147483647},
    };
    for (const auto& [rules, highest, other] : rows) {
        set_rules(rules);
        errno = ENOENT;
        for (const int level : {1, highest, highest == 2147483647 ? 1 : highest + 1}) {
            EXPECT_EQ(level > 0 && level <= highest, logzone_enabled(kZone, level) != 0) << rules;
        }
        for (const int zone : {-1, 0}) {
            for (const int level : {1, other + 1}) {
                EXPECT_EQ(level <= other, logzone_enabled(zone, level) != 0) << rules << zone;
            }
        }
        EXPECT_EQ(ENOENT, errno) << rules;
    }
}

TEST(Liblog, MessageIsNotOneWholeLine) {
    set_rules(nullptr);
    for (const size_t length : {0, 5, 1022, 1023, 5000}) {
        for (const char* end : {"", "\n"}) {
            const std::string text(length, 'x'), line = text.substr(0, 1022) + '\n';
            EXPECT_EQ(line, printed(text + end)) << length;
        }
    }
}

TEST(Liblog, MessageIsPrintedUnwantedOrSpoilsErrno) {
    set_rules("6:0,7:1");
    EXPECT_EQ("", printed("unwanted"));
    set_rules(nullptr);
    close(STDERR_FILENO);
    errno = ENOENT;
    __vask_log(kZone, 1, "into nothing");
    EXPECT_EQ(ENOENT, errno);
}

}  // namespace
