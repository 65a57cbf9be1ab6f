// The stand-in for liblog: which messages it lets through, and what it prints of them.
#include "liblog.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

namespace {

constexpr int kZone = 6;

void set_rules(const char* rules) {
    if (rules == nullptr) {
        unsetenv("TESSRA_LOG");
    } else {
        setenv("TESSRA_LOG", rules, 1);
    }
}

std::string printed(const std::string& text) {
    testing::internal::CaptureStderr();
    __vask_log(kZone, 1, "%s", text.c_str());
    return testing::internal::GetCapturedStderr();
}

// `highest` is the highest level of zone 6 that is wanted, 0 for none.
TEST(Liblog, RuleIsReadWrong) {
    const struct {
        const char* rules;
        int highest;
    } rows[] = {
        {nullptr, 1},
        {"", 0},
        {"off", 0},
        {"6:2", 2},
        {"all:3", 3},
        {"7:2", 0},
        {"60:2", 0},  // A zone is compared whole.
        {"16:2", 0},
        {"all:1,6:3", 3},
        {"6:3,all:1", 1},  // The last rule that fits counts, not the narrowest.
        {"6:3,off", 0},
        {"6:3,7:1", 3},
        {"6:2x", 0},  // What can't be read changes nothing, and hides no other rule.
        {"6:2,6:", 2},
        {"6:2,:,,all:,all,offf,6:-1,6:,6", 2},
        {"6:99999999999999999999", 2147483647},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.rules != nullptr ? row.rules : "not set");
        set_rules(row.rules);
        EXPECT_EQ(row.highest >= 1, logzone_enabled(kZone, 1) != 0);
        if (row.highest >= 1) {
            EXPECT_TRUE(logzone_enabled(kZone, row.highest));
        }
        if (row.highest < 2147483647) {
            EXPECT_FALSE(logzone_enabled(kZone, row.highest + 1));
        }
    }
}

TEST(Liblog, MessageIsNotOneWholeLine) {
    const struct {
        size_t length;
        const char* end;
        size_t expected;
    } rows[] = {
        {0, "", 1},         {5, "", 6},       {5, "\n", 6},       {1022, "", 1023},
        {1022, "\n", 1023}, {1023, "", 1023}, {1023, "\n", 1023}, {5000, "\n", 1023},
    };
    set_rules(nullptr);
    for (const auto& row : rows) {
        SCOPED_TRACE(std::to_string(row.length) + (*row.end != '\0' ? " and a newline" : ""));
        const std::string text(row.length, 'x');
        EXPECT_EQ(text.substr(0, row.expected - 1) + '\n', printed(text + row.end));
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
