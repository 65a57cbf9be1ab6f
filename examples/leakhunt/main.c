/*
 * leakhunt [INTERVAL_MS [DUMPS]]: a daemon that leaks blocks at two places and reports them.
 *
 * It answers made-up requests. A dump every INTERVAL_MS milliseconds (1000) lists the call sites of
 * leaked blocks. The daemon exits after DUMPS dumps (0: never) or on SIGTERM or SIGINT.
 */
#include <errno.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "tessra/eventloop.h"
#include "tessra/memchk.h"

#define DEBUG_LEVEL 7
#define LONGEST_INTERVAL_MS 3600000

struct server {
    unsigned long interval_ms;
    unsigned long dumps_left;
    unsigned long served;
    char* greeting; /* Allocated as long as the daemon runs, which is no leak. */
    char* last_client;
};

struct request {
    char* client;
    char* path;
};

static void log_line(int level, char* format, ...) {
    va_list args;
    va_start(args, format);
    printf("<%d>", level);
    vprintf(format, args);
    va_end(args);
    putchar('\n');
    fflush(stdout);
}

/* Returns the parts of "CLIENT PATH", or NULL if there is no memory. */
static struct request* parse(const char* line) {
    const size_t client_length = strcspn(line, " ");
    struct request* request = MEMCHK_CALLOC(1, sizeof *request);
    if (!request) return NULL;
    request->client = MEMCHK_STRNDUP(line, client_length);
    request->path = MEMCHK_STRDUP(line + client_length + 1); /* leaks: the path */
    if (request->client && request->path) return request;
    MEMCHK_FREE(request->client);
    MEMCHK_FREE(request->path);
    MEMCHK_FREE(request);
    return NULL;
}

/* The first fault: the early return doesn't free the path. */
static void end_request(struct request* request) {
    int unknown = strcmp(request->path, "/status") != 0;
    char* path = request->path;
    MEMCHK_FREE(request->client);
    MEMCHK_FREE(request);
    if (unknown) return;
    MEMCHK_FREE(path);
}

/* The second fault: the pointer to the previous client's name is overwritten. */
static void remember_client(struct server* server, const char* client) {
    server->last_client = MEMCHK_STRDUP(client); /* leaks: the client */
}

static void serve(void* arg) {
    static const char* const kLines[] = {"10.0.0.7 /status", "10.0.0.8 /status",
                                         "10.0.0.7 /favicon.ico", "10.0.0.9 /status"};
    struct server* server = arg;
    for (size_t i = 0; i < sizeof kLines / sizeof *kLines; ++i) {
        struct request* request = parse(kLines[i]);
        if (!request) continue;
        char* reply = MEMCHK_STRDUP(server->greeting);
        remember_client(server, request->client);
        server->served++;
        MEMCHK_FREE(reply);
        end_request(request);
    }
    event_timer_add(serve, server, server->interval_ms / 4);
}

static void dump(void* arg) {
    struct server* server = arg;
    dump_allocation_tree(DEBUG_LEVEL, log_line);
    if (server->dumps_left != 0 && --server->dumps_left == 0) {
        cancel_loop();
        return;
    }
    event_timer_add(dump, server, server->interval_ms);
}

static void on_end(int signal, siginfo_t* info, void* unused) {
    (void)signal, (void)info, (void)unused;
    cancel_loop();
}

/* The signals are unblocked once the loop runs: an earlier signal would be dropped. */
static void open_signals(void* signals) { sigprocmask(SIG_UNBLOCK, signals, NULL); }

static int to_number(const char* text, unsigned long low, unsigned long high,
                     unsigned long* value) {
    char* end;
    errno = 0;
    *value = strtoul(text, &end, 10);
    return *text >= '0' && *text <= '9' && !*end && errno == 0 && *value >= low && *value <= high;
}

int main(int argc, char** argv) {
    struct server server = {1000, 0, 0, NULL, NULL};
    sigset_t signals;
    if (argc > 3 ||
        (argc > 1 && !to_number(argv[1], 1, LONGEST_INTERVAL_MS, &server.interval_ms)) ||
        (argc > 2 && !to_number(argv[2], 0, 1000000, &server.dumps_left))) {
        fprintf(stderr, "usage: leakhunt [INTERVAL_MS [DUMPS]]\n");
        return 2;
    }
    server.greeting = MEMCHK_STRDUP("200 alive");
    if (!server.greeting) return 1;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    sigprocmask(SIG_BLOCK, &signals, NULL);
    errno = 0;
    event_signal_add(on_end, NULL, SIGTERM);
    event_signal_add(on_end, NULL, SIGINT);
    event_timer_add(open_signals, &signals, 0);
    event_timer_add(serve, &server, 0);
    event_timer_add(dump, &server, server.interval_ms);
    if (errno != 0 || et_event_loop() != 0) return 1;
    printf("%lu requests served, last for %s\n", server.served, server.last_client);
    MEMCHK_FREE(server.greeting);
    return 0;
}
