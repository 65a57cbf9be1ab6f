// Does random operations on the public interface and prints a transcript that depends only on the
// seeds. Two builds of the library that print the same behave the same. See scripts/differential.
//
//     differential FIRST COUNT     a digest for each area and seed
//     differential SEED            every line, to see where two builds differ
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <random>
#include <string>
#include <vector>

#include "tessra/base64.h"
#include "tessra/binarytree.h"
#include "tessra/dns.h"
#include "tessra/eventloop.h"
#include "tessra/linkedlist.h"
#include "tessra/list.h"
#include "tessra/memchk.h"
#include "tessra/szip.h"

namespace {

std::mt19937 random_numbers;
bool all_lines;
uint64_t digest;

unsigned below(unsigned bound) { return unsigned(random_numbers() % bound); }

void note_bytes(const void* bytes, size_t count) {
    for (size_t n = 0; n < count; n++) {
        digest = (digest ^ static_cast<const unsigned char*>(bytes)[n]) * 1099511628211U;
    }
}

__attribute__((format(printf, 1, 2))) void note(const char* format, ...) {
    char line[600];
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    note_bytes(line, size_t(std::min(length, int(sizeof line) - 1)));
    if (all_lines) puts(line);
}

// Loops. This program is their clock and their select(). Where select() would sleep, it makes
// changes as another thread could, and adds the time of the wait or a part of it to the clock.
unsigned long long clock_ms;
event_loop_ctx_tp context;
unsigned waits_left, watchers_left;
std::vector<int> pipes;  // Pairs of ends.

void act();

void on_timer(void* arg) {
    note("timer %d at %llu", *static_cast<int*>(arg), clock_ms);
    act();
}
void on_other_timer(void* arg) {
    note("other timer %d at %llu", *static_cast<int*>(arg), clock_ms);
    clock_ms += below(3);
}
void on_byte(int fd, void* arg) {
    char byte = 0;
    const auto got = read(fd, &byte, 1);
    note("byte %zd of watcher %d", got, *static_cast<int*>(arg));
    act();
}
void on_signal(int signal, siginfo_t* info, void* arg) {
    note("signal %d value %d watcher %d", signal, info->si_value.sival_int,
         *static_cast<int*>(arg));
    act();
}

void act() {
    static int args[64];
    int* const arg = &args[below(64)];
    *arg = int(arg - args);
    const auto handler = below(2) != 0 ? on_timer : on_other_timer;
    const unsigned pipe = 2 * below(unsigned(pipes.size() / 2));
    const int signal = below(2) != 0 ? SIGUSR1 : SIGUSR2;
    sigval value = {};
    switch (below(16)) {
        case 0:
        case 1:
        case 2:
        case 3:
            return event_timer_add_mc(context, handler, arg, below(3) * below(400));
        case 4:
        case 5:
            return event_timer_del_mc(context, handler, below(9) != 0 ? arg : nullptr);
        case 6:
            return note("armed %d", event_timer_exists_mc(context, handler, arg));
        case 7:  // Limited: a handler that always adds to its own walk would never return.
            if (watchers_left == 0 || --watchers_left == 0) return;
            return event_fd_add_mc(context, on_byte, arg, pipes[pipe],
                                   int(below(4)) * EVENT_FD_READ % 3);
        case 8:
            return event_fd_del_mc(context, pipes[pipe]);
        case 9:
        case 10:
            return note("wrote %zd", write(pipes[pipe + 1], "x", 1));
        case 11:
            if (watchers_left == 0 || --watchers_left == 0) return;
            return event_signal_add_mc(context, on_signal, arg, signal);
        case 12:
            return event_signal_del_mc(context, signal);
        case 13:
            value.sival_int = int(below(1000));
            return void(sigqueue(getpid(), signal, value));
        case 14:
            return note("nested pass %d", do_events_mc(context, 0));
        default:
            clock_ms += below(20) == 0 ? 90000000 : below(4);
    }
}

void loops() {
    context = event_mc_init();
    clock_ms = 5000;
    // Both signals are caught from now on, so that neither terminates this process if unwatched.
    event_signal_add_mc(context, on_signal, &waits_left, SIGUSR1);
    event_signal_add_mc(context, on_signal, &waits_left, SIGUSR2);
    pipes.resize(12);
    for (size_t n = 0; n < pipes.size(); n += 2) {
        if (pipe2(&pipes[n], O_NONBLOCK) != 0) abort();
    }
    watchers_left = 100;
    const unsigned many = below(4) == 0 ? 600 : 0;
    for (unsigned n = 0; n < many; n++) act();
    waits_left = 300;
    watchers_left = 200;
    note("result %d", et_event_loop_mc(context));
    event_mc_free(context);
    for (const int end : pipes) close(end);
}

void tree() {
    BinaryTree* const tree =
        BT_create([](void* a, void* b) { return int(intptr_t(a) - intptr_t(b)); });
    const unsigned spread = 1 + below(300);
    for (int n = 0; n < 600; n++) {
        void* const key = reinterpret_cast<void*>(uintptr_t{1 + below(spread)});
        switch (below(8)) {
            case 0:
            case 1:
            case 2:
            case 3:
                note("insert %d", BT_insert(tree, key, reinterpret_cast<void*>(uintptr_t(n + 1))));
                break;
            case 4:
                note("find %p", BT_find(tree, key));
                break;
            case 5:
                if (tree->root != nullptr)
                    BT_deletenode(tree, below(2) != 0 ? tree->root : leftmost(tree));
                break;
            default:
                note("remove %p", BT_remove(tree, key));
        }
        note("%u entries", tree->itemcount);
        for (BinaryTreeNode* node = leftmost(tree); node != nullptr; node = inordernext(node)) {
            note("%p %p %u below %p", node->key, node->data, node->height,
                 node->parent != nullptr ? node->parent->key : nullptr);
        }
    }
    BT_delete(tree);
}

void tables() {
    hashtable_t* const strings = hashtable_alloc(1 + int(below(70)));
    hashtable_t* const flags = hashtable_alloc(1 + int(below(20)));
    for (int n = 0; n < 400; n++) {
        char key[40];
        const unsigned length = below(sizeof key);
        for (unsigned at = 0; at < length; at++) key[at] = char(1 + below(below(3) != 0 ? 2 : 255));
        key[length] = 0;
        note("hash %u", strhash(key));
        const int index = int(below(3)) - 1;
        switch (below(6)) {
            case 0:
            case 1:
                str_hashtable_put(strings, strdup(key), strdup(key));
                break;
            case 2: {
                const auto* value =
                    static_cast<char*>(str_hashtable_get_index(strings, key, index));
                note("get %s", value != nullptr ? value : "none");
                break;
            }
            case 3:
                str_hashtable_delete_index(strings, key, index);
                break;
            case 4:
                named_flag_set(flags, key);
                note("flag %d", named_flag_has(flags, key));
                break;
            default:
                note("clear %d", named_flag_clr(flags, key));
        }
        note("%u %u", str_hashtable_count(strings, below(2) != 0 ? key : nullptr),
             hashtable_count(flags));
    }
    str_hashtable_iterate(
        strings,
        [](char* key, void* value, void*) { note("%s %s", key, static_cast<char*>(value)); },
        nullptr);
    str_hashtable_free(strings);
    hashtable_free(flags, nullptr);
}

void list() {
    LinkedList* const list = LL_create();
    for (int n = 0; n < 300; n++) {
        const unsigned action = below(5);
        if (action < 3) LL_push(list, reinterpret_cast<void*>(uintptr_t(n)));
        if (action == 3) note("pop %p", LL_pop(list));
        if (action == 4) note("dequeue %p", LL_dequeue(list));
        note("%u entries", list->itemcount);
    }
    LL_delete(list);
}

// The blocks of the tracker are numbers, which it never dereferences.
void log_report(int level, char* format, ...) {
    char line[500];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    note("%d %s", level, line);
}

void tracker() {
    static const char* const kFiles[] = {"a.c", "bb.c", "ccc.c"};
    static uintptr_t base = 0;
    base += 1U << 20;  // The blocks of earlier rounds are in the reports, too.
    for (int n = 0; n < 2000; n++) {
        void* const block = reinterpret_cast<void*>(base + 16 * below(500));
        if (below(5) < 3) {
            add_allocation(block, kFiles[below(3)], below(9), below(1000));
        } else {
            remove_allocation(block);
        }
        if (below(150) == 0) dump_allocation_tree(int(below(8)), log_report);
    }
}

void codecs() {
    std::vector<uint8_t> in(below(600)), out(1000), back(1000);
    for (uint8_t& byte : in) byte = uint8_t(random_numbers());
    size_t room = below(900);
    const int encoded = base64_encode(in.data(), in.size(), out.data(), &room);
    note("encode %d %zu", encoded, room);
    note_bytes(out.data(), out.size());
    if (encoded == BASE64_OK) {
        base64_urlsafe(reinterpret_cast<char*>(out.data()), room);
        note_bytes(out.data(), out.size());
        base64_unurlsafe(reinterpret_cast<char*>(out.data()), room);
        if (below(3) == 0 && room > 0) out[below(unsigned(room))] = uint8_t(random_numbers());
        size_t size = below(700);
        note("decode %d", base64_decode(out.data(), room, back.data(), &size));
        note("%zu", size);
        note_bytes(back.data(), back.size());
    }

    // A reply has at most three records, but each of these can have any length.
    static char packet[1 << 19];
    char name[80] = "";
    const unsigned letters = 1 + below(sizeof name - 2);
    for (unsigned n = 0; n < letters; n++) name[n] = below(7) != 0 ? char('a' + below(26)) : '.';
    name[letters] = 0;
    memset(packet, 0, sizeof packet);
    int size = dns_build_request(packet, name, int(below(30)), 1, int(below(65536)));
    note("query %d", size);
    if (size > 0) note_bytes(packet, size_t(size));
    if (size < 12) return;
    packet[2] = char(0x81), packet[3] = char(0x80), packet[7] = char(1 + below(3));
    for (int records = packet[7]; records > 0; records--) {
        const int type = below(2) != 0 ? 1 : 28;
        const int fixed[] = {0xc0, 12, 0, type, 0, 1, 0, 0, 0, 9, 0, type == 1 ? 4 : 16};
        for (const int byte : fixed) packet[size++] = char(byte);
        for (int n = 0; n < fixed[11]; n++) packet[size++] = char(random_numbers());
    }
    for (unsigned n = below(3); n > 0; n--)
        packet[12 + below(unsigned(size) - 12)] = char(random_numbers());
    char* owner = nullptr;
    in_addr four = {};
    sockaddr_storage six = {};
    const bool v6 = below(2) != 0;
    note("reply %d",
         v6 ? dns_parse_reply_v6(packet, &owner, &six) : dns_parse_reply(packet, &owner, &four));
    note("owner %s", owner != nullptr ? owner : "none");
    note_bytes(&four, sizeof four);
    note_bytes(&six, sizeof six);
    free(owner);
}

void archives() {
    char top[200];  // Both builds run in the same folder.
    if (getcwd(top, sizeof top) == nullptr) abort();
    std::vector<std::string> names(1 + below(6));
    std::vector<const char*> files;
    for (std::string& name : names) {
        name = std::string(top) + "/" + std::string(1 + below(20), char('a' + below(26)));
        std::vector<char> bytes(below(3) != 0 ? below(40) : below(100000));
        for (char& byte : bytes) byte = char(random_numbers());
        const int fd = open(name.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (write(fd, bytes.data(), bytes.size()) != ssize_t(bytes.size())) abort();
        const timespec times[] = {{1000000000, 0}, {315532800 + time_t(below(2000000000)), 0}};
        futimens(fd, times);
        close(fd);
        files.push_back(name.c_str());
    }
    szip_info_t* const plan =
        szip_create_info(files.data(), unsigned(files.size()), "/", below(2) != 0 ? top + 1 : "");
    note("plan %d", plan != nullptr);
    if (plan == nullptr) return;
    note("size %llu %llu", static_cast<unsigned long long>(szip_calc_size(plan, 0)),
         static_cast<unsigned long long>(szip_calc_size(plan, 1)));
    const auto sink = [](void*, const void* bytes, size_t count) {
        note("chunk %zu", count);
        note_bytes(bytes, count);
        return ssize_t(count);
    };
    note("stream %d", szip_stream_zip(plan, sink, nullptr, 1 + below(below(2) != 0 ? 100 : 70000)));
    szip_free_info(plan);
    for (const char* file : files) unlink(file);
}

const struct {
    const char* name;
    void (*run)();
} kAreas[] = {{"loops", loops},     {"tree", tree},     {"tables", tables},    {"list", list},
              {"tracker", tracker}, {"codecs", codecs}, {"archives", archives}};

}  // namespace

extern "C" {

int clock_gettime(clockid_t clock, timespec* now) noexcept {
    if (clock != CLOCK_MONOTONIC_RAW) abort();
    *now = {time_t(clock_ms / 1000), long(clock_ms % 1000 * 1000000)};
    return 0;
}

int select(int count, fd_set* readable, fd_set* writable, fd_set* except, timeval* timeout) {
    static auto* const real = reinterpret_cast<decltype(&select)>(dlsym(RTLD_NEXT, "select"));
    const long long wait = timeout ? timeout->tv_sec * 1000LL + timeout->tv_usec / 1000 : -1;
    const fd_set wanted = *readable;
    timeval none = {};
    int ready = real(count, readable, writable, except, &none);
    if (ready != 0) return ready;
    note("wait %lld", wait);
    if (waits_left == 0 || --waits_left == 0) {
        cancel_loop_mc(context);
    } else {
        for (unsigned n = below(3); n > 0; n--) act();
    }
    if (wait > 0)
        clock_ms +=
            below(4) != 0 ? static_cast<unsigned long long>(wait) : below(unsigned(wait) + 1);
    *readable = wanted;
    none = {};
    return real(count, readable, writable, except, &none);
}

}  // extern "C"

int main(int argc, char** argv) {
    const unsigned first = argc > 1 ? unsigned(atoi(argv[1])) : 1;
    const unsigned count = argc > 2 ? unsigned(atoi(argv[2])) : 1;
    all_lines = argc < 3;
    for (unsigned seed = first; seed < first + count; seed++) {
        for (const auto& area : kAreas) {
            random_numbers.seed(seed);
            digest = 14695981039346656037U;
            area.run();
            printf("%s %u %016llx\n", area.name, seed, static_cast<unsigned long long>(digest));
        }
    }
}
