// What decode() allocates for hostile inputs, counted by a replaced global
// operator new: never more than 128 times the input plus 64 KiB, whether
// the input announces far more items than it holds or really holds as many
// tiny items as it can. (A test executable of its own: the replaced
// operator new counts for the whole program.)

#include <kest/net/Wire.h>
#include <kest/net/WireError.h>

#include "WireTestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <new>
#include <string>

namespace {

std::atomic<bool> counting{false};
std::atomic<std::size_t> allocated{0};

}  // namespace

void* operator new(std::size_t size) {
    if (counting.load(std::memory_order_relaxed)) allocated.fetch_add(size, std::memory_order_relaxed);
    if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
    throw std::bad_alloc();
}
// Not inlined: GCC would otherwise see free() meet a pointer from operator
// new at the call site and warn of a mismatch that is not one.
__attribute__((noinline)) void operator delete(void* p) noexcept { std::free(p); }
__attribute__((noinline)) void operator delete(void* p, std::size_t) noexcept { std::free(p); }

namespace {

using Kest::Net::decode;
using Kest::Net::Limits;
using Kest::Net::WireError;
using KestTest::goodEnvelope;
using KestTest::goodVersion;
using KestTest::Packer;
using KestTest::packString;
using KestTest::treeWith;
using KestTest::wireBytes;

// The bytes allocated while decoding `bytes` (freed or not), whatever the outcome.
std::size_t allocatedByDecode(const std::string& bytes, const Limits& limits, bool* refused = nullptr) {
    allocated = 0;
    counting = true;
    bool wasRefused = false;
    try {
        decode(bytes, limits);
    } catch (const WireError&) {
        wasRefused = true;
    }
    counting = false;
    if (refused != nullptr) *refused = wasRefused;
    return allocated.load();
}

std::size_t bound(const std::string& bytes) { return 128 * bytes.size() + (64 << 10); }

Limits wide() {
    Limits limits;
    limits.maxElementsPerArray = 0xffffffff;
    limits.maxMembersPerObject = 0xffffffff;
    return limits;
}

TEST(WireAllocation, CountsAnnouncedBeyondTheInputAllocateNothingForTheirItems) {
    for (bool map : {false, true}) {
        const std::string bytes = wireBytes(goodVersion, goodEnvelope, treeWith("Big", [map](Packer& p) {
            if (map) {
                p.pack_map(0xffffffff);
            } else {
                p.pack_array(0xffffffff);
            }
        }));
        bool refused = false;
        const std::size_t used = allocatedByDecode(bytes, wide(), &refused);
        EXPECT_TRUE(refused);
        EXPECT_LE(used, bound(bytes)) << (map ? "map" : "array");
    }
}

TEST(WireAllocation, ManyTinyItemsCostABoundedMultipleOfTheInput) {
    constexpr std::uint32_t kItems = 100000;
    const std::string nils = wireBytes(goodVersion, goodEnvelope, treeWith("Nils", [](Packer& p) {
        p.pack_array(kItems);
        for (std::uint32_t i = 0; i < kItems; ++i) p.pack_nil();
    }));
    const std::string arrays = wireBytes(goodVersion, goodEnvelope, treeWith("Arrays", [](Packer& p) {
        p.pack_array(kItems);
        for (std::uint32_t i = 0; i < kItems; ++i) {
            p.pack_array(1);
            p.pack_nil();
        }
    }));
    const std::string objects = wireBytes(goodVersion, goodEnvelope, treeWith("Objects", [](Packer& p) {
        p.pack_array(kItems);
        for (std::uint32_t i = 0; i < kItems; ++i) {
            p.pack_map(1);
            packString(p, "");
            p.pack_nil();
        }
    }));
    const std::string members = wireBytes(goodVersion, goodEnvelope, treeWith("Members", [](Packer& p) {
        p.pack_map(kItems);
        for (std::uint32_t i = 0; i < kItems; ++i) {
            packString(p, std::to_string(i));
            p.pack_nil();
        }
    }));
    for (const std::string* bytes : {&nils, &arrays, &objects, &members}) {
        bool refused = true;
        const std::size_t used = allocatedByDecode(*bytes, wide(), &refused);
        EXPECT_FALSE(refused);
        EXPECT_LE(used, bound(*bytes)) << used << " bytes for " << bytes->size() << " bytes of input ("
                                       << static_cast<double>(used) / static_cast<double>(bytes->size()) << " per byte)";
        EXPECT_GT(used, bytes->size()) << "nothing counted: is operator new replaced?";
    }
}

}  // namespace
