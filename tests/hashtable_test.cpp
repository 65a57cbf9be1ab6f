// Compares the string hash with a second implementation, and tests the tables.
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <random>

#include "support/harness.h"
#include "tessra/list.h"

namespace {

using tessra_test::trace;

// lookup2 as a stream of bytes, with the shifts in a table (right ones are negative).
uint32_t hash_again(const std::string& text) {
    static const int kShifts[] = {-13, 8, -13, -12, 16, -5, -3, 10, -15};
    uint32_t word[] = {0x9e3779b9, 0x9e3779b9, 0xdeadbeef};
    const auto mix = [&word] {
        for (int line = 0; line < 9; ++line) {
            const uint32_t y = word[(line + 1) % 3], z = word[(line + 2) % 3];
            const int shift = kShifts[line];
            word[line % 3] = (word[line % 3] - y - z) ^ (shift < 0 ? z >> -shift : z << shift);
        }
    };
    for (size_t n = 0; n < text.size(); ++n) {
        const size_t at = n % 12;
        const bool beside_length = at >= 8 && n >= text.size() / 12 * 12;
        word[at / 4] += uint32_t(uint8_t(text[n])) << (beside_length ? at - 7 : at % 4) * 8;
        if (at == 11) mix();
    }
    word[2] += uint32_t(text.size());
    mix();
    return word[2];
}

// In the first 65 rounds a page without access follows the string.
TEST(StrHash, DiffersFromLookup2OrReadsBehindTheString) {
    EXPECT_EQ(0x1153f4beu, strhash(""));
    EXPECT_EQ(0x67e8c010u, strhash("abc"));
    EXPECT_EQ(0xe71c206cu, strhash("abcdefghijklm"));
    const unsigned seed = std::random_device()();
    std::mt19937 random(seed);
    const size_t page = size_t(sysconf(_SC_PAGESIZE));
    void* map = mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    char* end = static_cast<char*>(map) + page;
    ASSERT_EQ(0, mprotect(end, page, PROT_NONE));
    for (size_t round = 0; round < 65 * 16; ++round) {
        std::string text(round % 65, 0);
        for (char& c : text) c = char(1 + random() % 255);
        char* at = strcpy(end - round / 65 - text.size() - 1, text.c_str());
        ASSERT_EQ(hash_again(text), strhash(at)) << seed;
    }
}

TEST(HashTable, SizesThatNoBlockHasAndNothingAtAll) {
    // On 32 bits the size of the last one's block wraps around to 12 bytes.
    for (const int size : {-1, INT_MIN, INT_MAX, 0x15555556}) {
        if (size < 0 || sizeof(size_t) == 4) EXPECT_TRUE(!hashtable_alloc(size) && errno == ENOMEM);
    }
    for (hashtable_t* ht : {hashtable_alloc(0), static_cast<hashtable_t*>(nullptr)}) {
        hashtable_iterate(ht, nullptr, nullptr);
        str_hashtable_filter(ht, nullptr, nullptr, nullptr);
        EXPECT_EQ(0u, str_hashtable_count(ht, nullptr));
        EXPECT_FALSE(hashtable_get_index(ht, 1u << 31, 0) || str_hashtable_get_index(ht, "k", 0) ||
                     named_flag_clr(ht, "k"));
        if (ht)
            str_hashtable_put(ht, strdup("k"), strdup("1"));  // The size doesn't count this bucket.
        EXPECT_EQ(ht ? 1u : 0u, hashtable_count(ht));
        str_hashtable_free(ht);
    }
    list_free(nullptr, nullptr);
    EXPECT_TRUE(!str_hashtable_put(nullptr, nullptr, nullptr) && errno == EINVAL);
    errno = 0;
    named_flag_set(nullptr, "k");
    EXPECT_EQ(EINVAL, errno);
}

// x and X stand for two names with the same hash.
std::string key_of(char letter) {
    return letter == 'x' ? "uaaaa" : letter == 'X' ? "lwzaa" : std::string(1, letter);
}

// Returns a table with a key for each letter. The values are blocks with "1", "2" and so on. f is
// alone in its bucket.
hashtable_t* table_of(const char* letters) {
    hashtable_t* ht = hashtable_alloc(3);
    for (int n = 0; letters[n]; ++n) {
        str_hashtable_put(ht, strdup(key_of(letters[n]).c_str()), strndup(&"123456"[n], 1));
    }
    return ht;
}

const char* text(void* value) { return value ? static_cast<char*>(value) : "-"; }
string_hash_t* record(hashlist_t* entry) { return reinterpret_cast<string_hash_t*>(entry); }
void note_value(char*, void* value, void* to) { *static_cast<std::string*>(to) += text(value); }
void delete_own(char* key, void*, void* ht) {
    if (*key != 'k') str_hashtable_delete_index(static_cast<hashtable_t*>(ht), key, 0);
}
int take_even_or_all(void* value, void* seen) {
    if (seen) note_value(nullptr, value, seen);
    if (seen && *text(value) % 2) return 2;
    free(value);
    return 0;
}

std::string values(hashtable_t* ht) {
    std::string walked;
    str_hashtable_iterate(ht, note_value, &walked);
    return walked;
}

TEST(StrHashTable, FindsOrRemovesAnotherEntry) {
    hashtable_t* ht = table_of("klkkfx");
    EXPECT_EQ("512346", values(ht));
    list_t list, *node;
    std::string listed, found, with_hash;
    str_hashtable_values(ht, &list);
    dll_foreach(node, &list) listed += text(reinterpret_cast<ptr_list_t*>(node)->pointer);
    list_free_items(&list, nullptr);
    EXPECT_EQ("512346", listed);
    for (const std::string& key : {key_of('k'), key_of('x'), key_of('X')}) {
        for (int index : {0, 1, 2, 3, -1, INT_MIN}) {
            found += text(str_hashtable_get_index(ht, key.c_str(), index));
            hashlist_t* entry = hashtable_get_index(ht, strhash(key.c_str()), index);
            with_hash += entry ? text(record(entry)->value) : "-";
        }
    }
    EXPECT_EQ("134---6-----------", found);
    EXPECT_EQ("134---6-----6-----", with_hash);
    EXPECT_TRUE(str_hashtable_count(ht, "k") == 3 && str_hashtable_count(ht, nullptr) == 6);
    str_hashtable_delete_index(ht, "k", 3);
    str_hashtable_delete_index(ht, "k", 1);
    void* first = str_hashtable_get_and_remove_index(ht, "k", 0);
    EXPECT_STREQ("1", text(first));
    EXPECT_FALSE(str_hashtable_get_index(ht, nullptr, 0) || named_flag_has(ht, nullptr));
    free(first);
    EXPECT_EQ("5246", values(ht));
    str_hashtable_iterate(ht, delete_own, ht);
    EXPECT_EQ("4", values(ht));
    str_hashtable_free(ht);
}

TEST(StrHashTable, FilterAsksOrRemovesAnotherEntry) {
    hashtable_t* ht = table_of("klkkm");
    std::string seen;
    str_hashtable_filter(ht, nullptr, take_even_or_all, &seen);
    EXPECT_EQ("12345", seen);
    EXPECT_EQ("135", values(ht));
    // This key is a block of the table, which the filter frees on its way.
    const char* key = record(hashtable_get_index(ht, strhash("k"), 0))->key;
    str_hashtable_filter(ht, key, take_even_or_all, nullptr);
    EXPECT_EQ("5", values(ht));
    str_hashtable_free(ht);
}

void note_and_clear(const char* name, void* ht) {
    trace += name;
    EXPECT_EQ(1, named_flag_clr(static_cast<hashtable_t*>(ht), name));
}

TEST(NamedFlags, KeepTheCallersStringOrMixNames) {
    hashtable_t* ht = hashtable_alloc(1);
    char name[] = "ab";
    for (char last : {'b', 'b', 'c', '\0'}) {
        name[1] = last;
        named_flag_set(ht, name);
    }
    EXPECT_TRUE(named_flag_clr(ht, "ac") && !named_flag_clr(ht, "ac") && !named_flag_has(ht, ""));
    named_flag_set(ht, "");
    EXPECT_TRUE(named_flag_has(ht, ""));
    trace = "";
    named_flag_iterate(ht, note_and_clear, ht);
    EXPECT_EQ("aba", trace);
    named_flag_set(ht, key_of('x').c_str());
    EXPECT_TRUE(hashtable_count(ht) == 1 && !named_flag_has(ht, key_of('X').c_str()));
    hashtable_free(ht, nullptr);
}

}  // namespace
