/* A small daemon: a timer writes into a pipe, the pipe's watcher raises a signal, and the signal's
   watcher cancels the loop. Exits with 0 if all three run in that order, and if the parts of the
   library call one another, although words.c defines functions with their names. */
#define _XOPEN_SOURCE 700
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <tessra/binarytree.h>
#include <tessra/create_pid_file.h>
#include <tessra/dns.h>
#include <tessra/eventloop.h>
#include <tessra/list.h>
#include <tessra/memchk.h>
#include <tessra/misc.h>

static int stage;
static int fds[2];

static void on_timer(void* arg) {
    if (arg == &stage && stage++ == 0 && write(fds[1], "x", 1) != 1) stage = -1;
}

static void on_readable(int fd, void* arg) {
    char byte;
    (void)arg;
    if (read(fd, &byte, 1) == 1 && byte == 'x' && stage++ == 1) raise(SIGUSR1);
}

static void on_signal(int signal, siginfo_t* info, void* arg) {
    (void)arg;
    if (signal == SIGUSR1 && info->si_pid == getpid() && stage++ == 2) cancel_loop();
}

static void on_deadline(void* arg) {
    (void)arg;
    cancel_loop();
}

static int order(void* stored, void* wanted) { return strcmp(stored, wanted); }
static void no_log(int level, char* format, ...) {
    (void)level;
    (void)format;
}

/* Returns how many of seven parts do their work. */
static int working_parts(void) {
    char a[] = "a", b[] = "b", c[] = "c", request[512], path[] = "/tmp/consumer.XXXXXX", *name;
    struct in_addr address;
    int status = 0;
    BinaryTree* tree = BT_create(order);
    int count = BT_insert(tree, a, a) + BT_insert(tree, b, b) + BT_insert(tree, c, c) == 3 &&
                tree->root->key == b && BT_remove(tree, b) == b && BT_leftmost(tree) == c;
    BT_delete(tree);
    MEMCHK_FREE(memchk_dup(a, a, 1));
    dump_allocation_tree(1, no_log);
    hashtable_t* table = hashtable_alloc(3);
    named_flag_set(table, a);
    count += named_flag_has(table, a);
    hashtable_free(table, NULL);
    table = hashtable_alloc(3);
    str_hashtable_put(table, strdup(a), NULL);
    count += (int)str_hashtable_count(table, a);
    str_hashtable_free(table);
    count += dns_build_request(request, a, 1, 1, 1) == 12 + 3 + 4;
    request[7] = 1; /* The header now announces an answer that isn't there. */
    count += dns_parse_reply(request, &name, &address) != 1 && strcmp(name, a) == 0;
    free(name);
    const int fd = mkstemp(path);
    count += createPidFile(a, path, 0) > fd;
    const pid_t second = fork();
    if (second == 0) {
        close(2);
        (void)createPidFile(a, path, 0);
        _exit(0);
    }
    waitpid(second, &status, 0);
    count += WIFEXITED(status) && WEXITSTATUS(status) == 1;
    unlink(path);
    return count;
}

int main(void) {
    const int parts = working_parts();
    if (pipe(fds) != 0) return 2;
    event_timer_add(on_timer, &stage, 1);
    event_timer_add(on_deadline, NULL, 30000);
    event_fd_add(on_readable, NULL, fds[0], EVENT_FD_READ);
    event_signal_add(on_signal, NULL, SIGUSR1);
    const int result = et_event_loop();
    printf("loop %d, stage %d, parts %d\n", result, stage, parts);
    return result == 0 && stage == 3 && parts == 7 ? 0 : 1;
}
