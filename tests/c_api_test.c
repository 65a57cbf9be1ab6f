/*
 * Every function of the loop's public headers, called from C. The program is linked with the static
 * library and without a C++ runtime, which shows that none is needed.
 */
#define _GNU_SOURCE
#include <stdio.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tessra/eventloop.h"
#include "tessra/list.h"
#include "tessra/misc.h"
#include "tessra/szip.h"

static int passed, failed;

static void check(int holds, const char* condition) {
    if (!holds) printf("failed: %s\n", condition);
    *(holds ? &passed : &failed) += 1;
}
#define CHECK(condition) check((condition) != 0, #condition)

static event_loop_ctx_tp context; /* Null for the default one. */
static int calls[128];            /* By the letter that is a handler's argument. */
static char t[] = "t", f[] = "f", s[] = "s", c[] = "c", x[] = "x";
static int bytes[2]; /* The pipe that on_fd() reads. */
static int held[2];  /* The pipe whose closing the child waits for. */

/* The loop ends once all handlers have been called. Only the default one sees the child. */
static void called(const void* letter) {
    calls[(int)*(const char*)letter]++;
    if (!calls['t'] || !calls['f'] || !calls['s']) return;
    if (context) cancel_loop_mc(context);
    if (!context && calls['c']) cancel_loop();
}

static void on_timer(void* letter) {
    if (context)
        CHECK(is_event_loop_thread_mc(context) == 1 && do_events_mc(context, 0) == 0);
    else
        CHECK(is_event_loop_thread() == 1 && do_events(0) == 0);
    close(held[1]);
    held[1] = -1;
    raise(SIGUSR1);
    called(letter);
}

static void on_unwanted_timer(void* letter) { called(letter); }

static void on_fd(int fd, void* letter) {
    char byte;
    if (context)
        event_fd_del_mc(context, fd);
    else
        event_fd_del(fd);
    if (read(fd, &byte, 1) == 1) called(letter);
}

static void on_signal(int signal, siginfo_t* info, void* letter) {
    if (signal == SIGUSR1 && info->si_pid == getpid()) called(letter);
}

static int on_child(int pid, void* letter, int status) {
    if (pid != getpid() && WIFEXITED(status) && WEXITSTATUS(status) == 3) called(letter);
    return 0;
}

static void check_calls(int children) {
    CHECK(calls['t'] == 1 && calls['f'] == 1 && calls['s'] == 1);
    CHECK(calls['c'] == children && calls['x'] == 0);
    memset(calls, 0, sizeof calls);
}

static void test_default_loop(pid_t child) {
    const int fd = bytes[0];
    char command[] = "true";
    bg_task_t task = {command, 0, 0};
    run_bg_task(&task);
    CHECK(write(bytes[1], "1", 1) == 1);
    event_timer_add(on_timer, t, 1);
    event_timer_add(on_unwanted_timer, x, 0);
    event_timer_del(on_unwanted_timer, NULL);
    CHECK(event_timer_exists(on_timer, NULL) && !event_timer_exists(on_unwanted_timer, NULL));
    event_fd_add(on_fd, x, fd, EVENT_FD_READ);
    event_fd_del(fd);
    event_fd_add(on_fd, f, fd, EVENT_FD_READ);
    event_signal_add(on_signal, x, SIGUSR1);
    event_signal_del(SIGUSR1);
    event_signal_add(on_signal, s, SIGUSR1);
    event_process_add(child, on_child, x);
    event_process_del(child);
    event_process_add(child, on_child, c);
    CHECK(et_event_loop() == 0 && !is_event_loop_thread());
    CHECK(task.last_ran > 0);
    check_calls(1);
}

static void test_own_loop(pid_t child) {
    const int fd = bytes[0];
    context = event_mc_init();
    CHECK(write(bytes[1], "1", 1) == 1);
    event_timer_add_mc(context, on_timer, t, 1);
    event_timer_add_mc(context, on_unwanted_timer, x, 0);
    event_timer_del_mc(context, on_unwanted_timer, NULL);
    CHECK(event_timer_exists_mc(context, on_timer, t) == 1);
    event_fd_add_mc(context, on_fd, x, fd, EVENT_FD_READ);
    event_fd_del_mc(context, fd);
    event_fd_add_mc(context, on_fd, f, fd, EVENT_FD_READ);
    event_signal_add_mc(context, on_signal, x, SIGUSR1);
    event_signal_del_mc(context, SIGUSR1);
    event_signal_add_mc(context, on_signal, s, SIGUSR1);
    event_process_add_mc(context, child, on_child, x);
    event_process_del_mc(context, child);
    CHECK(et_event_loop_mc(context) == 0 && !is_event_loop_thread_mc(context));
    check_calls(0);
    event_mc_free(context);
    context = NULL;
}

static void test_thread(void) {
    CHECK(event_loop_async_start() == 0 && event_loop_async_start() == -1);
    CHECK(event_timer_exists(event_loop_wait_for_async_loop_ready, NULL) == 0);
    CHECK(event_loop_async_stop() == 0);
}

static void test_shell(void) {
    const char* env[] = {"TESSRA_A=b", NULL};
    CHECK(event_system("exit %d", 3) == 768);
    CHECK(event_system_env(env, "test $TESSRA_A = %s", "b") == 0);
}

static void test_clock(void) {
    unsigned long long ms = event_get_time();
    time_t seconds = event_get_time_sec();
    CHECK(ms / 1000 <= (unsigned long long)seconds && event_get_time() >= ms);
}

static void test_list_and_mutex(void) {
    list_t head, first, second, *cursor;
    recursive_mutex lock = RECURSIVE_MUTEX_INITIALIZER;
    int count = 0;
    list_init(&head);
    list_add_tail(&head, &second);
    list_add_head(&head, &first);
    dll_foreach(cursor, &head) {
        CHECK(cursor == (count++ ? &second : &first));
        list_delete(cursor);
    }
    CHECK(count == 2 && head.next == &head && !first.next);
    recursive_mutex_lock(&lock);
    recursive_mutex_lock(&lock);
    CHECK(pthread_mutex_lock(&rec_mutex) == 0 && lock.refcount == 2);
    pthread_mutex_unlock(&rec_mutex);
    recursive_mutex_unlock(&lock);
    recursive_mutex_unlock(&lock);
    CHECK(lock.refcount == 0 && pthread_mutex_destroy(&lock.mutex) == 0);
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

int main(void) {
    pid_t child;
    alarm(100); /* Ends it if a loop hangs. */
    CHECK(pipe(bytes) == 0 && pipe(held) == 0);
    if ((child = fork()) == 0) {
        close(held[1]);
        _exit(read(held[0], bytes, 1) == 0 ? 3 : 4);
    }
    test_list_and_mutex();
    test_clock();
    test_shell();
    test_zip();
    test_default_loop(child);
    test_own_loop(child);
    test_thread();
    printf("%d passed, %d failed\n", passed, failed);
    return failed != 0;
}
