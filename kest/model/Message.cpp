#include <kest/model/Message.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <random>

namespace Kest::Msgs {

namespace {

constexpr char kDigits[] = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz-_";
constexpr int kPrefixLength = 8;          // 48 random bits
constexpr std::uint64_t kBlock = 1024;    // counter values a thread takes at once

// Drawn once per process, at first use.
struct IdentityPrefix {
    char text[kPrefixLength];
    IdentityPrefix() {
        std::random_device device;
        std::uint64_t bits = (static_cast<std::uint64_t>(device()) << 32) ^ device();
        bits ^= static_cast<std::uint64_t>(
            std::chrono::high_resolution_clock::now().time_since_epoch().count());
        for (char& c : text) {
            c = kDigits[bits & 63];
            bits >>= 6;
        }
    }
};

const IdentityPrefix& prefix() {
    static const IdentityPrefix value;
    return value;
}

std::atomic<std::uint64_t> nextBlock{0};

// Each thread reserves a block of counter values, so that the shared counter
// is touched once per kBlock messages rather than once per message.
struct ThreadCounter {
    std::uint64_t next = 0;
    std::uint64_t end = 0;
};
thread_local ThreadCounter threadCounter;

}  // namespace

std::string Message::makeIdentity() {
    ThreadCounter& counter = threadCounter;
    if (counter.next == counter.end) {
        counter.next = nextBlock.fetch_add(kBlock, std::memory_order_relaxed);
        counter.end = counter.next + kBlock;
    }
    std::uint64_t n = counter.next++;

    // Prefix, then the counter in base 64, least significant digit first: up to
    // 2^42 messages the identity fits the string's inline buffer (15 chars).
    char buffer[kPrefixLength + 11];
    const IdentityPrefix& p = prefix();
    int length = 0;
    for (; length < kPrefixLength; ++length) buffer[length] = p.text[length];
    do {
        buffer[length++] = kDigits[n & 63];
        n >>= 6;
    } while (n != 0);
    return std::string(buffer, static_cast<std::size_t>(length));
}

Message::Message(Identifier id)
    : id_(this, "Id", true),
      sender(this, "Sender"),
      destination(this, "Destination"),
      identity(this, "Identity", true) {
    id_.assign(id);
    identity.assign(makeIdentity());
}

Message::Message(Identifier id, const std::vector<std::string>& senderAddress)
    : Message(id) {
    sender.assign(senderAddress);
}

Message::Message(Identifier id, const std::vector<std::string>& senderAddress,
                 const std::vector<std::string>& destinationAddress)
    : Message(id) {
    sender.assign(senderAddress);
    destination.assign(destinationAddress);
}

Message::~Message() = default;

Identifier Message::id() const noexcept {
    return id_.initialized() ? id_() : Identifier(0);
}

}  // namespace Kest::Msgs
