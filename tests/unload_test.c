/* A plugin's use of the library: it loads, catches a signal, and unloads. argv[1]: libtessra.so */
#include <dlfcn.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>

#include "tessra/eventloop.h"

/* A handler has the parameters of its type. */
#pragma GCC diagnostic ignored "-Wunused-parameter"
static void ignore(int signal, siginfo_t* info, void* arg) {}

int main(int argc, char** argv) {
    void* const library = argc == 2 ? dlopen(argv[1], RTLD_NOW) : NULL;
    void (*add)(signal_handler_t, void*, int);
    void* const found = library ? dlsym(library, "event_signal_add") : NULL;
    if (!found) {
        fprintf(stderr, "unload_test: %s\n", dlerror());
        return 1;
    }
    memcpy(&add, &found, sizeof add);
    add(ignore, NULL, SIGTERM);
    if (dlclose(library) != 0) return 1;
    return raise(SIGTERM); /* The catcher runs: only the library could remove it. */
}
