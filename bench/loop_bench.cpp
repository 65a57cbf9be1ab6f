// Event loops. A peer that isn't installed is left out; see CMakeLists.txt.
#include <sys/resource.h>

#include <cstdio>

namespace bench {

#define TESSRA_BENCH_PEER(name) void add_##name();
TESSRA_BENCH_LOOPS
#undef TESSRA_BENCH_PEER

}  // namespace bench

void register_operations() {
    // A shell command may run with a limit as high as this, which is enough for 480 pipes.
    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    fprintf(stderr, "limit of descriptors: %llu\n",
            static_cast<unsigned long long>(limit.rlim_max));
#define TESSRA_BENCH_PEER(name) bench::add_##name();
    TESSRA_BENCH_LOOPS
#undef TESSRA_BENCH_PEER
}
