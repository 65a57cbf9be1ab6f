/* Calls every function of the public headers from C. The program is linked with the static library
   and without a C++ runtime, which shows that the library needs none. */
#define _GNU_SOURCE
#define TESSRA_MEMCHK
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tessra/base64.h"
#include "tessra/binarytree.h"
#include "tessra/create_pid_file.h"
#include "tessra/dns.h"
#include "tessra/error_functions.h"
#include "tessra/eventloop.h"
#include "tessra/linkedlist.h"
#include "tessra/list.h"
#include "tessra/memchk.h"
#include "tessra/misc.h"
#include "tessra/region_locking.h"
#include "tessra/szip.h"

static int passed, failed;

static void check(int holds, const char* condition) {
    if (!holds) printf("failed: %s\n", condition);
    passed += holds;
    failed += !holds;
}
#define CHECK(condition) check((condition) != 0, #condition)

static event_loop_ctx_tp context; /* Null for the default one. */
static int calls[128];            /* Indexed by the letter that is a handler's argument. */
static char t[] = "t", f[] = "f", s[] = "s", c[] = "c", x[] = "x";
static int bytes[2]; /* The pipe that on_fd() reads. */
static int held[2];  /* The child waits until this pipe is closed. */

#define DO(name, ...) (context ? name##_mc(context, __VA_ARGS__) : name(__VA_ARGS__))
#define OF_LOOP(name) (context ? name##_mc(context) : name())

/* Cancels the loop once all handlers have run. Only the default loop watches the child. */
static void called(const void* letter) {
    ++calls[(int)*(const char*)letter];
    if (calls['t'] && calls['f'] && calls['s'] && (context || calls['c'])) OF_LOOP(cancel_loop);
}

static void on_timer(void* letter) {
    CHECK(OF_LOOP(is_event_loop_thread) == 1 && DO(do_events, 0) == 0);
    close(held[1]);
    held[1] = -1;
    raise(SIGUSR1);
    called(letter);
}

static void on_unwanted_timer(void* letter) { called(letter); }

static void on_fd(int fd, void* letter) {
    char byte;
    DO(event_fd_del, fd);
    if (read(fd, &byte, 1) == 1) called(letter);
}

static void on_signal(int signal, siginfo_t* info, void* letter) {
    if (signal == SIGUSR1 && info->si_pid == getpid()) called(letter);
}

static int on_child(int pid, void* letter, int status) {
    if (pid != getpid() && WIFEXITED(status) && WEXITSTATUS(status) == 3) called(letter);
    return 0;
}

static void test_loop(pid_t child) {
    const int fd = bytes[0];
    memset(calls, 0, sizeof calls);
    CHECK(write(bytes[1], "1", 1) == 1);
    DO(event_timer_add, on_timer, t, 1);
    DO(event_timer_add, on_unwanted_timer, x, 0);
    DO(event_timer_del, on_unwanted_timer, NULL);
    CHECK(DO(event_timer_exists, on_timer, t) && !DO(event_timer_exists, on_unwanted_timer, NULL));
    DO(event_fd_add, on_fd, x, fd, EVENT_FD_READ);
    DO(event_fd_del, fd);
    DO(event_fd_add, on_fd, f, fd, EVENT_FD_READ);
    DO(event_signal_add, on_signal, x, SIGUSR1);
    DO(event_signal_del, SIGUSR1);
    DO(event_signal_add, on_signal, s, SIGUSR1);
    DO(event_process_add, child, on_child, x);
    DO(event_process_del, child);
    if (!context) event_process_add(child, on_child, c);
    CHECK(OF_LOOP(et_event_loop) == 0 && !OF_LOOP(is_event_loop_thread));
    CHECK(calls['t'] == 1 && calls['f'] == 1 && calls['s'] == 1);
    CHECK(calls['c'] == !context && calls['x'] == 0);
}

static void test_loops(pid_t child) {
    char command[] = "true";
    bg_task_t task = {command, 0, 0};
    run_bg_task(&task);
    test_loop(child);
    CHECK(task.last_ran > 0);
    context = event_mc_init();
    test_loop(child);
    event_mc_free(context);
    CHECK(event_loop_async_start() == 0 && event_loop_async_start() == -1);
    CHECK(event_timer_exists(event_loop_wait_for_async_loop_ready, NULL) == 0);
    CHECK(event_loop_async_stop() == 0);
}

static void test_shell_and_clock(void) {
    const char* env[] = {"TESSRA_A=b", NULL};
    unsigned long long ms = event_get_time();
    CHECK(event_system("exit %d", 3) == 768);
    CHECK(event_system_env(env, "test $TESSRA_A = %s", "b") == 0);
    CHECK(ms / 1000 <= (unsigned long long)event_get_time_sec() && event_get_time() >= ms);
}

static void test_dns(void) {
    static char answer[] = "\xC0\x0C\0\1\0\1\0\0\0\0\0\4\1\2\3\4";
    char message[512 + sizeof answer], name[] = "a.bc", wire[6], *text;
    struct in_addr address;
    struct sockaddr_storage any;
    CHECK(string2name(name, wire) == 6);
    text = name2string(wire);
    CHECK(text && strcmp(text, name) == 0);
    free(text);
    for (int v6 = 0; v6 < 2; ++v6) {
        CHECK(dns_build_request(message, name, 1, 1, 7) == 22 && read16(message) == 7);
        CHECK(write16(message + 6, 1) == 2);
        memcpy(message + 22, answer, sizeof answer);
        CHECK((v6 ? dns_parse_reply_v6(message, NULL, &any)
                  : dns_parse_reply(message, NULL, &address)) == 1);
        CHECK(((dns_header_t*)message)->transaction_id == 7);
    }
    CHECK(address.s_addr == htonl(0x01020304) && any.ss_family == AF_INET);
}

static void test_list_and_mutex(void) {
    list_t head, first, second, *cursor;
    recursive_mutex lock = RECURSIVE_MUTEX_INITIALIZER;
    list_init(&head);
    list_add_tail(&head, &second);
    list_add_head(&head, &first);
    dll_foreach(cursor, &head) list_delete(cursor);
    CHECK(head.next == &head && !first.next);
    recursive_mutex_lock(&lock);
    recursive_mutex_lock(&lock);
    CHECK(pthread_mutex_lock(&rec_mutex) == 0 && lock.refcount == 2);
    pthread_mutex_unlock(&rec_mutex);
    recursive_mutex_unlock(&lock);
    recursive_mutex_unlock(&lock);
    CHECK(lock.refcount == 0);
}

static ssize_t count_bytes(void* arg, const void* buf, size_t count) {
    *(u_int64_t*)arg += buf ? count : 0;
    return (ssize_t)count;
}

static void test_zip(void) {
    const char* files[] = {"/dev/null", "proc/"};
    szip_info_t* plan = szip_create_info(files, 2, "/", "/");
    u_int64_t taken = 0;
    CHECK(plan && szip_calc_size(plan, 1) == 46 + 8 + 46 + 5);
    CHECK(szip_stream_zip(plan, count_bytes, &taken, 4096) == 1);
    CHECK(taken == szip_calc_size(plan, 0) && szip_stream_zip_fd(-1, plan, 4096) == 0);
    szip_free_info(plan);
    CHECK(szip_create_info(files, 2, "/", "/proc") == NULL);
}

static int by_text(void* stored, void* wanted) { return strcmp(wanted, stored); }

/* The five letters make a tree of f over c and t, and t over s and x. */
static void test_list_and_tree_of_pointers(void) {
    char* letters[] = {c, f, s, t, x};
    BinaryTree* tree = BT_create(by_text);
    BinaryTreeEnum* cursor = BT_newenum(tree);
    for (int n = 0; n < 5; ++n) CHECK(BT_insert(tree, letters[n], letters[n]) == 1);
    LinkedList *keys = BT_keys(tree), *values = BT_values(tree), *pairs = BT_pairs(tree);
    LinkedListEnum* walk = LL_newenum(keys);
    void** array = BT_toarray(tree, NULL);
    CHECK(BT_find(tree, "s") == s && BT_leftmost(tree) == c && BT_rightmost(tree) == x);
    CHECK(BT_next(cursor) == c && BT_end(cursor) == x && BT_previous(cursor) == t);
    CHECK(LL_next(walk) == c && LL_end(walk) == x && LL_previous(walk) == t);
    CHECK(!BT_reset(cursor) && !LL_reset(walk) && LL_dequeue(keys) == c && LL_pop(values) == x);
    CHECK(CalculateTreeArraySize(tree) == 7 && array[5] == t && array[12] == x);
    while (pairs->itemcount > 0) free(LL_pop(pairs));
    free(array);
    LL_push(pairs, x);
    LL_enumdelete(walk);
    LinkedList* lists[] = {keys, values, pairs, LL_create()};
    for (int n = 0; n < 4; ++n) LL_delete(lists[n]);
    BT_enumdelete(cursor);
    CHECK(BT_remove(tree, "f") == f && tree->itemcount == 4);
    BT_delete(tree);
}

/* The letters f, t and x, of which t is the root. */
static void test_building_blocks(void) {
    BinaryTree* tree = BT_create(by_text);
    int side;
    CHECK(BT_insert(tree, f, f) && BT_insert(tree, t, t) && BT_insert(tree, x, x));
    BinaryTreeNode *at_f = leftmost(tree), *at_t = tree->root, *at_x = rightmost(tree);
    CHECK(inordernext(at_f) == at_t && inorderprevious(at_x) == at_t);
    CHECK(findinsertionpoint(tree, "y", &side) == at_x && findreplacement(at_t) == at_x);
    CHECK(findreplacement(at_x) == at_x);
    at_x->right = createnode(at_x, "y", NULL);
    ++tree->itemcount;
    CHECK(at_x->right && tree->itemcount == 4);
    recalculateheight(at_x);
    balanceup(tree, at_x);
    CHECK(getbalance(at_t) == 1 && rotateleft(at_t) == at_x && rotateright(at_x) == at_t);
    DeleteLeafNode(tree, createnode(at_x, "z", NULL)); /* Its parent doesn't know it. */
    ++tree->itemcount;
    CHECK(at_x->right && tree->itemcount == 4);
    DeleteLeafNode(tree, at_x->right);
    swapnodes(at_t, at_x);
    BT_deletenode(tree, at_x);
    CHECK(at_t->key == x && tree->root == at_t && !at_t->right);
    BT_delete(tree);
    CHECK(!BT_insert(NULL, c, c) && !BT_find(NULL, c) && !BT_remove(NULL, c));
    CHECK(!findreplacement(NULL) && !inordernext(NULL) && !inorderprevious(NULL));
}

static void count_pair(char* key, void* value, void* sum) { *(int*)sum += !strcmp(key, value); }
static void count_flag(const char* name, void* sum) { *(int*)sum += !strcmp(name, "on"); }
static void count_entry(hashlist_t* entry, void* sum) { *(int*)sum += (int)entry->hash; }
static int reject(void* value, void* sum) {
    free(value);
    ++*(int*)sum;
    return 0;
}

static void test_tables(void) {
    hashtable_t *ht = hashtable_alloc(3), *own = hashtable_alloc(3);
    list_t values;
    int sum = 0;
    for (unsigned n = 0; n < 5; ++n) {
        CHECK(str_hashtable_put(ht, strdup("key"), strdup("key")));
        hashtable_put(own, n % 2, malloc(sizeof(hashlist_t)));
    }
    str_hashtable_values(ht, &values);
    CHECK(((ptr_list_t*)values.next)->pointer == str_hashtable_get_index(ht, "key", 0));
    list_free_items(&values, NULL);
    list_t* head = malloc(sizeof *head);
    list_init(head);
    hashlist_t* third = hashtable_get_index(own, 0, 2);
    CHECK(hashtable_get_bucket(own, 3)->prev == &third->list);
    hashtable_delete(third);
    list_add_tail(head, &third->list);
    list_free(head, NULL);
    str_hashtable_delete_index(ht, "key", 4);
    free(str_hashtable_get_and_remove_index(ht, "key", 0));
    CHECK(hashtable_count(own) == 4 && str_hashtable_count(ht, "key") == 3);
    str_hashtable_iterate(ht, count_pair, &sum);
    hashtable_iterate(own, count_entry, &sum);
    str_hashtable_filter(ht, "key", reject, &sum);
    named_flag_set(ht, "on");
    named_flag_iterate(ht, count_flag, &sum);
    CHECK(sum == 3 + 2 + 3 + 1 && named_flag_has(ht, "on") && named_flag_clr(ht, "on"));
    CHECK(strhash("abc") == 0x67e8c010);
    str_hashtable_free(ht);
    hashtable_free(own, NULL);
}

static char report[500];

static void append(int level, char* format, ...) {
    va_list args;
    va_start(args, format);
    if (level == 7) vsnprintf(report + strlen(report), 100, format, args);
    va_end(args);
}

static void test_memchk(void) {
    char here[] = "here", noted;
    add_allocation(&noted, here, 1, 1);
    remove_allocation(&noted);
    dump_allocation_tree(7, append);
    void* blocks[] = {memchk_calloc(1, 2, here, 2), memchk_dup("ab", here, 2),
                      memchk_n_dup("ab", 1, here, 2), MEMCHK_STRNDUP("a", SIZE_MAX)};
    CHECK(!strcmp(blocks[3], "a") && !MEMCHK_CALLOC(SIZE_MAX, 1));
    CHECK(p_compare(1, UINTPTR_MAX) == -1 && p_compare(UINTPTR_MAX, 1) == 1 && !p_compare(1, 1));
    for (int dump = 0; dump < 2; ++dump) dump_allocation_tree(7, append);
    CHECK(strstr(report, " [\t3\tallocations from here\t2\t] "));
    CHECK(strstr(report, " [\t1\tallocations from " __FILE__ "\t"));
    for (int i = 0; i < 4; ++i) memchk_free(blocks[i], here, 3);
}

static void test_base64(void) {
    char url[] = "+/";
    uint8_t text[] = "abc", encoded[5], *block;
    size_t length = sizeof encoded;
    CHECK(base64_encode(text, 3, encoded, &length) == BASE64_OK && !memcmp(encoded, "YWJj", 5));
    CHECK(base64_decode(encoded, 3, text, &length) == BASE64_INVALID_PACKET && length == 4);
    CHECK(base64_encode_alloc(text, 3, &block, &length) == BASE64_OK && length == 4);
    free(block);
    CHECK(base64_decode_alloc(encoded, 4, &block, &length) == 0 && !memcmp(block, "abc", 4));
    free(block);
    base64_urlsafe(url, 2);
    CHECK(!strcmp(url, "-_") && !strcmp(base64_err[BASE64_NOMEM], "Out of memory"));
    base64_unurlsafe(url, 2);
    CHECK(!strcmp(url, "+/"));
}

static void test_misc(void) {
    int major = 7;
    char* texts[] = {system_output("echo %d", 1), get_fw_printenv("x 2>&1; echo 1"),
                     get_nrv_printenv("x 2>&1; echo 1")};
    for (size_t n = 0; n < 3; ++n) {
        CHECK(texts[n] && strchr(texts[n], '1'));
        free(texts[n]);
    }
    get_hw_rev(&major, NULL);
    CHECK(major == 7 && is_mountpoint("/none/such") == 0);
}

static void test_errors(void) {
    for (int which = 0, status; which < 7; ++which) {
        if (fork() == 0) {
            close(STDERR_FILENO);
            if (which == 0) errExit("%d", which);
            if (which == 1) err_exit("%d", which);
            if (which == 2) errExitEN(EIO, "%d", which);
            if (which == 3) fatal("%d", which);
            if (which == 4) usageErr("%d\n", which);
            if (which == 5) cmdLineErr("%d\n", which);
            errMsg("%d", which);
            _exit(3);
        }
        CHECK(wait(&status) > 0 && status == (which < 6 ? 1 : 3) << 8);
    }
}

static void test_locks(void) {
    char name[] = "/tmp/tessra-c-XXXXXX";
    const int fd = mkstemp(name), locked = createPidFile("c_api_test", name, PID_FILE_CLOEXEC);
    CHECK(!lockRegion(fd, F_UNLCK, SEEK_SET, 0, 0) && !lockRegionWait(fd, F_RDLCK, SEEK_SET, 0, 1));
    CHECK(!regionIsLocked(fd, F_WRLCK, SEEK_SET, 0, 0) && !unlink(name));
    CHECK(!close(locked) && !close(fd));
}

int main(void) {
    alarm(100); /* Kills the program if a loop hangs. */
    test_base64();
    test_misc();
    test_errors();
    test_locks();
    CHECK(pipe(bytes) == 0 && pipe(held) == 0);
    const pid_t child = fork();
    if (child == 0) {
        close(held[1]);
        _exit(read(held[0], bytes, 1) == 0 ? 3 : 4);
    }
    test_list_and_mutex();
    test_list_and_tree_of_pointers();
    test_building_blocks();
    test_tables();
    test_memchk();
    test_dns();
    test_shell_and_clock();
    test_zip();
    test_loops(child);
    printf("%d passed, %d failed\n", passed, failed);
    return failed != 0;
}
