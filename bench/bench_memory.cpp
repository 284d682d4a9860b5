// Tracked memory: allocate and free, against the same allocation with what the tracking cannot do
// without: zeroing and the two times.
#include <sys/time.h>
#include <cstring>

#include <qvcl/qvcl.h>

#include "bench/support.h"

namespace {

void bare(size_t size) {
    struct timeval allocated;
    struct timeval released;
    void *data = malloc(size);
    memset(data, 0, size);
    gettimeofday(&allocated, nullptr);
    benchmark::DoNotOptimize(data);
    gettimeofday(&released, nullptr);
    benchmark::DoNotOptimize(released);
    free(data);
}

void tracked(size_t size) {
    void *data = CL_malloc(size);
    benchmark::DoNotOptimize(data);
    CL_free(data);
}

// `held`: other blocks that are live meanwhile; the lists must not care.
bench::Comparison allocation(size_t size, void (*ours)(size_t), void (*theirs)(size_t)) {
    const auto repeated = [size](void (*once)(size_t)) {
        return [size, once](size_t n) {
            while (n-- != 0)
                once(size);
        };
    };
    return {{bench::local("qvcl", repeated(ours)),
             bench::local("malloc + memset + free + 2 clock reads", repeated(theirs))},
            {bench::times_of("that", 1.3)}};
}

}  // namespace

int main(int argc, char **argv) {
    bench::pin(bench::processor(1));
    for (const size_t size : {64u, 256u, 4096u}) {
        bench::compare("allocate + free/" + std::to_string(size),
                       [size] { return allocation(size, tracked, bare); });
    }
    return bench::run(argc, argv);
}
