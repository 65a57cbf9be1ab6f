/*
 * Writes a ZIP archive of the named files to standard output, which may be a pipe:
 *
 *     zipstream [-C BASE] [-Z ZBASE] [-c CHUNK] PATH... >archive.zip
 *
 * Relative paths start at BASE (the working directory). Names in the archive are the parts of the
 * paths below ZBASE (BASE). For a PATH of "-", the program reads paths from standard input, one per
 * line. A directory is an entry without its contents, as the library makes it:
 *
 *     find . -mindepth 1 | zipstream - | ssh host 'cat >backup.zip'
 */
#define _GNU_SOURCE
#include <errno.h>
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <tessra/szip.h>

struct paths {
    char** items;
    unsigned int count;
};

static void fail(const char* what) {
    fprintf(stderr, "zipstream: %s: %s\n", what, strerror(errno));
    exit(1);
}

static void add_path(struct paths* paths, const char* path) {
    if ((paths->count & (paths->count - 1)) == 0) { /* Grows at each power of two. */
        const size_t room = paths->count == 0 ? 1 : 2 * (size_t)paths->count;
        paths->items = realloc(paths->items, room * sizeof *paths->items);
        if (paths->items == NULL) fail("paths");
    }
    paths->items[paths->count] = strdup(path);
    if (paths->items[paths->count++] == NULL) fail(path);
}

static void read_paths(struct paths* paths) {
    char* line = NULL;
    size_t room = 0;
    ssize_t length;
    while ((length = getline(&line, &room, stdin)) > 0) {
        if (line[length - 1] == '\n') line[length - 1] = '\0';
        add_path(paths, line);
    }
    free(line);
    if (ferror(stdin)) fail("standard input");
}

/* Goes on after a partial write, so that it works with any kind of descriptor. */
static ssize_t write_all(void* arg, const void* buf, size_t count) {
    const int fd = *(const int*)arg;
    size_t done = 0;
    while (done < count) {
        const ssize_t taken = write(fd, (const char*)buf + done, count - done);
        if (taken < 0 && errno != EINTR) return -1;
        if (taken > 0) done += (size_t)taken;
    }
    return (ssize_t)done;
}

int main(int argc, char** argv) {
    const char *base = NULL, *zbase = NULL;
    unsigned int chunk = 65536;
    struct paths paths = {NULL, 0};
    char* directory = NULL;
    int option, output = STDOUT_FILENO;

    while ((option = getopt(argc, argv, "C:Z:c:")) != -1) {
        if (option == 'C') base = optarg;
        if (option == 'Z') zbase = optarg;
        if (option == 'c') chunk = (unsigned int)strtoul(optarg, NULL, 10);
        if (option == '?') return 2;
    }
    if (optind == argc) {
        fprintf(stderr, "usage: zipstream [-C BASE] [-Z ZBASE] [-c CHUNK] PATH...\n");
        return 2;
    }
    for (; optind < argc; ++optind) {
        if (strcmp(argv[optind], "-") == 0)
            read_paths(&paths);
        else
            add_path(&paths, argv[optind]);
    }
    if (base == NULL && (base = directory = getcwd(NULL, 0)) == NULL) fail("working directory");

    szip_info_t* plan = szip_create_info((const char**)paths.items, paths.count, base,
                                         zbase != NULL ? zbase : base);
    if (plan == NULL) fail("cannot plan the archive");
    fprintf(stderr, "%" PRIu64 " bytes\n", (uint64_t)szip_calc_size(plan, 0));
    errno = 0;
    if (!szip_stream_zip(plan, write_all, &output, chunk)) fail("the archive is cut short");

    szip_free_info(plan);
    for (unsigned int i = 0; i < paths.count; ++i) free(paths.items[i]);
    free(paths.items);
    free(directory);
    return 0;
}
