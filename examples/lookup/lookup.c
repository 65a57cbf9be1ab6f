/*
 * Looks up the address of a host: one UDP socket on the event loop, one timer for the time limit.
 *
 * The codec knows neither lengths nor senders, so this program checks both. Its socket is
 * connected, so it receives only datagrams of the server. Each reply must answer the request under
 * way. The buffer is so large that no reply leads the parser out of it.
 */
#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <unistd.h>

#include <tessra/dns.h>
#include <tessra/eventloop.h>

enum { TYPE_A = 1, TYPE_AAAA = 28, CLASS_IN = 1 };
enum { REQUEST_BYTES = 512, MAX_MESSAGE_BYTES = 65535, HEADER_BYTES = sizeof(dns_header_t) };
enum { TRIES = 3, REPLIES_PER_PASS = 16 };

/* The program's exit status. */
enum { FOUND = 0, NO_ADDRESS = 1, SERVER_ERROR = 2, NO_REPLY = 3, FAILED = 4 };

struct lookup {
    char* host;
    int type;
    struct sockaddr_in server;
    unsigned int wait_ms; /* For the reply to the next try; doubled after each try. */
    int tries_left;
    int fd;
    int request_length;
    char request[REQUEST_BYTES];
    int status;
};

/*
 * The command line
 */

/* The first IPv4 server of the system, or this host. */
static struct in_addr system_server(void) {
    struct in_addr address = {htonl(INADDR_LOOPBACK)};
    char line[256];
    char text[64];
    FILE* file = fopen("/etc/resolv.conf", "re");
    if (!file) return address;
    while (fgets(line, sizeof line, file)) {
        if (sscanf(line, "nameserver %63s", text) == 1 && inet_pton(AF_INET, text, &address) == 1)
            break;
    }
    (void)fclose(file);
    return address;
}

/* Whether the standard allows the name. The codec doesn't check this. */
static int is_host_name(const char* name) {
    if (!*name || strlen(name) > 253) return 0;
    for (;;) {
        const size_t label = strcspn(name, ".");
        if (label < 1 || label > 63) return 0;
        if (!name[label]) return 1;
        name += label + 1;
    }
}

static int parse_number(const char* text, unsigned int max, unsigned int* number) {
    char* end;
    errno = 0;
    const unsigned long value = strtoul(text, &end, 10);
    if (*text < '0' || *text > '9' || *end || errno || value < 1 || value > max) return 0;
    *number = (unsigned int)value;
    return 1;
}

static int parse_options(struct lookup* lookup, int argc, char** argv) {
    int option;
    while ((option = getopt(argc, argv, "46w:")) != -1) {
        if (option == '4')
            lookup->type = TYPE_A;
        else if (option == '6')
            lookup->type = TYPE_AAAA;
        else if (option != 'w' || !parse_number(optarg, 60000, &lookup->wait_ms))
            return 0;
    }
    return 1;
}

static int parse_operands(struct lookup* lookup, int count, char** operands) {
    unsigned int port = 53;
    if (count < 1 || count > 3) return 0;
    lookup->host = operands[0];
    const size_t length = strlen(lookup->host);
    if (length > 1 && lookup->host[length - 1] == '.') lookup->host[length - 1] = '\0';
    if (!is_host_name(lookup->host)) return 0;
    if (count < 2)
        lookup->server.sin_addr = system_server();
    else if (inet_pton(AF_INET, operands[1], &lookup->server.sin_addr) != 1)
        return 0;
    if (count == 3 && !parse_number(operands[2], 65535, &port)) return 0;
    lookup->server.sin_family = AF_INET;
    lookup->server.sin_port = htons((in_port_t)port);
    return 1;
}

static void try_once(void* arg);

/*
 * The reply
 */

/* Deletes the timer: it may be due in the same pass, and would overwrite the status. */
static void finish(struct lookup* lookup, int status) {
    event_timer_del(try_once, lookup);
    lookup->status = status;
    cancel_loop();
}

/* A name from the network may contain any byte, even commands for the terminal. */
static void print_name(const char* name) {
    for (; *name; ++name) (void)putchar(*name > ' ' && *name <= '~' ? *name : '?');
}

static void print_address(const char* name, const struct sockaddr_storage* address) {
    char text[INET6_ADDRSTRLEN];
    const void* bytes = &((const struct sockaddr_in*)address)->sin_addr;
    if (address->ss_family == AF_INET6) bytes = &((const struct sockaddr_in6*)address)->sin6_addr;
    print_name(name);
    (void)printf(" %s\n", inet_ntop(address->ss_family, bytes, text, sizeof text));
}

/* Servers repeat the question byte by byte, unless they couldn't read it. */
static int answers_request(const struct lookup* lookup, const char* reply, size_t length) {
    dns_header_t header;
    if (length < HEADER_BYTES || memcmp(reply, lookup->request, 2) != 0) return 0;
    memcpy(&header, reply, sizeof header);
    header.f.raw = ntohs(header.f.raw);
    if (!header.f.flags.response) return 0;
    if (header.question_count == 0) return header.f.flags.reply_code != 0;
    return length >= (size_t)lookup->request_length &&
           memcmp(reply + HEADER_BYTES, lookup->request + HEADER_BYTES,
                  (size_t)lookup->request_length - HEADER_BYTES) == 0;
}

static void take_reply(struct lookup* lookup, char* reply) {
    const dns_header_t* header = (const dns_header_t*)(const void*)reply;
    struct sockaddr_storage address = {0};
    char* name = NULL;
    int found;
    if (lookup->type == TYPE_A) {
        address.ss_family = AF_INET;
        found = dns_parse_reply(reply, &name, &((struct sockaddr_in*)&address)->sin_addr);
    } else {
        found = dns_parse_reply_v6(reply, &name, &address);
    }
    if (found == 1)
        print_address(name ? name : lookup->host, &address);
    else if (found == 0)
        (void)fprintf(stderr, "lookup: no address%s\n",
                      header->f.flags.truncated ? ", but the reply was cut short" : "");
    else
        (void)fprintf(stderr, "lookup: the server says %s (%u)\n",
                      header->f.flags.reply_code == 3 ? "that there is no such name" : "no",
                      header->f.flags.reply_code);
    free(name);
    finish(lookup, found == 1 ? FOUND : found == 0 ? NO_ADDRESS : SERVER_ERROR);
}

static void on_reply(int fd, void* arg) {
    static char reply[MAX_MESSAGE_BYTES];
    struct lookup* lookup = arg;
    for (int n = 0; n < REPLIES_PER_PASS; ++n) {
        const ssize_t got = recv(fd, reply, sizeof reply, 0);
        if (got < 0) return; /* No more replies, or no server: wait for the timer. */
        memset(reply + got, 0, sizeof reply - (size_t)got);
        if (!answers_request(lookup, reply, (size_t)got)) continue;
        take_reply(lookup, reply);
        return;
    }
}

/*
 * The request
 */

/* Each try has a new id, so a reply to an older try is no longer accepted. */
static int build_request(struct lookup* lookup) {
    unsigned short id;
    if (getrandom(&id, sizeof id, 0) != sizeof id) return 0;
    lookup->request_length =
        dns_build_request(lookup->request, lookup->host, lookup->type, CLASS_IN, id);
    return lookup->request_length > 0;
}

/* Also the handler of the time limit. */
static void try_once(void* arg) {
    struct lookup* lookup = arg;
    if (lookup->tries_left-- == 0) {
        (void)fprintf(stderr, "lookup: no reply\n");
        finish(lookup, NO_REPLY);
        return;
    }
    errno = 0;
    event_timer_add(try_once, lookup, lookup->wait_ms);
    if (errno != 0 || !build_request(lookup)) {
        perror("lookup");
        finish(lookup, FAILED);
        return;
    }
    lookup->wait_ms *= 2;
    (void)send(lookup->fd, lookup->request, (size_t)lookup->request_length, 0);
}

static int open_socket(struct lookup* lookup) {
    lookup->fd = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (lookup->fd < 0) return 0;
    if (connect(lookup->fd, (const struct sockaddr*)&lookup->server, sizeof lookup->server) != 0)
        return 0;
    errno = 0;
    event_fd_add(on_reply, lookup, lookup->fd, EVENT_FD_READ);
    event_timer_add(try_once, lookup, 0);
    return errno == 0;
}

int main(int argc, char** argv) {
    struct lookup lookup = {
        .type = TYPE_A, .wait_ms = 1000, .tries_left = TRIES, .fd = -1, .status = FAILED};
    if (!parse_options(&lookup, argc, argv) ||
        !parse_operands(&lookup, argc - optind, argv + optind)) {
        (void)fprintf(stderr, "usage: lookup [-4|-6] [-w MILLISECONDS] HOST [SERVER [PORT]]\n");
        return FAILED;
    }
    if (!open_socket(&lookup) || et_event_loop() != 0) perror("lookup");
    if (lookup.fd >= 0) (void)close(lookup.fd);
    return lookup.status;
}
