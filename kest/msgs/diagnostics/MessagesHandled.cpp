#include <kest/msgs/diagnostics/MessagesHandled.h>

#include <cstring>
#include <new>
#include <type_traits>
#include <utility>

#if defined(KEST_TEST_HOOKS)
#include <kest/msgs/internal/TestHooks.h>
#endif

namespace Kest::Msgs {

// A remembered string: up to kInline characters in the entry itself, longer
// ones in a buffer of their own, which the entry keeps for the strings that
// later take its place (as a std::string keeps its capacity). Half a cache
// line, so that the ring stays small.
struct MessagesHandled::Entry {
    static constexpr std::size_t kInline = 18;

    std::uint32_t hash;
    std::uint32_t next;   // the next newer entry of the same bucket, or kNone
    std::uint32_t size;   // the string's length
    std::uint8_t scopes;  // the PostScope bits handled
    bool onHeap;          // the text is in a buffer (pointer and capacity in `text`)
    char text[kInline];

    char* buffer() const noexcept {
        char* data;
        std::memcpy(&data, text, sizeof data);
        return data;
    }
    std::uint32_t capacity() const noexcept {
        std::uint32_t capacity;
        std::memcpy(&capacity, text + sizeof(char*), sizeof capacity);
        return capacity;
    }
    const char* data() const noexcept { return onHeap ? buffer() : text; }

    bool equals(const std::string& id) const noexcept {
        return size == id.size() && std::memcmp(data(), id.data(), id.size()) == 0;
    }

    // memcpy of n <= kInline bytes as at most four moves, without a call.
    static void copyShort(char* to, const char* from, std::size_t n) noexcept {
        if (n >= 16) {
            std::memcpy(to, from, 16);
            std::memcpy(to + n - 8, from + n - 8, 8);
        } else if (n >= 8) {
            std::memcpy(to, from, 8);
            std::memcpy(to + n - 8, from + n - 8, 8);
        } else if (n >= 4) {
            std::memcpy(to, from, 4);
            std::memcpy(to + n - 4, from + n - 4, 4);
        } else {
            for (std::size_t i = 0; i < n; ++i) to[i] = from[i];
        }
    }

    // A buffer for `id` when an entry like `room` (nullptr for a new one)
    // cannot hold it; else nullptr. Throws std::bad_alloc, also for a string
    // whose length does not fit the entry's 32-bit count.
    static char* bufferFor(const Entry* room, const std::string& id) {
        const std::size_t capacity = room != nullptr && room->onHeap ? room->capacity() : kInline;
        if (id.size() <= capacity) return nullptr;
        if (id.size() > 0xFFFFFFFFu) throw std::bad_alloc();
        return new char[id.size()];
    }

    // Stores `id`, in the buffer the entry has (big enough), in `fresh` (a
    // buffer from bufferFor, then owned) or inline. Never throws.
    void store(const std::string& id, char* fresh) noexcept {
        if (fresh != nullptr) {
            if (onHeap) delete[] buffer();
            const auto capacity = static_cast<std::uint32_t>(id.size());
            std::memcpy(text, &fresh, sizeof fresh);
            std::memcpy(text + sizeof fresh, &capacity, sizeof capacity);
            onHeap = true;
        }
        if (onHeap) {
            if (!id.empty()) std::memcpy(buffer(), id.data(), id.size());
        } else {
            copyShort(text, id.data(), id.size());
        }
        size = static_cast<std::uint32_t>(id.size());
    }

    // Frees the buffers of `ring` and empties it.
    static void releaseAll(std::vector<Entry>& ring) noexcept {
        for (Entry& entry : ring) {
            if (entry.onHeap) delete[] entry.buffer();
        }
        ring.clear();
    }
};

namespace {

// Twice as many buckets as strings at most: most chains are empty or one long.
std::size_t bucketCountFor(unsigned int historyLength) {
    std::size_t count = 64;
    while (count < 2 * static_cast<std::size_t>(historyLength)) count *= 2;
    return count;
}

std::uint64_t load64(const char* p) noexcept {
    std::uint64_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

std::uint64_t load32(const char* p) noexcept {
    std::uint32_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

// The full 128-bit product of a and b, folded to 64 bits: every input bit
// reaches the middle bits of the result.
std::uint64_t fold(std::uint64_t a, std::uint64_t b) noexcept {
    __extension__ using Wide = unsigned __int128;
    const Wide product = static_cast<Wide>(a) * b;
    return static_cast<std::uint64_t>(product) ^ static_cast<std::uint64_t>(product >> 64);
}

// A hash of the bytes of `id` that reads them 8 at a time: identities are
// short, and std::hash's byte-wise mixing was a fifth of a post's work.
std::uint32_t hashOf(const std::string& id) noexcept {
    constexpr std::uint64_t k0 = 0xa0761d6478bd642fULL;
    constexpr std::uint64_t k1 = 0xe7037ed1a0b428dbULL;
    constexpr std::uint64_t k2 = 0x8ebc6af09c88c6e3ULL;
    const char* p = id.data();
    std::size_t n = id.size();
    std::uint64_t seed = k0 ^ n;
    std::uint64_t a = 0;
    std::uint64_t b = 0;
    if (n <= 16) {
        if (n >= 8) {
            a = load64(p);
            b = load64(p + n - 8);
        } else if (n >= 4) {
            a = load32(p);
            b = load32(p + n - 4);
        } else if (n > 0) {
            a = (static_cast<std::uint64_t>(static_cast<unsigned char>(p[0])) << 16) |
                (static_cast<std::uint64_t>(static_cast<unsigned char>(p[n / 2])) << 8) |
                static_cast<unsigned char>(p[n - 1]);
        }
    } else {
        // 16 bytes at a time, then the last 16 (which may overlap the rest).
        const char* const end = p + n;
        while (end - p > 16) {
            seed = fold(load64(p) ^ k1, load64(p + 8) ^ seed);
            p += 16;
        }
        a = load64(end - 16);
        b = load64(end - 8);
    }
    const std::uint64_t h = fold(k2 ^ n, fold(a ^ k1, b ^ seed));
    return static_cast<std::uint32_t>(h ^ (h >> 32));
}

std::uint32_t identityHash(const std::string& id) noexcept {
#if defined(KEST_TEST_HOOKS)
    // Tests replace the hash to make strings collide.
    if (const detail::hooks::IdentityHash hook = detail::hooks::identityHash()) return hook(id);
#endif
    return hashOf(id);
}

}  // namespace

MessagesHandled::MessagesHandled() noexcept : historyLength_(DefaultHistoryLength) {
    static_assert(sizeof(Entry) == 32, "an entry is half a cache line");
    static_assert(Entry::kInline >= sizeof(char*) + sizeof(std::uint32_t), "a buffer's pointer and capacity fit");
    static_assert(std::is_trivially_copyable_v<Entry>, "entries are copied as bytes");
}

MessagesHandled::MessagesHandled(const MessagesHandled& other)
    : oldest_(other.oldest_), historyLength_(other.historyLength_) {
    if (other.buckets_.empty()) return;
    // Reserved as the original is, so that the copy never grows either.
    std::vector<std::uint32_t> buckets(other.buckets_);
    std::vector<Entry> ring;
    ring.reserve(historyLength_);
    try {
        for (const Entry& entry : other.ring_) {
            Entry copy = entry;
            if (entry.onHeap) {
                char* const buffer = new char[entry.capacity()];
                if (entry.size != 0) std::memcpy(buffer, entry.buffer(), entry.size);
                std::memcpy(copy.text, &buffer, sizeof buffer);
            }
            ring.push_back(copy);  // within the reserved capacity: cannot throw
        }
    } catch (...) {
        Entry::releaseAll(ring);
        throw;
    }
    ring_.swap(ring);
    buckets_.swap(buckets);
}

MessagesHandled& MessagesHandled::operator=(const MessagesHandled& other) {
    if (this != &other) {
        MessagesHandled copy(other);
        swap(copy);
    }
    return *this;
}

MessagesHandled::MessagesHandled(MessagesHandled&& other) noexcept : historyLength_(other.historyLength_) {
    swap(other);
}

MessagesHandled& MessagesHandled::operator=(MessagesHandled&& other) noexcept {
    if (this != &other) {
        // Our old history leaves with `taken`; `other` is left empty.
        MessagesHandled taken(std::move(other));
        swap(taken);
    }
    return *this;
}

MessagesHandled::~MessagesHandled() { Entry::releaseAll(ring_); }

void MessagesHandled::swap(MessagesHandled& other) noexcept {
    ring_.swap(other.ring_);
    std::swap(oldest_, other.oldest_);
    buckets_.swap(other.buckets_);
    std::swap(historyLength_, other.historyLength_);
}

// Defined inline: calls within the library then go straight to it, not
// through the exported symbol.
inline std::uint32_t MessagesHandled::find(const std::string& id, std::uint32_t hash,
                                           std::uint32_t& last) const noexcept {
    last = kNone;
    if (buckets_.empty()) return kNone;
    for (std::uint32_t at = buckets_[hash & (buckets_.size() - 1)]; at != kNone; at = ring_[at].next) {
        // The strings are compared only when the whole hash matches.
        const Entry& entry = ring_[at];
        if (entry.hash == hash && entry.equals(id)) return at;
        last = at;
    }
    return kNone;
}

bool MessagesHandled::isMessageHandled(const std::string& id) const {
    std::uint32_t last;
    const std::uint32_t found = find(id, identityHash(id), last);
    // An identity whose every half was forgotten keeps its place, unhandled.
    return found != kNone && ring_[found].scopes != 0;
}

void MessagesHandled::forgetMessage(const std::string& id, PostScope scope) noexcept {
    std::uint32_t last;
    const std::uint32_t found = find(id, identityHash(id), last);
    if (found == kNone) return;
    Entry& entry = ring_[found];
    entry.scopes = static_cast<std::uint8_t>(entry.scopes & ~static_cast<std::uint8_t>(scope));
}

bool MessagesHandled::isMessageHandled(const std::string& id) {
    return static_cast<const MessagesHandled&>(*this).isMessageHandled(id);
}

void MessagesHandled::reserveStorage() {
    // Built aside and swapped in, so that a failure leaves the history unused.
    std::vector<Entry> ring;
    ring.reserve(historyLength_);
    std::vector<std::uint32_t> buckets(bucketCountFor(historyLength_), kNone);
    ring_.swap(ring);
    buckets_.swap(buckets);
    oldest_ = 0;
}

bool MessagesHandled::handleMessage(const std::string& id) { return handleMessage(id, PostScope::Both); }

bool MessagesHandled::handleMessage(const std::string& id, PostScope scope) {
    const auto bits = static_cast<std::uint8_t>(scope);
    if (bits == 0 || (bits & ~static_cast<std::uint8_t>(PostScope::Both)) != 0) return false;
    const std::uint32_t hash = identityHash(id);
    std::uint32_t last;
    const std::uint32_t found = find(id, hash, last);
    if (found != kNone) {
        // A repeat in this half is refused; the other half is handled now.
        // Either way the string keeps its place.
        Entry& entry = ring_[found];
        if ((entry.scopes & bits) != 0) return false;
        entry.scopes = static_cast<std::uint8_t>(entry.scopes | bits);
        return true;
    }
    if (buckets_.empty()) reserveStorage();
    const std::size_t mask = buckets_.size() - 1;

    // Everything that can throw happens before the first change.
    std::uint32_t position;
    if (ring_.size() < historyLength_) {
        char* const fresh = Entry::bufferFor(nullptr, id);
        position = static_cast<std::uint32_t>(ring_.size());
        ring_.push_back(Entry{});  // within the reserved capacity: cannot throw
        ring_.back().store(id, fresh);
    } else {
        // Full: the newest takes the place of the oldest, which is forgotten.
        // Strings leave in the order they came, so the oldest is the first
        // of its bucket's chain.
        position = static_cast<std::uint32_t>(oldest_);
        Entry& entry = ring_[position];
        char* const fresh = Entry::bufferFor(&entry, id);
        buckets_[entry.hash & mask] = entry.next;
        if (last == position) last = kNone;  // it was the whole chain of the new bucket
        entry.store(id, fresh);
        oldest_ = oldest_ + 1 == ring_.size() ? 0 : oldest_ + 1;
    }
    Entry& entry = ring_[position];
    entry.hash = hash;
    entry.next = kNone;
    entry.scopes = bits;
    // The newest of its bucket: at the end of the chain.
    if (last == kNone) {
        buckets_[hash & mask] = position;
    } else {
        ring_[last].next = position;
    }
    return true;
}

}  // namespace Kest::Msgs
