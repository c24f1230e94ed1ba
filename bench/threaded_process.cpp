// Starts and joins one thread before main, so that every benchmark of
// kest_bench runs in a process that has had a second thread, as any program
// with a reader thread has. Until a process starts its first thread, the C
// library reports it single-threaded and libstdc++ counts shared_ptr
// references with plain increments instead of atomic ones: a single-threaded
// benchmark that ran before the first two-thread workload would otherwise be
// timed with cheaper reference counts than the same benchmark after it, and
// the order of a run, which is random, would decide.

#include <thread>

namespace KestBench {
namespace {

const bool processHasStartedAThread = [] {
    std::thread([] {}).join();
    return true;
}();

}  // namespace
}  // namespace KestBench
