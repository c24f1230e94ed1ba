// Fuzz target: decode() of arbitrary bytes.
//
// Whatever the input, decode either refuses it with WireError or returns a
// message, never anything else (a crash, a leak, another exception). When it
// returns one:
//  - the message's tree is what the bytes say: msgpack-cxx's own unpacker
//    reads the third item of the outer array and it is converted to a tree
//    independently of the library (each MessagePack kind to its element
//    kind); the message's copyToMetaData must give that tree, unless its
//    identifier is registered (a registered type keeps only its own fields).
//    The unpacker reads a signed format holding a value that is not
//    negative as a positive integer, so that one distinction is compared
//    as unsigned here; the second round below keeps it exact;
//  - encoding the message with its envelope succeeds, the bytes decode to a
//    message of the same type with the same tree and envelope, and encoding
//    that gives the same bytes again.

#include <kest/metadata/Element.h>
#include <kest/model/Message.h>
#include <kest/net/GenericMessage.h>
#include <kest/net/MessageTypes.h>
#include <kest/net/Wire.h>
#include <kest/net/WireError.h>

#include <support/TreeSupport.h>

#include "FuzzSupport.h"

#include <msgpack.hpp>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <typeinfo>

namespace {

using Kest::MetaData::Array;
using Kest::MetaData::Element;
using Kest::MetaData::Object;
using KestFuzz::check;
using KestFuzz::fail;

// The tree an unpacked MessagePack object spells, or false when it holds
// something no tree holds (decode accepted the bytes, so that is a failure).
bool toTree(const msgpack::object& object, Element& out) {
    switch (object.type) {
        case msgpack::type::NIL:
            out = Element();
            return true;
        case msgpack::type::BOOLEAN:
            out = Element(object.via.boolean);
            return true;
        case msgpack::type::POSITIVE_INTEGER:
            out = Element(static_cast<unsigned long>(object.via.u64));
            return true;
        case msgpack::type::NEGATIVE_INTEGER:
            out = Element(static_cast<long>(object.via.i64));
            return true;
        case msgpack::type::FLOAT32:
        case msgpack::type::FLOAT64:
            out = Element(object.via.f64);
            return true;
        case msgpack::type::STR:
            out = Element(std::string(object.via.str.ptr, object.via.str.size));
            return true;
        case msgpack::type::ARRAY: {
            Array array;
            for (std::uint32_t i = 0; i < object.via.array.size; ++i) {
                Element item;
                if (!toTree(object.via.array.ptr[i], item)) return false;
                array.push_back(std::move(item));
            }
            out = Element(array);
            return true;
        }
        case msgpack::type::MAP: {
            Element map(Object{});
            for (std::uint32_t i = 0; i < object.via.map.size; ++i) {
                const msgpack::object_kv& kv = object.via.map.ptr[i];
                if (kv.key.type != msgpack::type::STR) return false;
                if (!toTree(kv.val, map[std::string(kv.key.via.str.ptr, kv.key.via.str.size)])) return false;
            }
            if (static_cast<const Object&>(map).size() != object.via.map.size) return false;  // a name twice
            out = std::move(map);
            return true;
        }
        default:
            return false;
    }
}

// The tree with every signed integer that is not negative made unsigned, as
// msgpack-cxx's unpacker reads them.
Element asUnpacked(const Element& e) {
    switch (e.GetElementType()) {
        case Element::SignedType: {
            long value = 0;
            Kest::MetaData::GetAs(e, value);
            return value >= 0 ? Element(static_cast<unsigned long>(value)) : e;
        }
        case Element::ObjectType: {
            Element out(Object{});
            for (const auto& member : static_cast<const Object&>(e)) out[member.first] = asUnpacked(member.second);
            return out;
        }
        case Element::ArrayType: {
            Array out;
            for (const Element& item : static_cast<const Array&>(e)) out.push_back(asUnpacked(item));
            return Element(out);
        }
        default:
            return e;
    }
}

bool sameEnvelope(const Kest::Net::Envelope& a, const Kest::Net::Envelope& b) {
    return a.origin == b.origin && a.epoch == b.epoch && a.hops == b.hops && a.scope == b.scope &&
           a.sequence == b.sequence;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    // A registered type's reflectors may print diagnostics for malformed
    // fields; they are not what this target checks.
    KestFuzz::CapturedOutput silence;

    Kest::Net::Decoded first;
    try {
        first = Kest::Net::decodeWithEnvelope(bytes);
    } catch (const Kest::Net::WireError&) {
        return 0;
    }
    check(first.message != nullptr, "decode returned an empty message");
    const Element firstTree = KestTest::treeOf(*first.message);

    // What the bytes say, read by msgpack-cxx's unpacker.
    const msgpack::object_handle handle = msgpack::unpack(bytes.data(), bytes.size());
    const msgpack::object& outer = handle.get();
    check(outer.type == msgpack::type::ARRAY && outer.via.array.size >= 3, "accepted bytes are not [v, e, tree]");
    Element spelled;
    check(toTree(outer.via.array.ptr[2], spelled), "accepted a tree that holds what no tree holds");
    if (!Kest::Net::MessageTypes::known(first.message->id())) {
        check(dynamic_cast<const Kest::Net::GenericMessage*>(first.message.get()) != nullptr,
              "an unregistered identifier did not give a GenericMessage");
        if (!KestTest::sameTree(asUnpacked(firstTree), spelled)) {
            fail("decoded tree " + KestTest::describeTree(firstTree) + " differs from the bytes' " +
                 KestTest::describeTree(spelled));
        }
    }

    std::string again;
    try {
        again = Kest::Net::encode(*first.message, first.envelope);
    } catch (const Kest::Net::WireError& error) {
        fail(std::string("a decoded message could not be encoded: ") + error.what());
    }
    Kest::Net::Decoded second;
    try {
        second = Kest::Net::decodeWithEnvelope(again);
    } catch (const Kest::Net::WireError& error) {
        fail(std::string("re-encoded bytes were refused: ") + error.what());
    }
    const Kest::Msgs::Message& firstMessage = *first.message;
    const Kest::Msgs::Message& secondMessage = *second.message;
    check(typeid(secondMessage) == typeid(firstMessage), "the type changed on the second round");
    const Element secondTree = KestTest::treeOf(*second.message);
    if (!KestTest::sameTree(firstTree, secondTree)) {
        fail("tree changed on the second round: " + KestTest::describeTree(firstTree) + " then " +
             KestTest::describeTree(secondTree));
    }
    check(sameEnvelope(first.envelope, second.envelope), "the envelope changed on the second round");
    check(Kest::Net::encode(*second.message, second.envelope) == again, "encoding is not deterministic");
    return 0;
}
