#pragma once

// Hand-made MessagePack for the tests of decode(): the same layout that
// encode() writes, with any piece replaced, written with msgpack-cxx's packer.

#include <msgpack.hpp>

#include <cstdint>
#include <functional>
#include <string>

namespace KestTest {

using Packer = msgpack::packer<msgpack::sbuffer>;
using Piece = std::function<void(Packer&)>;

inline std::string packed(const Piece& write) {
    msgpack::sbuffer buffer;
    Packer packer(buffer);
    write(packer);
    return std::string(buffer.data(), buffer.size());
}

inline void packString(Packer& p, const std::string& text) {
    p.pack_str(static_cast<std::uint32_t>(text.size()));
    p.pack_str_body(text.data(), static_cast<std::uint32_t>(text.size()));
}

inline void goodVersion(Packer& p) {
    p.pack_array(2);
    p.pack_uint64(1);
    p.pack_uint64(0);
}

inline void goodEnvelope(Packer& p) {
    p.pack_array(5);
    packString(p, "origin");
    p.pack_uint64(7);
    p.pack_uint64(2);
    p.pack_uint64(3);
    p.pack_uint64(11);
}

// {"Id": 42, "Identity": "i-1", "Sender": ["a", "b"], "Value": -3}
inline void goodTree(Packer& p) {
    p.pack_map(4);
    packString(p, "Id");
    p.pack_uint64(42);
    packString(p, "Identity");
    packString(p, "i-1");
    packString(p, "Sender");
    p.pack_array(2);
    packString(p, "a");
    packString(p, "b");
    packString(p, "Value");
    p.pack_fix_int8(-3);
}

// [version, envelope, tree] with the given pieces.
inline std::string wireBytes(const Piece& version = goodVersion, const Piece& envelope = goodEnvelope,
                             const Piece& tree = goodTree) {
    return packed([&](Packer& p) {
        p.pack_array(3);
        version(p);
        envelope(p);
        tree(p);
    });
}

// A tree {"Id": 42, "Identity": "i-1", <name>: <value>}, the members in any
// order the map is written in.
inline Piece treeWith(const std::string& name, const Piece& value) {
    return [name, value](Packer& p) {
        p.pack_map(3);
        packString(p, "Id");
        p.pack_uint64(42);
        packString(p, "Identity");
        packString(p, "i-1");
        packString(p, name);
        value(p);
    };
}

}  // namespace KestTest
