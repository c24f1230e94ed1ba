#pragma once

// What both fuzz targets share: reading the fuzzer's bytes as a stream of
// small decisions, capturing standard output, and reporting a broken promise.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <sstream>
#include <string>

namespace KestFuzz {

// Past the end every read yields 0, so any prefix of an input is itself a
// valid input and mutations never end in a "malformed input" path.
class FuzzInput {
public:
    FuzzInput(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}

    bool exhausted() const { return size_ == 0; }

    std::uint8_t byte() {
        if (size_ == 0) return 0;
        --size_;
        return *data_++;
    }

    // A value in [0, bound), bound > 0.
    unsigned pick(unsigned bound) { return byte() % bound; }

    std::uint64_t u64() {
        std::uint64_t value = 0;
        for (int i = 0; i < 8; ++i) value = (value << 8) | byte();
        return value;
    }

    // Up to `maxLength` raw bytes, NULs included.
    std::string bytes(unsigned maxLength) {
        std::string text;
        for (unsigned length = pick(maxLength + 1); length > 0; --length) {
            text.push_back(static_cast<char>(byte()));
        }
        return text;
    }

private:
    const std::uint8_t* data_;
    std::size_t size_;
};

// A broken promise: say which, then abort so that the fuzzer keeps the input.
[[noreturn]] inline void fail(const std::string& what) {
    std::fprintf(stderr, "FUZZ CHECK FAILED: %s\n", what.c_str());
    std::fflush(stderr);
    std::abort();
}

inline void check(bool condition, const char* what) {
    if (!condition) fail(what);
}

// Diverts std::cout into a string while alive, so that the diagnostic lines
// the library prints can be compared with the ones predicted.
class CapturedOutput {
public:
    CapturedOutput() : previous_(std::cout.rdbuf(buffer_.rdbuf())) {}
    ~CapturedOutput() { std::cout.rdbuf(previous_); }
    CapturedOutput(const CapturedOutput&) = delete;
    CapturedOutput& operator=(const CapturedOutput&) = delete;

    // The text written so far; clears it.
    std::string take() {
        std::string text = buffer_.str();
        buffer_.str(std::string());
        return text;
    }

private:
    std::ostringstream buffer_;
    std::streambuf* previous_;
};

}  // namespace KestFuzz
