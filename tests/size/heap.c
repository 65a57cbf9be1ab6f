/* Prints the heap memory of one of each thing: the bytes that the library requests, and those that
   glibc's allocator takes for them. The linker's option --wrap redirects all allocations here. */
#include <malloc.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <tessra/binarytree.h>
#include <tessra/eventloop.h>
#include <tessra/linkedlist.h>
#include <tessra/list.h>
#include <tessra/memchk.h>
#include <tessra/szip.h>

/* Handlers have the parameters of their types. */
#pragma GCC diagnostic ignored "-Wunused-parameter"

static size_t asked, taken, largest;

static void* count(void* block, size_t size) {
    asked += size;
    taken += malloc_usable_size(block) + sizeof(size_t);
    if (size > largest) largest = size;
    return block;
}

void* __real_malloc(size_t size);
void* __real_calloc(size_t n, size_t size);
void* __real_realloc(void* block, size_t size);
void* __wrap_malloc(size_t size) { return count(__real_malloc(size), size); }
void* __wrap_calloc(size_t n, size_t size) { return count(__real_calloc(n, size), n * size); }
void* __wrap_realloc(void* block, size_t size) {
    if (block) abort(); /* The library resizes no block here. */
    return count(__real_realloc(block, size), size);
}

static int compare(void* stored, void* wanted) { return stored < wanted ? 1 : stored > wanted; }
static void on_timer(void* arg) {}
static void on_fd(int fd, void* arg) {}
static void on_signal(int signal, siginfo_t* info, void* arg) {}
static void end(void* loop) { cancel_loop_mc(loop); }
static int on_child(int pid, void* arg, int status) { return status; }

/* Prints the memory that the statement allocates. */
#define MEASURE(name, ...)                            \
    do {                                              \
        asked = taken = 0;                            \
        __VA_ARGS__;                                  \
        printf("%s\t%zu\t%zu\n", name, asked, taken); \
    } while (0)

/* Timers have different numbers of express lanes. A table that grows is allocated anew, and exceeds
   all blocks that are allocated meanwhile. */
static void measure_many(void) {
    static char args[1000];
    size_t least = SIZE_MAX, least_taken = 0;
    unsigned int small = 0;
    event_loop_ctx_tp loop = event_mc_init();
    largest = 0;
    for (unsigned int n = 0; n < 1000; ++n) {
        asked = taken = 0;
        event_timer_add_mc(loop, on_timer, &args[n], 60000);
        if (asked < least) {
            least = asked;
            least_taken = taken;
            small = 0;
        }
        small += asked == least;
    }
    if (small < 700 || small > 800) abort();
    printf("timer, three of four\t%zu\t%zu\n", least, least_taken);
    printf("table of 1,000 timers\t%zu\t%zu\n", largest, largest + sizeof(size_t));
    for (unsigned int n = 0; n < 100; ++n) event_fd_add_mc(loop, on_fd, NULL, dup(0), 0);
    largest = 0;
    event_timer_add_mc(loop, end, loop, 0);
    if (et_event_loop_mc(loop) != 0) abort();
    if (largest < 100 * sizeof(void*)) abort();
    printf("table of 100 descriptors\t%zu\t%zu\n", largest, largest + sizeof(size_t));
    event_mc_free(loop);
}

int main(void) {
    event_loop_ctx_tp loop;
    LinkedList* list;
    BinaryTree* tree;
    hashtable_t *strings, *flags = hashtable_alloc(7);
    setvbuf(stdout, NULL, _IONBF, 0); /* A buffer would count. */
    MEASURE("loop context beside the default one", loop = event_mc_init());
    MEASURE("timer, the first of a context", event_timer_add_mc(loop, on_timer, NULL, 1000));
    MEASURE("watcher of a descriptor", event_fd_add_mc(loop, on_fd, NULL, 0, EVENT_FD_READ));
    MEASURE("watcher of a signal", event_signal_add_mc(loop, on_signal, NULL, SIGUSR1));
    event_process_add_mc(loop, 1, on_child, NULL); /* The first call adds the watcher of SIGCHLD. */
    MEASURE("watcher of a child", event_process_add_mc(loop, 1, on_child, NULL));
    MEASURE("linked list", list = LL_create());
    MEASURE("linked list element", LL_push(list, NULL));
    MEASURE("linked list cursor", if (!LL_newenum(list)) return 1);
    MEASURE("balanced tree", tree = BT_create(compare));
    MEASURE("balanced tree node", BT_insert(tree, NULL, NULL));
    MEASURE("balanced tree cursor", if (!BT_newenum(tree)) return 1);
    MEASURE("hash table of 64 buckets", strings = hashtable_alloc(64));
    char* key = strdup("key");
    MEASURE("string hash table entry, without key and value", str_hashtable_put(strings, key, key));
    MEASURE("named flag of 7 characters", named_flag_set(flags, "1234567"));
    add_allocation(list, "first", 1, 1); /* Makes the tracker's tree. */
    MEASURE("tracked block, besides itself", add_allocation(tree, "next", 1, 1));
    const char* files[] = {"/usr", "/usr"};
    size_t asked_before = 0, taken_before = 0;
    for (unsigned int n = 0; n < 3; ++n) { /* The first plan reads the time zone. */
        asked_before = asked;
        taken_before = taken;
        asked = taken = 0;
        szip_free_info(szip_create_info(files, n ? n : 1, "/", ""));
    }
    printf("ZIP plan entry, path of 4 characters\t%zu\t%zu\n", asked - asked_before,
           taken - taken_before);
    measure_many(); /* Last, since those above would reuse the blocks that this frees. */
}
