#pragma once

// Test-only hooks of the dispatcher library, compiled only when the library
// is built with KEST_TEST_HOOKS (the CMake option of that name, on by default
// in builds with tests). Without it this header declares nothing and the
// library's code is what it is in a release.
//
// - A count of reader wake-ups: every time a reader of a MessageQueue returns
//   from a condition-variable wait because it was notified (not because its
//   time ran out), and every wake-up of the wait without a time limit. A test
//   can so tell that a put woke no reader without timing anything.
// - Replaceable clocks for MessageQueue::getMessage: the steady and the wall
//   clock it reads. Its wall-clock wait goes through HookedWallClock, whose
//   now() is the hooked one; the standard library's wait_until for such a
//   clock sleeps for the difference between the deadline and that clock's
//   now() on its own clock, so a hooked wall clock that jumps never makes the
//   real wait sleep for the jump.
// - A replaceable hash for the history of handled identities
//   (MessagesHandled), so that a test can make strings collide.
//
// Process-wide and not installed: for the library's sources and the tests.

#if defined(KEST_TEST_HOOKS)

#include <kest/msgs/Api.h>

#include <chrono>
#include <cstdint>
#include <string>

namespace Kest::Msgs::detail::hooks {

using SteadyNow = std::chrono::steady_clock::time_point (*)();
using WallNow = std::chrono::system_clock::time_point (*)();
using IdentityHash = std::uint32_t (*)(const std::string& id);

// Reader wake-ups counted since the program started.
KEST_DISPATCHER_API std::uint64_t readerWakeUps() noexcept;
// Replace what getMessage reads as the steady or the wall clock's time; a
// null function restores the real clock.
KEST_DISPATCHER_API void setSteadyNow(SteadyNow now) noexcept;
KEST_DISPATCHER_API void setWallNow(WallNow now) noexcept;
// Replace the hash MessagesHandled computes of each identity; a null
// function restores its own. Change it only while no history is in use:
// a history's index holds the hashes it was given.
KEST_DISPATCHER_API void setIdentityHash(IdentityHash hash) noexcept;

// For the library: count one wake-up; read the (possibly replaced) clocks.
void countReaderWakeUp() noexcept;
std::chrono::steady_clock::time_point steadyNow();
std::chrono::system_clock::time_point wallNow();
// The replaced identity hash, or null.
IdentityHash identityHash() noexcept;

// The wall clock as getMessage sees it.
struct HookedWallClock {
    using duration = std::chrono::system_clock::duration;
    using rep = duration::rep;
    using period = duration::period;
    using time_point = std::chrono::time_point<HookedWallClock, duration>;
    static constexpr bool is_steady = false;
    static time_point now() { return time_point(wallNow().time_since_epoch()); }
};

}  // namespace Kest::Msgs::detail::hooks

#endif
