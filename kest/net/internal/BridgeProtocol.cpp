#include <kest/net/internal/BridgeProtocol.h>

#include <msgpack.hpp>

#include <cstddef>
#include <exception>
#include <new>

namespace Kest::Net::detail {

namespace {

using Packer = msgpack::packer<msgpack::sbuffer>;

// What a control frame may hold: generous for a routing of many thousands of
// keys, small enough that a hostile frame cannot make the reader allocate
// much beyond its own size.
constexpr std::size_t kMaxItems = std::size_t{1} << 20;
constexpr std::size_t kMaxString = std::size_t{1} << 16;
constexpr std::size_t kMaxDepth = 8;

// A frame being written: the kind byte, then the body.
class Writer {
public:
    explicit Writer(FrameKind kind) : packer_(buffer_) {
        const char byte = static_cast<char>(kind);
        buffer_.write(&byte, 1);
    }
    Packer& packer() { return packer_; }
    void string(const std::string& text) {
        packer_.pack_str(static_cast<std::uint32_t>(text.size()));
        packer_.pack_str_body(text.data(), static_cast<std::uint32_t>(text.size()));
    }
    void key(const RouteKey& key) {
        packer_.pack_array(2);
        packer_.pack_uint64(key.first);
        packer_.pack_array(static_cast<std::uint32_t>(key.second.size()));
        for (const std::string& part : key.second) string(part);
    }
    void keys(const std::set<RouteKey>& keys) {
        packer_.pack_array(static_cast<std::uint32_t>(keys.size()));
        for (const RouteKey& k : keys) key(k);
    }
    void services(const std::map<RouteKey, std::uint64_t>& services) {
        packer_.pack_array(static_cast<std::uint32_t>(services.size()));
        for (const auto& [k, rank] : services) {
            packer_.pack_array(2);
            key(k);
            packer_.pack_uint64(rank);
        }
    }
    std::string frame() const { return std::string(buffer_.data(), buffer_.size()); }

private:
    msgpack::sbuffer buffer_;
    Packer packer_;
};

// Reading: each step checks the kind of the item and says whether it fit.
struct Malformed {};

const msgpack::object& item(const msgpack::object& array, std::uint32_t index) {
    if (array.type != msgpack::type::ARRAY || index >= array.via.array.size) throw Malformed();
    return array.via.array.ptr[index];
}

std::uint64_t unsignedOf(const msgpack::object& o) {
    if (o.type != msgpack::type::POSITIVE_INTEGER) throw Malformed();
    return o.via.u64;
}

bool booleanOf(const msgpack::object& o) {
    if (o.type != msgpack::type::BOOLEAN) throw Malformed();
    return o.via.boolean;
}

std::string stringOf(const msgpack::object& o) {
    if (o.type != msgpack::type::STR) throw Malformed();
    return std::string(o.via.str.ptr, o.via.str.size);
}

const msgpack::object_array& arrayOf(const msgpack::object& o) {
    if (o.type != msgpack::type::ARRAY) throw Malformed();
    return o.via.array;
}

RouteKey keyOf(const msgpack::object& o) {
    RouteKey key;
    key.first = unsignedOf(item(o, 0));
    const msgpack::object_array& address = arrayOf(item(o, 1));
    key.second.reserve(address.size);
    for (std::uint32_t i = 0; i < address.size; ++i) key.second.push_back(stringOf(address.ptr[i]));
    return key;
}

std::set<RouteKey> keysOf(const msgpack::object& o) {
    std::set<RouteKey> keys;
    const msgpack::object_array& array = arrayOf(o);
    for (std::uint32_t i = 0; i < array.size; ++i) {
        if (!keys.insert(keyOf(array.ptr[i])).second) throw Malformed();  // a key twice
    }
    return keys;
}

std::map<RouteKey, std::uint64_t> servicesOf(const msgpack::object& o) {
    std::map<RouteKey, std::uint64_t> services;
    const msgpack::object_array& array = arrayOf(o);
    for (std::uint32_t i = 0; i < array.size; ++i) {
        const msgpack::object& entry = array.ptr[i];
        if (!services.emplace(keyOf(item(entry, 0)), unsignedOf(item(entry, 1))).second) throw Malformed();
    }
    return services;
}

// Parses `body` and hands its top-level array to `read` when its first item
// is our major version.
template <class T, class Read>
std::optional<T> decodeBody(std::string_view body, Read&& read) {
    try {
        std::size_t offset = 0;
        msgpack::object_handle handle =
            msgpack::unpack(body.data(), body.size(), offset, nullptr, nullptr,
                            msgpack::unpack_limit(kMaxItems, kMaxItems, kMaxString, 0, 0, kMaxDepth));
        if (offset != body.size()) return std::nullopt;
        const msgpack::object& top = handle.get();
        if (unsignedOf(item(top, 0)) != kProtocolVersion) return std::nullopt;
        T result;
        read(top, result);
        return result;
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const Malformed&) {
        return std::nullopt;
    } catch (const std::exception&) {  // msgpack's parse and limit errors
        return std::nullopt;
    }
}

}  // namespace

std::string encodeHello(const Hello& hello) {
    Writer w(FrameKind::Hello);
    Packer& p = w.packer();
    p.pack_array(12);
    p.pack_uint64(kProtocolVersion);
    w.string(hello.id);
    p.pack_uint64(hello.epoch);
    w.string(hello.key);
    p.pack_uint64(hello.token);
    p.pack_uint64(hello.echo);
    p.pack_uint64(hello.yourEpoch);
    p.pack_uint64(hello.dataSequence);
    p.pack_uint64(hello.routingSequence);
    if (hello.haveYourRouting) p.pack_true(); else p.pack_false();
    p.pack_uint64(hello.yourRoutingSequence);
    p.pack_array(static_cast<std::uint32_t>(hello.peers.size()));
    for (const KnownPeer& peer : hello.peers) {
        p.pack_array(2);
        w.string(peer.id);
        w.string(peer.key);
    }
    return w.frame();
}

std::optional<Hello> decodeHello(std::string_view body) {
    return decodeBody<Hello>(body, [](const msgpack::object& top, Hello& h) {
        h.id = stringOf(item(top, 1));
        h.epoch = unsignedOf(item(top, 2));
        h.key = stringOf(item(top, 3));
        h.token = unsignedOf(item(top, 4));
        h.echo = unsignedOf(item(top, 5));
        h.yourEpoch = unsignedOf(item(top, 6));
        h.dataSequence = unsignedOf(item(top, 7));
        h.routingSequence = unsignedOf(item(top, 8));
        h.haveYourRouting = booleanOf(item(top, 9));
        h.yourRoutingSequence = unsignedOf(item(top, 10));
        const msgpack::object_array& peers = arrayOf(item(top, 11));
        h.peers.reserve(peers.size);
        for (std::uint32_t i = 0; i < peers.size; ++i) {
            h.peers.push_back(KnownPeer{stringOf(item(peers.ptr[i], 0)), stringOf(item(peers.ptr[i], 1))});
        }
    });
}

std::string encodeBye(const Bye& bye) {
    Writer w(FrameKind::Bye);
    w.packer().pack_array(3);
    w.packer().pack_uint64(kProtocolVersion);
    w.string(bye.id);
    w.packer().pack_uint64(bye.epoch);
    return w.frame();
}

std::optional<Bye> decodeBye(std::string_view body) {
    return decodeBody<Bye>(body, [](const msgpack::object& top, Bye& b) {
        b.id = stringOf(item(top, 1));
        b.epoch = unsignedOf(item(top, 2));
    });
}

std::string encodeResync(const Resync& resync) {
    Writer w(FrameKind::Resync);
    w.packer().pack_array(4);
    w.packer().pack_uint64(kProtocolVersion);
    w.string(resync.id);
    w.packer().pack_uint64(resync.epoch);
    w.packer().pack_uint64(resync.yourEpoch);
    return w.frame();
}

std::optional<Resync> decodeResync(std::string_view body) {
    return decodeBody<Resync>(body, [](const msgpack::object& top, Resync& r) {
        r.id = stringOf(item(top, 1));
        r.epoch = unsignedOf(item(top, 2));
        r.yourEpoch = unsignedOf(item(top, 3));
    });
}

std::string encodeRoutingUpdate(FrameKind kind, const RoutingUpdate& update) {
    Writer w(kind);
    Packer& p = w.packer();
    const bool delta = kind == FrameKind::Delta;
    p.pack_array(delta ? 8 : 6);
    p.pack_uint64(kProtocolVersion);
    w.string(update.id);
    p.pack_uint64(update.epoch);
    p.pack_uint64(update.sequence);
    w.keys(update.routing.subscriptions);
    w.services(update.routing.services);
    if (delta) {
        w.keys(update.removedSubscriptions);
        w.keys(update.removedServices);
    }
    return w.frame();
}

std::optional<RoutingUpdate> decodeRoutingUpdate(FrameKind kind, std::string_view body) {
    const bool delta = kind == FrameKind::Delta;
    return decodeBody<RoutingUpdate>(body, [delta](const msgpack::object& top, RoutingUpdate& u) {
        u.id = stringOf(item(top, 1));
        u.epoch = unsignedOf(item(top, 2));
        u.sequence = unsignedOf(item(top, 3));
        u.routing.subscriptions = keysOf(item(top, 4));
        u.routing.services = servicesOf(item(top, 5));
        if (delta) {
            u.removedSubscriptions = keysOf(item(top, 6));
            u.removedServices = keysOf(item(top, 7));
        }
    });
}

std::string encodeAck(const Ack& ack) {
    Writer w(FrameKind::Ack);
    w.packer().pack_array(5);
    w.packer().pack_uint64(kProtocolVersion);
    w.string(ack.id);
    w.packer().pack_uint64(ack.epoch);
    w.packer().pack_uint64(ack.yourEpoch);
    w.packer().pack_uint64(ack.sequence);
    return w.frame();
}

std::optional<Ack> decodeAck(std::string_view body) {
    return decodeBody<Ack>(body, [](const msgpack::object& top, Ack& a) {
        a.id = stringOf(item(top, 1));
        a.epoch = unsignedOf(item(top, 2));
        a.yourEpoch = unsignedOf(item(top, 3));
        a.sequence = unsignedOf(item(top, 4));
    });
}

void difference(const Routing& from, const Routing& to, RoutingUpdate& delta) {
    for (const RouteKey& key : to.subscriptions) {
        if (from.subscriptions.count(key) == 0) delta.routing.subscriptions.insert(key);
    }
    for (const RouteKey& key : from.subscriptions) {
        if (to.subscriptions.count(key) == 0) delta.removedSubscriptions.insert(key);
    }
    for (const auto& [key, rank] : to.services) {
        auto old = from.services.find(key);
        if (old == from.services.end() || old->second != rank) delta.routing.services.emplace(key, rank);
    }
    for (const auto& entry : from.services) {
        if (to.services.count(entry.first) == 0) delta.removedServices.insert(entry.first);
    }
}

}  // namespace Kest::Net::detail
