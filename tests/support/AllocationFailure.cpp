// The replaced global operators new and delete of AllocationFailure.h. Link
// this file into a test executable of its own: it changes allocation for the
// whole program.

#include <support/AllocationFailure.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace KestTest::AllocationFailure {

namespace {

// Constant-initialised: valid before any dynamic initialisation runs.
std::atomic<std::size_t> countdown{0};  // 0: disarmed; 1: the next allocation fails
std::atomic<std::size_t> counted{0};
std::atomic<bool> hasFailed{false};

}  // namespace

void arm(std::size_t n) noexcept {
    hasFailed.store(false);
    countdown.store(n);
}

void disarm() noexcept { countdown.store(0); }

bool armed() noexcept { return countdown.load() != 0; }

bool failed() noexcept { return hasFailed.load(); }

std::size_t allocations() noexcept { return counted.load(); }

void resetCount() noexcept { counted.store(0); }

namespace {

// Counts one allocation; true when it is the one that must fail.
bool failThisOne() noexcept {
    counted.fetch_add(1, std::memory_order_relaxed);
    std::size_t left = countdown.load();
    while (left != 0) {
        if (countdown.compare_exchange_weak(left, left - 1)) {
            if (left != 1) return false;
            hasFailed.store(true);
            return true;
        }
    }
    return false;
}

void* allocate(std::size_t size, std::size_t alignment) noexcept {
    if (size == 0) size = 1;
    if (alignment <= alignof(std::max_align_t)) return std::malloc(size);
    // aligned_alloc wants a size that is a multiple of the alignment.
    return std::aligned_alloc(alignment, (size + alignment - 1) / alignment * alignment);
}

// What the standard operators do on real exhaustion: ask the new handler.
void* allocateWithHandler(std::size_t size, std::size_t alignment) {
    for (;;) {
        if (void* p = allocate(size, alignment)) return p;
        std::new_handler handler = std::get_new_handler();
        if (handler == nullptr) throw std::bad_alloc();
        handler();
    }
}

void* allocateOrThrow(std::size_t size, std::size_t alignment) {
    if (failThisOne()) throw std::bad_alloc();
    return allocateWithHandler(size, alignment);
}

void* allocateOrNull(std::size_t size, std::size_t alignment) noexcept {
    if (failThisOne()) return nullptr;
    try {
        return allocateWithHandler(size, alignment);
    } catch (...) {
        return nullptr;
    }
}

constexpr std::size_t kPlain = alignof(std::max_align_t);

}  // namespace
}  // namespace KestTest::AllocationFailure

namespace Failure = KestTest::AllocationFailure;

void* operator new(std::size_t size) { return Failure::allocateOrThrow(size, Failure::kPlain); }
void* operator new[](std::size_t size) { return Failure::allocateOrThrow(size, Failure::kPlain); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return Failure::allocateOrNull(size, Failure::kPlain);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return Failure::allocateOrNull(size, Failure::kPlain);
}
void* operator new(std::size_t size, std::align_val_t alignment) {
    return Failure::allocateOrThrow(size, static_cast<std::size_t>(alignment));
}
void* operator new[](std::size_t size, std::align_val_t alignment) {
    return Failure::allocateOrThrow(size, static_cast<std::size_t>(alignment));
}
void* operator new(std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
    return Failure::allocateOrNull(size, static_cast<std::size_t>(alignment));
}
void* operator new[](std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
    return Failure::allocateOrNull(size, static_cast<std::size_t>(alignment));
}

// malloc and aligned_alloc memory are both released with free.
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { std::free(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { std::free(p); }
void operator delete(void* p, std::align_val_t) noexcept { std::free(p); }
void operator delete[](void* p, std::align_val_t) noexcept { std::free(p); }
void operator delete(void* p, std::size_t, std::align_val_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t, std::align_val_t) noexcept { std::free(p); }
void operator delete(void* p, std::align_val_t, const std::nothrow_t&) noexcept { std::free(p); }
void operator delete[](void* p, std::align_val_t, const std::nothrow_t&) noexcept { std::free(p); }
