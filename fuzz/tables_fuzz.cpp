// Compares the tables with vectors. Each pair of bytes is an operation and its key. Two of the keys
// have the same hash, and others share a bucket.
#include <tessra/list.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace {

void check(bool holds) {
    if (!holds) abort();
}

const char* const kKeys[] = {"uaaaa", "lwzaa", "", "a", "b", "c", "k", "\xff"};

struct Seen {
    std::multiset<void*> values;
    uintptr_t divisor = 0;  // keep() removes the values that this number divides.
};
void note(char*, void* value, void* seen) { static_cast<Seen*>(seen)->values.insert(value); }
bool taken(void* value, uintptr_t divisor) {
    return reinterpret_cast<uintptr_t>(value) % divisor == 0;
}
int keep(void* value, void* seen) {
    note(nullptr, value, seen);
    return !taken(value, static_cast<Seen*>(seen)->divisor);
}
void note_name(const char* name, void* names) {
    check(static_cast<std::set<std::string>*>(names)->insert(name).second);
}

}  // namespace

// The values are numbers, not blocks, so only calls that don't free values remove them.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    hashtable_t* const table = hashtable_alloc(size ? 1 + data[0] % 7 : 1);
    hashtable_t* const flags = hashtable_alloc(3);
    std::map<std::string, std::vector<void*>> model;
    std::set<std::string> names, names_seen;
    size_t count = 0;
    for (size_t n = 1; n + 1 < size; n += 2) {
        const char* const key = kKeys[data[n + 1] % 8];
        const int index = data[n + 1] / 8 - 2;
        auto& values = model[key];
        const auto place = static_cast<size_t>(index);
        const bool there = index >= 0 && place < values.size();
        void* const expected = there ? values[place] : nullptr;
        void* const value = reinterpret_cast<void*>(uintptr_t{n});
        Seen seen;
        switch (data[n] % 8) {
            case 0:
            case 1:
                check(str_hashtable_put(table, strdup(key), value) == value);
                values.push_back(value);
                ++count;
                break;
            case 2:
                check(str_hashtable_get_index(table, key, index) == expected);
                break;
            case 3:
                check(str_hashtable_get_and_remove_index(table, key, index) == expected);
                if (there) {
                    values.erase(values.begin() + index);
                    --count;
                }
                break;
            case 4: {
                seen.divisor = 1 + data[n + 1] / 64;
                const std::multiset<void*> asked(values.begin(), values.end());
                str_hashtable_filter(table, key, keep, &seen);
                check(seen.values == asked);
                count -= std::erase_if(values, [&](void* v) { return taken(v, seen.divisor); });
                break;
            }
            case 5: {
                std::multiset<void*> all;
                for (const auto& [each, of_key] : model) all.insert(of_key.begin(), of_key.end());
                str_hashtable_iterate(table, note, &seen);
                check(seen.values == all);
                break;
            }
            case 6:
                named_flag_set(flags, key);
                names.insert(key);
                break;
            default:
                check(named_flag_clr(flags, key) == static_cast<int>(names.erase(key)));
        }
        check(str_hashtable_count(table, key) == values.size());
        check(hashtable_count(table) == count && hashtable_count(flags) == names.size());
        check(named_flag_has(flags, key) == static_cast<int>(names.count(key)));
    }
    named_flag_iterate(flags, note_name, &names_seen);
    check(names_seen == names);
    Seen all;
    all.divisor = 1;
    str_hashtable_filter(table, nullptr, keep, &all);
    check(hashtable_count(table) == 0 && all.values.size() == count);
    str_hashtable_free(table);
    hashtable_free(flags, nullptr);
    return 0;
}
