/* A daemon that uses the loop alone. Its linker map shows that it contains nothing else. */
#include <signal.h>
#include <unistd.h>

#include <tessra/eventloop.h>

/* Handlers have the parameters of their types. */
#pragma GCC diagnostic ignored "-Wunused-parameter"

static int fds[2];

static int on_end(int pid, void* arg, int status) {
    cancel_loop();
    return status;
}
static void on_signal(int signal, siginfo_t* info, void* arg) {
    const int pid = fork();
    while (pid == 0) pause(); /* The loop may miss a child that exits before it is watched. */
    event_process_add(pid, on_end, NULL);
    kill(pid, SIGKILL);
}
static void on_fd(int fd, void* arg) {
    event_fd_del(fd);
    raise(SIGUSR1);
}
static void on_timer(void* arg) { (void)!write(fds[1], arg, 1); }

int main(void) {
    static char byte = 'x';
    if (pipe(fds) != 0) return 2;
    event_timer_add(on_timer, &byte, 0);
    event_fd_add(on_fd, NULL, fds[0], EVENT_FD_READ);
    event_signal_add(on_signal, NULL, SIGUSR1);
    return et_event_loop();
}
