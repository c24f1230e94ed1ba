#include <kest/msgs/internal/TestHooks.h>

#if defined(KEST_TEST_HOOKS)

#include <atomic>

namespace Kest::Msgs::detail::hooks {

namespace {

std::atomic<std::uint64_t> wakeUps{0};
std::atomic<SteadyNow> steadyHook{nullptr};
std::atomic<WallNow> wallHook{nullptr};
std::atomic<IdentityHash> identityHashHook{nullptr};

}  // namespace

std::uint64_t readerWakeUps() noexcept { return wakeUps.load(); }

void setSteadyNow(SteadyNow now) noexcept { steadyHook.store(now); }

void setWallNow(WallNow now) noexcept { wallHook.store(now); }

void setIdentityHash(IdentityHash hash) noexcept { identityHashHook.store(hash); }

IdentityHash identityHash() noexcept { return identityHashHook.load(); }

void countReaderWakeUp() noexcept { wakeUps.fetch_add(1); }

std::chrono::steady_clock::time_point steadyNow() {
    const SteadyNow hook = steadyHook.load();
    return hook != nullptr ? hook() : std::chrono::steady_clock::now();
}

std::chrono::system_clock::time_point wallNow() {
    const WallNow hook = wallHook.load();
    return hook != nullptr ? hook() : std::chrono::system_clock::now();
}

}  // namespace Kest::Msgs::detail::hooks

#endif
