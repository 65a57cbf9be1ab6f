// List, tree, tables, string hash and allocation tracker compared with the containers of others.
#include <cstring>
#include <list>
#include <map>
#include <memory>
#include <numeric>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "bench.h"
#include "tessra/binarytree.h"
#include "tessra/linkedlist.h"
#include "tessra/list.h"
#include "tessra/memchk.h"

#ifdef BENCH_HAS_glib
#include <glib.h>
#endif
#ifdef BENCH_HAS_uthash
#include <uthash.h>
#endif
#ifdef BENCH_HAS_avl
#define new added  // The header is C.
extern "C" {
#include <avl.h>
}
#undef new
#endif

namespace bench {

namespace {

// Returns the numbers from 1 to `count` in a random order.
std::vector<uintptr_t> shuffled(size_t count) {
    std::vector<uintptr_t> all(count);
    std::iota(all.begin(), all.end(), 1);
    Random random;
    for (size_t n = count; n > 1; --n) std::swap(all[n - 1], all[random() % n]);
    return all;
}

void* pointer(uintptr_t number) { return reinterpret_cast<void*>(number); }

int compare(void* a, void* b) { return int(a > b) - int(a < b); }

// Adapters with insert(key), find(key), remove(key). Each compares by calling a function.
struct TessraTree {
    BinaryTree* tree = BT_create(compare);
    ~TessraTree() { BT_delete(tree); }
    void insert(uintptr_t key) { (void)BT_insert(tree, pointer(key), pointer(key)); }
    void find(uintptr_t key) { keep(BT_find(tree, pointer(key))); }
    void remove(uintptr_t key) { keep(BT_remove(tree, pointer(key))); }
    void walk() {
        for (BinaryTreeNode* node = leftmost(tree); node; node = inordernext(node)) keep(node);
    }
};

struct StdMap {
    struct Less {
        int (*call)(void*, void*);
        bool operator()(uintptr_t a, uintptr_t b) const { return call(pointer(a), pointer(b)) < 0; }
    };
    std::map<uintptr_t, void*, Less> tree{Less{compare}};
    void insert(uintptr_t key) { tree.emplace(key, pointer(key)); }
    void find(uintptr_t key) { keep(tree.find(key)); }
    void remove(uintptr_t key) { tree.erase(key); }
    void walk() {
        for (const auto& entry : tree) keep(entry);
    }
};

#ifdef BENCH_HAS_glib
struct GlibTree {
    GTree* tree = g_tree_new([](gconstpointer a, gconstpointer b) {
        return compare(const_cast<void*>(a), const_cast<void*>(b));
    });
    ~GlibTree() { g_tree_unref(tree); }
    void insert(uintptr_t key) { g_tree_insert(tree, pointer(key), pointer(key)); }
    void find(uintptr_t key) { keep(g_tree_lookup(tree, pointer(key))); }
    void remove(uintptr_t key) { g_tree_remove(tree, pointer(key)); }
    void walk() {
        for (GTreeNode* node = g_tree_node_first(tree); node; node = g_tree_node_next(node)) {
            keep(node);
        }
    }
};
#endif

#ifdef BENCH_HAS_avl
struct Libavl {
    avl_tree_t* tree = avl_alloc_tree(
        [](const void* a, const void* b) {
            return compare(const_cast<void*>(a), const_cast<void*>(b));
        },
        nullptr);
    ~Libavl() { avl_free_tree(tree); }
    void insert(uintptr_t key) { avl_insert(tree, pointer(key)); }
    void find(uintptr_t key) { keep(avl_search(tree, pointer(key))); }
    void remove(uintptr_t key) { avl_delete(tree, pointer(key)); }
    void walk() {
        for (avl_node_t* node = tree->head; node; node = node->next) keep(node);
    }
};
#endif

template <class Tree>
void add_tree(const char* peer, size_t count) {
    const std::string name = "tree of " + std::to_string(count);
    const auto keys = std::make_shared<std::vector<uintptr_t>>(shuffled(count));
    // Counting the largest would take ten times as long as the one before, and show nothing new.
    const unsigned rounds = count > 100000 ? 0 : count > 1000 ? 1 : 3;
    const Settings settings = {double(count), Clock::kCpu, rounds};
    add(
        name + ", build and delete", peer,
        [keys](Loop& loop) {
            loop.each([&] {
                Tree tree;
                for (const uintptr_t key : *keys) tree.insert(key);
            });
        },
        settings);
    const auto on_full = [=](const std::string& what, auto work) {
        add(
            name + ", " + what, peer,
            [keys, work](Loop& loop) {
                Tree tree;
                for (const uintptr_t key : *keys) tree.insert(key);
                loop.each([&] { work(tree, *keys); });
            },
            settings);
    };
    on_full("find", [](Tree& tree, const std::vector<uintptr_t>& all) {
        for (const uintptr_t key : all) tree.find(key);
    });
    on_full("remove and insert", [](Tree& tree, const std::vector<uintptr_t>& all) {
        for (const uintptr_t key : all) {
            tree.remove(key);
            tree.insert(key);
        }
    });
    on_full("walk", [](Tree& tree, const std::vector<uintptr_t>&) { tree.walk(); });
}

struct TessraList {
    LinkedList* list = LL_create();
    ~TessraList() { LL_delete(list); }
    void push(void* value) { LL_push(list, value); }
    void take() { keep(LL_dequeue(list)); }
    void walk() {
        for (LinkedListElement* each = list->head; each; each = each->next) keep(each->value);
    }
};

struct StdList {
    std::list<void*> list;
    void push(void* value) { list.push_back(value); }
    void take() {
        keep(list.front());
        list.pop_front();
    }
    void walk() {
        for (void* each : list) keep(each);
    }
};

#ifdef BENCH_HAS_glib
struct GlibQueue {
    GQueue* list = g_queue_new();
    ~GlibQueue() { g_queue_free(list); }
    void push(void* value) { g_queue_push_tail(list, value); }
    void take() { keep(g_queue_pop_head(list)); }
    void walk() {
        for (GList* each = list->head; each; each = each->next) keep(each->data);
    }
};
#endif

template <class List>
void add_list(const char* peer, size_t count) {
    const std::string name = "list of " + std::to_string(count);
    const Settings settings = {double(count), Clock::kCpu, count > 100000 ? 0U : 2U};
    add(
        name + ", push and take", peer,
        [count](Loop& loop) {
            List list;
            loop.each([&] {
                for (size_t n = 0; n < count; ++n) list.push(&list);
                for (size_t n = 0; n < count; ++n) list.take();
            });
        },
        settings);
    add(
        name + ", walk", peer,
        [count](Loop& loop) {
            List list;
            for (size_t n = 0; n < count; ++n) list.push(&list);
            loop.each([&] { list.walk(); });
        },
        settings);
}

// Tables that map strings to pointers, with get(key).
struct TessraTable {
    hashtable_t* table;
    TessraTable(const std::vector<std::string>& keys, unsigned load)
        : table(hashtable_alloc(int(keys.size() / load))) {
        for (const std::string& key : keys) {
            str_hashtable_put(table, strdup(key.c_str()), malloc(1));
        }
    }
    ~TessraTable() { str_hashtable_free(table); }
    void get(const std::string& key) { keep(str_hashtable_get_index(table, key.c_str(), 0)); }
};

struct StdTable {
    std::unordered_multimap<std::string, void*> table;
    StdTable(const std::vector<std::string>& keys, unsigned load) {
        table.max_load_factor(float(load));
        for (const std::string& key : keys) table.emplace(key, this);
        table.rehash(keys.size() / load);
    }
    void get(const std::string& key) { keep(table.find(key)); }
};

#ifdef BENCH_HAS_glib
struct GlibTable {
    GHashTable* table = g_hash_table_new(g_str_hash, g_str_equal);
    GlibTable(const std::vector<std::string>& keys, unsigned) {
        for (const std::string& key : keys) {
            g_hash_table_insert(table, const_cast<char*>(key.c_str()), this);
        }
    }
    ~GlibTable() { g_hash_table_unref(table); }
    void get(const std::string& key) { keep(g_hash_table_lookup(table, key.c_str())); }
};
#endif

#ifdef BENCH_HAS_uthash
struct Uthash {
    struct Entry {
        const char* key;
        UT_hash_handle hh;
    };
    std::vector<Entry> entries;
    Entry* table = nullptr;
    Uthash(const std::vector<std::string>& keys, unsigned) : entries(keys.size()) {
        for (size_t n = 0; n < keys.size(); ++n) {
            entries[n].key = keys[n].c_str();
            HASH_ADD_KEYPTR(hh, table, entries[n].key, keys[n].size(), &entries[n]);
        }
    }
    ~Uthash() { HASH_CLEAR(hh, table); }
    void get(const std::string& key) {
        Entry* found;
        HASH_FIND_STR(table, key.c_str(), found);
        keep(found);
    }
};
#endif

template <class Table>
void add_table(const char* peer, size_t count, unsigned load) {
    add("table of " + std::to_string(count) + ", load " + std::to_string(load) + ", get", peer,
        [=](Loop& loop) {
            std::vector<std::string> keys;
            for (const uintptr_t key : shuffled(count)) {
                keys.push_back("key " + std::to_string(key));
            }
            Table table(keys, load);
            std::vector<std::string> wanted = keys;
            loop.each([&] {
                for (const std::string& key : wanted) table.get(key);
            });
        },
        {double(count), Clock::kCpu, 2});
}

// lookup2 as its author B. Jenkins wrote it in 1996. His mix() is a macro, so this one is inlined.
__attribute__((always_inline)) inline void mix(uint32_t& a, uint32_t& b, uint32_t& c) {
    a = (a - b - c) ^ (c >> 13);
    b = (b - c - a) ^ (a << 8);
    c = (c - a - b) ^ (b >> 13);
    a = (a - b - c) ^ (c >> 12);
    b = (b - c - a) ^ (a << 16);
    c = (c - a - b) ^ (b >> 5);
    a = (a - b - c) ^ (c >> 3);
    b = (b - c - a) ^ (a << 10);
    c = (c - a - b) ^ (b >> 15);
}

__attribute__((noinline)) uint32_t jenkins(const char* text) {
    const auto* k = reinterpret_cast<const uint8_t*>(text);
    uint32_t length = uint32_t(strlen(text)), left = length;
    uint32_t a = 0x9e3779b9, b = a, c = 0xdeadbeef;
    for (; left >= 12; left -= 12) {
        a += k[0] + (uint32_t(k[1]) << 8) + (uint32_t(k[2]) << 16) + (uint32_t(k[3]) << 24);
        b += k[4] + (uint32_t(k[5]) << 8) + (uint32_t(k[6]) << 16) + (uint32_t(k[7]) << 24);
        c += k[8] + (uint32_t(k[9]) << 8) + (uint32_t(k[10]) << 16) + (uint32_t(k[11]) << 24);
        mix(a, b, c);
        k += 12;
    }
    c += length;
    switch (left) {
        case 11:
            c += uint32_t(k[10]) << 24;
            [[fallthrough]];
        case 10:
            c += uint32_t(k[9]) << 16;
            [[fallthrough]];
        case 9:
            c += uint32_t(k[8]) << 8;
            [[fallthrough]];
        case 8:
            b += uint32_t(k[7]) << 24;
            [[fallthrough]];
        case 7:
            b += uint32_t(k[6]) << 16;
            [[fallthrough]];
        case 6:
            b += uint32_t(k[5]) << 8;
            [[fallthrough]];
        case 5:
            b += k[4];
            [[fallthrough]];
        case 4:
            a += uint32_t(k[3]) << 24;
            [[fallthrough]];
        case 3:
            a += uint32_t(k[2]) << 16;
            [[fallthrough]];
        case 2:
            a += uint32_t(k[1]) << 8;
            [[fallthrough]];
        case 1:
            a += k[0];
    }
    mix(a, b, c);
    return c;
}

void add_hash(size_t length) {
    const std::string row = "string hash of " + std::to_string(length) + " bytes";
    const auto with = [&](const char* peer, auto hash) {
        add(row, peer, [=](Loop& loop) {
            const std::string text(length, 'x');
            loop.each([&] { keep(hash(text.c_str())); });
        });
    };
    if (strhash("a plain text") != jenkins("a plain text")) abort();
    with("tessra", strhash);
    with("Jenkins", jenkins);
#ifdef BENCH_HAS_glib
    with("GLib", [](const char* text) { return g_str_hash(text); });
#endif
}

// The tree's insertion and removal step by step, as its header describes them: every climb goes to
// the root, and a removal that also needs the entry searches twice.
struct PlainTree {
    BinaryTree* tree = BT_create(compare);
    void insert(void* key, void* data) {
        int comparison;
        BinaryTreeNode* parent = findinsertionpoint(tree, key, &comparison);
        if (parent == nullptr) {
            (void)BT_insert(tree, key, data);
        } else if (comparison != 0) {
            (comparison < 0 ? parent->left : parent->right) = createnode(parent, key, data);
            balanceup(tree, parent);
            ++tree->itemcount;
        }
    }
    void remove(void* key) {
        int comparison;
        BinaryTreeNode* node = findinsertionpoint(tree, key, &comparison);
        if (node == nullptr || comparison != 0) return;
        BinaryTreeNode* below = findreplacement(node);
        while (below != node) {
            swapnodes(node, below);
            node = below;
            below = findreplacement(node);
        }
        DeleteLeafNode(tree, node);
    }
};

// The tracker's work for a pair of calls and for a dump, not optimised: records in a tree, two
// searches for a removal, a search for each block and tree of a dump.
struct PlainTracker {
    PlainTree records;
    BinaryTree* const live = records.tree;
    BinaryTree* ignored = BT_create(compare);
    BinaryTree* old = nullptr;
    void add(void* block) { records.insert(block, calloc(1, 32)); }
    void remove(void* block) {
        void* record = BT_find(live, block);
        records.remove(block);
        free(record);
    }
    void dump() {
        for (BinaryTreeNode* node = leftmost(live); node; node = inordernext(node)) {
            if (old != nullptr && BT_find(old, node->key) && !BT_find(ignored, node->key)) {
                keep(node);
            }
        }
        BinaryTree* latest = BT_create(compare);
        for (BinaryTreeNode* node = leftmost(live); node; node = inordernext(node)) {
            BT_insert(latest, node->key, node->key);
        }
        if (old == nullptr) {
            for (BinaryTreeNode* node = leftmost(live); node; node = inordernext(node)) {
                BT_insert(ignored, node->key, node->key);
            }
        } else {
            BT_delete(old);
        }
        old = latest;
    }
};

void no_log(int, char*, ...) {}

// The library's tracker, of which a process has one.
struct TessraTracker {
    void add(void* block) { add_allocation(block, "file.c", 1, 16); }
    void remove(void* block) { remove_allocation(block); }
    void dump() { dump_allocation_tree(0, no_log); }
};

template <class Tracker>
void add_tracker(const char* peer, size_t live) {
    static Tracker tracker;
    const auto filled = [=](const char* what, double items, unsigned rounds, auto work) {
        add("tracker with " + std::to_string(live) + " blocks, " + what, peer,
            [=](Loop& loop) {
                const std::vector<uintptr_t> blocks = shuffled(live + 1000);
                for (size_t n = 0; n < live; ++n) tracker.add(pointer(blocks[n] * 64));
                work(loop, blocks);
                for (size_t n = 0; n < live; ++n) tracker.remove(pointer(blocks[n] * 64));
            },
            {items, Clock::kCpu, rounds});
    };
    filled("pair of calls", 1000, 2, [live](Loop& loop, const std::vector<uintptr_t>& blocks) {
        loop.each([&] {
            for (size_t n = 0; n < 1000; ++n) tracker.add(pointer(blocks[live + n] * 64));
            for (size_t n = 0; n < 1000; ++n) tracker.remove(pointer(blocks[live + n] * 64));
        });
    });
    filled("dump", 1, 2, [](Loop& loop, const std::vector<uintptr_t>&) {
        for (int n = 0; n < 2; ++n) tracker.dump();
        loop.each([] { tracker.dump(); });
    });
}

}  // namespace

}  // namespace bench

void register_operations() {
    using namespace bench;
    for (const size_t count : {size_t{100}, size_t{1000}, size_t{100000}, size_t{1000000}}) {
        add_tree<TessraTree>("tessra", count);
        add_tree<StdMap>("std::map", count);
        add_list<TessraList>("tessra", count);
        add_list<StdList>("std::list", count);
#ifdef BENCH_HAS_glib
        add_tree<GlibTree>("GLib", count);
        add_list<GlibQueue>("GLib", count);
#endif
#ifdef BENCH_HAS_avl
        add_tree<Libavl>("libavl", count);
#endif
    }
    for (const size_t count : {size_t{1024}, size_t{131072}}) {
        for (const unsigned load : {1U, 8U}) {
            add_table<TessraTable>("tessra", count, load);
            add_table<StdTable>("std::unordered_multimap", count, load);
#ifdef BENCH_HAS_glib
            add_table<GlibTable>("GLib", count, load);
#endif
#ifdef BENCH_HAS_uthash
            add_table<Uthash>("uthash", count, load);
#endif
        }
    }
    for (const size_t length : {8, 24, 96}) add_hash(length);
    for (const size_t live : {size_t{1000}, size_t{100000}}) {
        add_tracker<TessraTracker>("tessra", live);
        add_tracker<PlainTracker>("plain", live);
    }
}
