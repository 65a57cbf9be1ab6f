#include "tessra/memchk.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/harness.h"

using namespace tessra_test;

namespace {

// Names at ascending addresses. Two of them have the same text.
char names[3][400] = {"a.c", "a.c", "b.c"};
char places[64];  // Addresses to be tracked. Nobody reads there.

std::string report;

void note(int level, char* format, ...) {
    char line[1000];
    va_list args;
    va_start(args, format);
    vsnprintf(line, sizeof line, format, args);
    va_end(args);
    report += std::to_string(level) + line + '\n';
}

// Returns the lines of a dump between its first and its last one. -1 is passed on as the level.
std::string dump() {
    report.clear();
    dump_allocation_tree(-1, note);
    const std::string all = report, start = "-1allocation tree - start\n",
                      end = "-1allocation tree - end\n";
    const size_t length = all.find(end) - start.size();
    EXPECT_TRUE(all.rfind(start, 0) == 0 && all.substr(start.size() + length) == end) << all;
    return all.substr(start.size(), length);
}

std::string listed(unsigned count, const char* file, unsigned line) {
    return "-1 [\t" + std::to_string(count) + "\tallocations from " + file + "\t" +
           std::to_string(line) + "\t] \n";
}

struct Allocation {
    int place, name;
    unsigned line;
};
void add(std::initializer_list<Allocation> allocations) {
    for (const auto& [place, name, line] : allocations) {
        add_allocation(places + place, names[name], line, 1);
    }
}
void remove(std::initializer_list<int> removed) {
    for (const int place : removed) remove_allocation(places + place);
}

ISOLATED_TEST(Memchk, FiveDumps) {
    remove({0});  // Nothing is tracked yet.
    add({{0, 0, 5}, {1, 0, 6}});
    EXPECT_EQ("", dump());
    add({{10, 0, 30}, {20, 0, 30}, {11, 0, 30}, {12, 0, 10}, {13, 1, 30}});
    add({{14, 2, 7}, {15, 2, 8}, {16, 2, UINT_MAX}});
    add({{12, 2, 99}});                         // Tracked already: keeps its site.
    add_allocation(nullptr, names[2], 999, 1);  // No block, so it can't be a leak.
    EXPECT_EQ("", dump());
    remove({15, 40});
    add({{17, 2, 9}});
    const std::string b = listed(1, "b.c", UINT_MAX) + listed(1, "b.c", 7),
                      a10 = listed(1, "a.c", 10);
    EXPECT_EQ(b + listed(1, "a.c", 30) + listed(3, "a.c", 30) + a10, dump());
    remove({16, 13, 20, 1, 14});
    add({{1, 1, 40}});   // In the place of an excused block: never listed.
    add({{14, 2, 50}});  // In the place of a noted one: one dump early.
    EXPECT_EQ(listed(1, "b.c", 50) + listed(1, "b.c", 9) + listed(2, "a.c", 30) + a10, dump());
    memset(names[2], 'n', sizeof names[2] - 1);  // The text may change, the address counts.
    const std::string cut = listed(1, names[2], 0).substr(0, 2 + 253) + "\n";
    EXPECT_EQ(cut + cut + listed(2, "a.c", 30) + a10, dump());
}

// Threads add and remove at random. A model of sets computes the lines of each dump. If the first
// dump finds no block, it excuses none, which one of the tests shows.
void compare_with_model(int first_round) {
    unsigned seed = std::random_device{}();
    SCOPED_TRACE(seed);
    std::mutex mutex;
    std::map<int, std::pair<int, unsigned>> live, noted, excused;
    const auto work = [&](unsigned thread_seed) {
        std::mt19937 random(thread_seed);
        for (int i = 0; i < 20; ++i) {
            const int place = int(random() % 64), name = int(random() % 3);
            const unsigned line = unsigned(random() % 3);
            std::lock_guard lock(mutex);
            if (random() % 2) {
                add({{place, name, line}});
                live.insert({place, {name, line}});
            } else {
                remove({place});
                live.erase(place);
            }
        }
    };
    for (int round = 0; round < 20; ++round) {
        std::vector<std::thread> threads;
        for (int t = 0; t < (round < first_round ? 0 : 3); ++t) threads.emplace_back(work, seed++);
        for (std::thread& thread : threads) thread.join();
        std::map<std::pair<int, unsigned>, unsigned, std::greater<>> groups;
        for (const auto& [place, site] : live) {
            if (noted.count(place) && !excused.count(place)) ++groups[site];
        }
        std::string expected;
        for (const auto& [site, count] : groups) {
            expected += listed(count, names[site.first], site.second);
        }
        EXPECT_EQ(expected, dump());
        if (round == 0) excused = live;
        noted = live;
    }
}
ISOLATED_TEST(Memchk, ThreadsAndModel) { compare_with_model(0); }
ISOLATED_TEST(Memchk, FirstDumpOfNothing) { compare_with_model(1); }

ISOLATED_TEST(Memchk, FirstDumpWithoutMemoryExcusesNothing) {
    add({{0, 0, 5}});
    struct fault no_memory = {FAKE_ALLOC, 1, ENOMEM, 0, {}};
    fakes.fault = &no_memory;
    dump();
    fakes.fault = nullptr;
    add({{1, 0, 6}});
    dump();
    EXPECT_EQ(listed(1, "a.c", 6), dump());
}

ISOLATED_TEST(Memchk, Wrappers) {
    char text[] = "text";
    dump();
    memchk_free(nullptr, names[0], 1);
    memchk_free(malloc(1), names[0], 1);  // Nothing is tracked yet.
    // Without memory for the block a wrapper returns NULL. Without memory for the tree or the node,
    // it returns the block, untracked.
    for (int n : {1, 2, 3, 2}) {
        fail_allocation = n;
        errno = 0;
        void* block = memchk_calloc(1, 1, names[0], 1);
        fail_allocation = 0;
        EXPECT_TRUE((n > 1) == (block != nullptr) && errno == ENOMEM) << n;
        dump();
        EXPECT_EQ("", dump());
        memchk_free(block, names[0], 1);
    }
    char* copies[] = {static_cast<char*>(memchk_calloc(3, 5, names[0], 1)),
                      memchk_dup(text, names[0], 2), memchk_n_dup(text, 9, names[0], 2),
                      memchk_n_dup(text, 2, names[0], 2), memchk_n_dup(text, 0, names[0], 2)};
    EXPECT_EQ(std::string(15, 0), std::string(copies[0], 15));
    text[0] = 'n';
    const char* expected[] = {"", "text", "text", "te", ""};
    for (int i = 0; i < 5; ++i) EXPECT_STREQ(expected[i], copies[i]);
    dump();
    EXPECT_EQ(listed(4, "a.c", 2) + listed(1, "a.c", 1), dump());
    for (int i = 1; i < 5; ++i) memchk_free(copies[i], nullptr, 0);
    free(copies[0]);  // The tracker doesn't see this.
    EXPECT_EQ(listed(1, "a.c", 1), dump());
}

}  // namespace
