#pragma once

// Limits: how much a reader of outside bytes or text accepts before it gives
// up with WireError. decode() and fromJson() check every limit while they
// read, before they allocate for what the input announces, so that what a
// hostile input can make them allocate stays a bounded multiple of its size.

#include <cstddef>
#include <cstdint>

namespace Kest::Net {

struct Limits {
    // The whole input, in bytes.
    static constexpr std::size_t kDefaultMaxBytes = std::size_t{16} << 20;  // 16 MiB
    // Nesting of the message's tree (or the JSON value): the outermost
    // object or array is at depth 1, a scalar inside it at depth 2.
    static constexpr std::uint32_t kDefaultMaxDepth = 64;
    // Members of one object. A member becomes a node of an ordered map, the
    // dearest element of the tree to insert; 65,536 of them are far beyond
    // any record we know yet cost only a few megabytes.
    static constexpr std::uint32_t kDefaultMaxMembersPerObject = std::uint32_t{1} << 16;
    // Elements of one array: arrays carry bulk data (samples, readings), so
    // they may hold sixteen times more; a million one-byte elements fit well
    // inside kDefaultMaxBytes.
    static constexpr std::uint32_t kDefaultMaxElementsPerArray = std::uint32_t{1} << 20;

    std::size_t maxBytes = kDefaultMaxBytes;
    std::uint32_t maxDepth = kDefaultMaxDepth;
    std::uint32_t maxMembersPerObject = kDefaultMaxMembersPerObject;
    std::uint32_t maxElementsPerArray = kDefaultMaxElementsPerArray;
};

}  // namespace Kest::Net
