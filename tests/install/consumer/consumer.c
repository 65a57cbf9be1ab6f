/* A daemon in small: a timer writes into a pipe, the pipe's watcher raises a signal, and the
   signal's watcher ends the loop. Exits with 0 if all three came in that order. */
#define _POSIX_C_SOURCE 200809L
#include <signal.h>
#include <stdio.h>
#include <unistd.h>

#include <tessra/eventloop.h>
#include <tessra/list.h>
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

int main(void) {
    if (pipe(fds) != 0) return 2;
    event_timer_add(on_timer, &stage, 1);
    event_timer_add(on_deadline, NULL, 30000);
    event_fd_add(on_readable, NULL, fds[0], EVENT_FD_READ);
    event_signal_add(on_signal, NULL, SIGUSR1);
    const int result = et_event_loop();
    printf("loop %d, stage %d\n", result, stage);
    return result == 0 && stage == 3 ? 0 : 1;
}
