#include <kest/net/Wire.h>

#include <kest/metadata/Element.h>
#include <kest/net/GenericMessage.h>
#include <kest/net/MessageTypes.h>

#include <msgpack.hpp>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <optional>
#include <string>
#include <typeinfo>
#include <utility>
#include <vector>

namespace Kest::Net {

namespace {

using Kest::MetaData::Array;
using Kest::MetaData::Element;
using Kest::MetaData::Object;
using Kest::Msgs::Identifier;
using Kest::Msgs::Message;

constexpr std::uint32_t kEnvelopeItems = 5;
constexpr std::uint32_t kOuterItems = 3;

// The names of Message's own fields in a tree, in name order (the order of
// an Object's members, and so of the encoded map).
enum class Field : std::uint8_t { Destination, Id, Identity, Sender, None };
constexpr const char* kFieldNames[] = {"Destination", "Id", "Identity", "Sender"};

Field fieldNamed(const char* name, std::size_t size) {
    const std::string_view key(name, size);
    for (std::uint8_t i = 0; i < 4; ++i) {
        if (key == kFieldNames[i]) return static_cast<Field>(i);
    }
    return Field::None;
}

[[noreturn]] void encodeError(const std::string& what) {
    throw WireError("Kest::Net::encode: " + what);
}

// ---------------------------------------------------------------------------
// Writing

// The packer's stream: writes into a string that the caller owns, which it
// grows by doubling and trims once at the end. Appending would go through
// std::string's out-of-line append for every one- to nine-byte piece the
// packer writes, which took a third of the time of writing a tree.
class StringSink {
public:
    explicit StringSink(std::string& out) : out_(&out) { out_->clear(); }
    StringSink(const StringSink&) = delete;
    StringSink& operator=(const StringSink&) = delete;

    __attribute__((always_inline)) void write(const char* data, std::size_t size) {
        if (size == 0) return;  // `data` may then be null, which memcpy must not get
        if (__builtin_expect(size > out_->size() - used_, 0)) grow(size);
        std::memcpy(&(*out_)[used_], data, size);
        used_ += size;
    }

    // Trims the string to what was written.
    void finish() { out_->resize(used_); }

private:
    __attribute__((noinline)) void grow(std::size_t size) {
        // Within the capacity a string kept from an earlier message has,
        // resizing allocates nothing.
        out_->resize(std::max({out_->capacity(), 2 * out_->size(), used_ + size, std::size_t{256}}));
    }

    std::string* out_;
    std::size_t used_ = 0;
};

[[noreturn]] __attribute__((noinline, cold)) void tooLarge(std::size_t count, const char* what) {
    encodeError(std::string(what) + " of " + std::to_string(count) + " is more than the format can hold (2^32 - 1)");
}

std::uint32_t checkedCount(std::size_t count, const char* what) {
    if (count > std::numeric_limits<std::uint32_t>::max()) tooLarge(count, what);
    return static_cast<std::uint32_t>(count);
}

class Writer {
public:
    explicit Writer(std::string& out) : sink_(out), packer_(sink_) {}

    void finish() { sink_.finish(); }

    void str(const char* data, std::size_t size) {
        const std::uint32_t length = checkedCount(size, "a string");
        packer_.pack_str(length);
        packer_.pack_str_body(data, length);
    }
    void str(const std::string& text) { str(text.data(), text.size()); }

    void unsignedNumber(std::uint64_t value) { packer_.pack_uint64(value); }

    // Always a signed format, so that the reader sees a signed integer even
    // for a value that is not negative.
    void signedNumber(std::int64_t value) {
        if (value >= -32 && value < 0) {
            packer_.pack_int8(static_cast<std::int8_t>(value));  // negative fixint
        } else if (value >= std::numeric_limits<std::int8_t>::min() &&
                   value <= std::numeric_limits<std::int8_t>::max()) {
            packer_.pack_fix_int8(static_cast<std::int8_t>(value));
        } else if (value >= std::numeric_limits<std::int16_t>::min() &&
                   value <= std::numeric_limits<std::int16_t>::max()) {
            packer_.pack_fix_int16(static_cast<std::int16_t>(value));
        } else if (value >= std::numeric_limits<std::int32_t>::min() &&
                   value <= std::numeric_limits<std::int32_t>::max()) {
            packer_.pack_fix_int32(static_cast<std::int32_t>(value));
        } else {
            packer_.pack_fix_int64(value);
        }
    }

    // Always float64. The packer's pack_double writes a double that holds
    // a whole number as an integer, which would change its kind.
    void float64(double value) {
        std::uint64_t bits = 0;
        std::memcpy(&bits, &value, sizeof bits);
        bits = __builtin_bswap64(bits);  // big-endian, as MessagePack writes numbers
        char bytes[9];
        bytes[0] = static_cast<char>(0xcb);
        std::memcpy(bytes + 1, &bits, sizeof bits);
        sink_.write(bytes, sizeof bytes);
    }

    void array(std::size_t count) { packer_.pack_array(checkedCount(count, "an array")); }
    void map(std::size_t count) { packer_.pack_map(checkedCount(count, "an object")); }

    void address(const std::vector<std::string>& parts) {
        array(parts.size());
        for (const std::string& part : parts) str(part);
    }

    void header(const Envelope& envelope) {
        array(kOuterItems);
        array(2);
        unsignedNumber(kFormatMajor);
        unsignedNumber(kFormatMinor);
        const auto scope = static_cast<std::uint8_t>(envelope.scope);
        if (scope < 1 || scope > 3) {
            encodeError("the envelope's scope " + std::to_string(scope) + " is not 1, 2 or 3");
        }
        array(kEnvelopeItems);
        str(envelope.origin);
        unsignedNumber(envelope.epoch);
        unsignedNumber(envelope.hops);
        unsignedNumber(scope);
        unsignedNumber(envelope.sequence);
    }

    void element(const Element& element) {
        switch (element.GetElementType()) {
            case Element::EmptyType:
                packer_.pack_nil();
                return;
            case Element::NumberType: {
                unsigned long value = 0;
                Kest::MetaData::GetAs(element, value);
                unsignedNumber(value);
                return;
            }
            case Element::SignedType: {
                long value = 0;
                Kest::MetaData::GetAs(element, value);
                signedNumber(value);
                return;
            }
            case Element::FloatType: {
                double value = 0.0;
                Kest::MetaData::GetAs(element, value);
                float64(value);
                return;
            }
            case Element::BooleanType: {
                bool value = false;
                Kest::MetaData::GetAs(element, value);
                if (value) {
                    packer_.pack_true();
                } else {
                    packer_.pack_false();
                }
                return;
            }
            case Element::StringType:
                // The tree lends no reference to its text; one scratch string
                // keeps the copy free of allocation after the first few.
                Kest::MetaData::GetAs(element, scratch_);
                str(scratch_);
                return;
            case Element::ObjectType: {
                const Object& object = element;
                map(object.size());
                for (const auto& member : object) {
                    str(member.first);
                    this->element(member.second);
                }
                return;
            }
            case Element::ArrayType: {
                const Array& items = element;
                array(items.size());
                for (const Element& item : items) this->element(item);
                return;
            }
            default:
                encodeError("a tree element of unknown kind " + std::to_string(element.GetElementType()));
        }
    }

private:
    StringSink sink_;
    msgpack::packer<StringSink> packer_;
    std::string scratch_;
};

// Whether the message's identifier field holds a value (a tree copy may
// have left it unset, though id() then reads 0).
bool identifierIsSet(const Message& message) {
    bool set = false;
    message.forEachField([&set](const Kest::MetaData::ReflectorBase& field) {
        if (field.name() == "Id") set = field.initialized();
    });
    return set;
}

// Writes the tree of a Message or GenericMessage from its fields directly,
// without building the tree first: the Message fields that are set, merged
// in name order with the members of `payload` (which never holds their
// names). The bytes are those that writing copyToMetaData's tree gives.
void writeMessageTree(Writer& writer, const Message& message, const Object* payload) {
    if (!identifierIsSet(message)) encodeError("the message has no identifier (field \"Id\" is unset)");
    if (!message.identity.initialized()) encodeError("the message has no identity (field \"Identity\" is unset)");

    Field present[4];
    std::size_t count = 0;
    if (message.destination.initialized()) present[count++] = Field::Destination;
    present[count++] = Field::Id;
    present[count++] = Field::Identity;
    if (message.sender.initialized()) present[count++] = Field::Sender;

    auto writeField = [&](Field field) {
        writer.str(kFieldNames[static_cast<int>(field)]);
        switch (field) {
            case Field::Destination: writer.address(message.destination()); break;
            case Field::Id: writer.unsignedNumber(static_cast<unsigned long>(message.id())); break;
            case Field::Identity: writer.str(message.identity()); break;
            case Field::Sender: writer.address(message.sender()); break;
            case Field::None: break;
        }
    };

    writer.map(count + (payload != nullptr ? payload->size() : 0));
    std::size_t next = 0;
    if (payload != nullptr) {
        for (const auto& member : *payload) {
            while (next < count && member.first > kFieldNames[static_cast<int>(present[next])]) {
                writeField(present[next++]);
            }
            writer.str(member.first);
            writer.element(member.second);
        }
    }
    while (next < count) writeField(present[next++]);
}

bool isStringArray(const Element& element) {
    if (element.GetElementType() != Element::ArrayType) return false;
    for (const Element& item : static_cast<const Array&>(element)) {
        if (item.GetElementType() != Element::StringType) return false;
    }
    return true;
}

// The tree of any other message, checked as a receiver would check it.
void writeCopiedTree(Writer& writer, const Message& message) {
    Element tree;
    message.copyToMetaData(tree);
    if (tree.GetElementType() != Element::ObjectType) encodeError("the message wrote no fields");
    const Object& object = tree;
    auto member = [&object](const char* name) -> const Element* {
        auto it = object.begin();
        for (; it != object.end(); ++it) {
            if (it->first == name) return &it->second;
        }
        return nullptr;
    };
    const Element* id = member("Id");
    if (id == nullptr || id->GetElementType() != Element::NumberType) {
        encodeError("the message has no identifier (no unsigned \"Id\" in its tree)");
    }
    const Element* identity = member("Identity");
    if (identity == nullptr || identity->GetElementType() != Element::StringType) {
        encodeError("the message has no identity (no string \"Identity\" in its tree)");
    }
    for (const char* name : {"Sender", "Destination"}) {
        const Element* address = member(name);
        if (address != nullptr && !isStringArray(*address)) {
            encodeError(std::string("the message's \"") + name + "\" is not an array of strings");
        }
    }
    writer.element(tree);
}

// ---------------------------------------------------------------------------
// Reading

// A msgpack visitor that reads the outer array, the version, the envelope
// and the tree as they stream past, checking each item's kind and every
// limit before anything is stored or allocated. A refusal records its reason
// and stops the parser (the visitor returns false).
class Reader {
public:
    Reader(std::size_t size, const Limits& limits) : size_(size), limits_(limits) {
        payload_ = Element(Object());
        // The frame stack of the thread's previous decode, so that a decode
        // allocates none. Taken, not shared: a decode started from inside
        // this one (a registered type's constructor may decode) finds none
        // and makes its own.
        stack_.swap(spareStack());
        stack_.clear();
        if (stack_.capacity() < 16) stack_.reserve(16);
    }
    ~Reader() {
        if (stack_.capacity() <= 256) stack_.swap(spareStack());
    }
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

    // Results, valid after a successful parse.
    Envelope envelope;
    bool haveId = false;
    unsigned long id = 0;
    std::optional<std::string> identity;
    std::optional<std::vector<std::string>> sender;
    std::optional<std::vector<std::string>> destination;
    Element& payload() { return payload_; }

    // Why the parse stopped, when the visitor stopped it.
    const std::string& refusal() const { return refusal_; }
    // Set by the parser for malformed or truncated input.
    bool parseError = false;
    bool truncated = false;
    std::size_t errorOffset = 0;

    // ---- msgpack visitor interface ----

    // A scalar is stored into the fresh, empty element made for it, through
    // SetAs: no temporary element to move in and destroy.
    bool visit_nil() { return scalar(Kind::Nil, [](Element&) {}); }

    bool visit_boolean(bool value) {
        return scalar(Kind::Boolean, [value](Element& e) { Kest::MetaData::SetAs<bool>(value, e); });
    }

    bool visit_positive_integer(std::uint64_t value) {
        const Place place = where();
        switch (place.slot) {
            case Slot::Version:
                if (place.index == 0) {
                    major_ = value;
                } else {
                    minor_ = value;
                }
                return true;
            case Slot::EnvelopeItem:
                return envelopeNumber(place.index, value);
            case Slot::FieldValue:
                if (place.field != Field::Id) return wrongKind(place, Kind::Unsigned);
                id = value;
                haveId = true;
                return true;
            default:
                return scalar(place, Kind::Unsigned,
                              [value](Element& e) { Kest::MetaData::SetAs<unsigned long>(value, e); });
        }
    }

    bool visit_negative_integer(std::int64_t value) {
        return scalar(Kind::Signed, [value](Element& e) { Kest::MetaData::SetAs<long>(value, e); });
    }

    bool visit_float32(float value) {
        return scalar(Kind::Float, [value](Element& e) { Kest::MetaData::SetAs<float>(value, e); });
    }

    bool visit_float64(double value) {
        return scalar(Kind::Float, [value](Element& e) { Kest::MetaData::SetAs<double>(value, e); });
    }

    bool visit_str(const char* data, std::uint32_t size) {
        // An empty str may come with a null pointer.
        if (size == 0) data = "";
        const Place place = where();
        switch (place.slot) {
            case Slot::EnvelopeItem:
                if (place.index == 0) {
                    envelope.origin.assign(data, size);
                    return true;
                }
                if (place.index >= kEnvelopeItems) return true;
                return wrongKind(place, Kind::String);
            case Slot::FieldValue:
                if (place.field != Field::Identity) return wrongKind(place, Kind::String);
                identity.emplace(data, size);
                return true;
            case Slot::AddressItem:
                currentAddress().emplace_back(data, size);
                return true;
            case Slot::TreeRootKey:
                return treeRootKey(data, size);
            case Slot::TreeKey:
                return treeKey(data, size);
            default:
                return scalar(place, Kind::String, [this, data, size](Element& e) {
                    scratch_.assign(data, size);
                    Kest::MetaData::SetAs<std::string>(scratch_, e);
                });
        }
    }

    bool visit_bin(const char*, std::uint32_t) {
        return refuse("a bin value (binary data is not a kind of tree element; strings carry any bytes)");
    }

    bool visit_ext(const char*, std::uint32_t) { return refuse("an ext value (not a kind of tree element)"); }

    bool start_array(std::uint32_t count) {
        if (!enter()) return false;
        if (count > limits_.maxElementsPerArray) {
            return refuse("an array of " + std::to_string(count) + " elements (the limit is " +
                          std::to_string(limits_.maxElementsPerArray) + ")");
        }
        if (!announce(count)) return false;
        const Place place = where();
        Frame frame{};
        frame.field = Field::None;
        frame.isMap = false;
        frame.size = count;
        switch (place.slot) {
            case Slot::None:
                if (count < kOuterItems) {
                    return refuse("an outer array of " + std::to_string(count) + " items (expected [version, envelope, tree])");
                }
                frame.role = Role::Outer;
                break;
            case Slot::OuterVersion:
                if (count != 2) return refuse("a version of " + std::to_string(count) + " items (expected [major, minor])");
                frame.role = Role::Version;
                break;
            case Slot::OuterEnvelope:
                if (count < kEnvelopeItems) {
                    return refuse("an envelope of " + std::to_string(count) + " items (expected " +
                                  std::to_string(kEnvelopeItems) + ")");
                }
                if (count > kEnvelopeItems && !newerMinor()) {
                    return refuse("an envelope of " + std::to_string(count) + " items in format " + version() +
                                  " (expected " + std::to_string(kEnvelopeItems) + ")");
                }
                frame.role = Role::Envelope;
                break;
            case Slot::FieldValue:
                if (place.field != Field::Sender && place.field != Field::Destination) {
                    return wrongKind(place, Kind::Array);
                }
                frame.role = Role::Address;
                frame.address = place.field;
                addressFor(place.field).emplace().reserve(count);
                break;
            case Slot::TreeValue: {
                frame.role = Role::Tree;
                Array& array = *place.target;  // turns the new, empty element into an array
                array.resize(count);
                frame.array = &array;
                break;
            }
            case Slot::Skip:
            case Slot::EnvelopeItem:  // an unknown trailing item of a newer minor version
                if (place.slot == Slot::EnvelopeItem && place.index < kEnvelopeItems) {
                    return wrongKind(place, Kind::Array);
                }
                frame.role = Role::Skip;
                break;
            default:
                return wrongKind(place, Kind::Array);
        }
        stack_.push_back(frame);
        return true;
    }

    bool start_map(std::uint32_t count) {
        if (!enter()) return false;
        if (count > limits_.maxMembersPerObject) {
            return refuse("an object of " + std::to_string(count) + " members (the limit is " +
                          std::to_string(limits_.maxMembersPerObject) + ")");
        }
        // A key and a value for each member.
        if (!announce(std::uint64_t{count} * 2)) return false;
        const Place place = where();
        Frame frame{};
        frame.field = Field::None;
        frame.isMap = true;
        frame.size = count;
        switch (place.slot) {
            case Slot::OuterTree:
                frame.role = Role::TreeRoot;
                break;
            case Slot::TreeValue:
                frame.role = Role::Tree;
                // An empty map still makes an object; members make it one as
                // they are added.
                if (count == 0) *place.target = Element(Object());
                frame.object = place.target;
                break;
            case Slot::Skip:
            case Slot::EnvelopeItem:
                if (place.slot == Slot::EnvelopeItem && place.index < kEnvelopeItems) {
                    return wrongKind(place, Kind::Map);
                }
                frame.role = Role::Skip;
                break;
            default:
                return wrongKind(place, Kind::Map);
        }
        stack_.push_back(frame);
        return true;
    }

    bool start_array_item() { return true; }
    bool end_array_item() {
        ++stack_.back().index;
        return true;
    }
    bool end_array() { return leave(); }

    bool start_map_key() {
        stack_.back().inKey = true;
        return true;
    }
    bool end_map_key() { return true; }
    bool start_map_value() {
        stack_.back().inKey = false;
        return true;
    }
    bool end_map_value() {
        Frame& frame = stack_.back();
        ++frame.index;
        frame.field = Field::None;
        frame.target = nullptr;
        return true;
    }
    bool end_map() { return leave(); }

    void parse_error(std::size_t, std::size_t offset) {
        parseError = true;
        errorOffset = offset;
    }
    void insufficient_bytes(std::size_t, std::size_t offset) {
        truncated = true;
        errorOffset = offset;
    }
    bool referenced() const { return false; }
    void set_referenced(bool) {}

private:
    enum class Role : std::uint8_t { Outer, Version, Envelope, TreeRoot, Address, Tree, Skip };
    enum class Kind : std::uint8_t { Nil, Boolean, Unsigned, Signed, Float, String, Array, Map };

    // Where the value being read goes.
    enum class Slot : std::uint8_t {
        None,           // the outer array itself
        OuterVersion,   // outer item 0
        OuterEnvelope,  // outer item 1
        OuterTree,      // outer item 2
        Version,        // an item of the version
        EnvelopeItem,   // an item of the envelope (index says which)
        TreeRootKey,    // a member name of the tree's top level
        FieldValue,     // the value of a Message field (field says which)
        AddressItem,    // a part of a sender or destination address
        TreeKey,        // a member name below the top level
        TreeValue,      // a tree element (target says where it goes)
        Skip,           // inside an item a newer minor version added
    };

    struct Frame {
        Role role;
        bool isMap;
        bool inKey;
        Field field;             // TreeRoot: the Message field whose value comes next
        Field address;           // Address: which one
        std::uint32_t size;
        std::uint32_t index;
        Element* object;         // Tree map: the object the members go into
        Array* array;            // Tree array: its elements, made at the start
        Element* target;         // map: where the value of the current member goes
    };

    struct Place {
        Slot slot;
        std::uint32_t index;
        Field field;
        Element* target;
    };

    static const char* kindName(Kind kind) {
        switch (kind) {
            case Kind::Nil: return "nil";
            case Kind::Boolean: return "a boolean";
            case Kind::Unsigned: return "an unsigned integer";
            case Kind::Signed: return "a signed integer";
            case Kind::Float: return "a floating-point number";
            case Kind::String: return "a string";
            case Kind::Array: return "an array";
            case Kind::Map: return "a map";
        }
        return "?";
    }

    Place where() const {
        Place place{Slot::None, 0, Field::None, nullptr};
        if (stack_.empty()) return place;
        const Frame& frame = stack_.back();
        place.index = frame.index;
        switch (frame.role) {
            case Role::Outer:
                place.slot = frame.index == 0   ? Slot::OuterVersion
                             : frame.index == 1 ? Slot::OuterEnvelope
                             : frame.index == 2 ? Slot::OuterTree
                                                : Slot::Skip;
                break;
            case Role::Version: place.slot = Slot::Version; break;
            case Role::Envelope: place.slot = Slot::EnvelopeItem; break;
            case Role::TreeRoot:
                if (frame.inKey) {
                    place.slot = Slot::TreeRootKey;
                } else if (frame.field != Field::None) {
                    place.slot = Slot::FieldValue;
                    place.field = frame.field;
                } else {
                    place.slot = Slot::TreeValue;
                    place.target = frame.target;
                }
                break;
            case Role::Address: place.slot = Slot::AddressItem; place.field = frame.address; break;
            case Role::Tree:
                if (frame.isMap) {
                    place.slot = frame.inKey ? Slot::TreeKey : Slot::TreeValue;
                    place.target = frame.target;
                } else {
                    place.slot = Slot::TreeValue;
                    place.target = &(*frame.array)[frame.index];
                }
                break;
            case Role::Skip: place.slot = Slot::Skip; break;
        }
        return place;
    }

    std::string describe(const Place& place) const {
        switch (place.slot) {
            case Slot::None: return "the outer item (expected an array)";
            case Slot::OuterVersion: return "the format version (expected [major, minor])";
            case Slot::OuterEnvelope: return "the envelope (expected an array)";
            case Slot::OuterTree: return "the message's tree (expected a map)";
            case Slot::Version: return "the format version's numbers (expected unsigned integers)";
            case Slot::EnvelopeItem: {
                static const char* const items[] = {
                    "the envelope's origin (expected a string)", "the envelope's epoch (expected an unsigned integer)",
                    "the envelope's hop count (expected an unsigned integer)",
                    "the envelope's scope (expected an unsigned integer)",
                    "the envelope's sequence number (expected an unsigned integer)"};
                return place.index < kEnvelopeItems ? items[place.index] : "an envelope item";
            }
            case Slot::TreeRootKey:
            case Slot::TreeKey: return "a member name (expected a string)";
            case Slot::FieldValue:
                switch (place.field) {
                    case Field::Id: return "the message's \"Id\" (expected an unsigned integer)";
                    case Field::Identity: return "the message's \"Identity\" (expected a string)";
                    case Field::Sender: return "the message's \"Sender\" (expected an array of strings)";
                    case Field::Destination: return "the message's \"Destination\" (expected an array of strings)";
                    case Field::None: break;
                }
                return "a field";
            case Slot::AddressItem:
                return std::string("a part of the message's \"") + kFieldNames[static_cast<int>(place.field)] +
                       "\" (expected a string)";
            default: return "a tree element";
        }
    }

    bool refuse(const std::string& why) {
        if (refusal_.empty()) refusal_ = why;
        return false;
    }

    bool wrongKind(const Place& place, Kind found) {
        return refuse(std::string(kindName(found)) + " as " + describe(place));
    }

    // A scalar of `kind` that only a tree element may be (or an ignored item).
    template <class Store>
    bool scalar(Kind kind, Store store) {
        return scalar(where(), kind, store);
    }

    template <class Store>
    bool scalar(const Place& place, Kind kind, Store store) {
        switch (place.slot) {
            case Slot::TreeValue:
                store(*place.target);
                return true;
            case Slot::Skip:
                return true;
            case Slot::EnvelopeItem:
                if (place.index >= kEnvelopeItems) return true;
                return wrongKind(place, kind);
            default:
                return wrongKind(place, kind);
        }
    }

    bool envelopeNumber(std::uint32_t index, std::uint64_t value) {
        switch (index) {
            case 0:
                return wrongKind(Place{Slot::EnvelopeItem, 0, Field::None, nullptr}, Kind::Unsigned);
            case 1:
                envelope.epoch = value;
                return true;
            case 2:
                if (value > std::numeric_limits<std::uint32_t>::max()) {
                    return refuse("a hop count of " + std::to_string(value) + " (more than 2^32 - 1)");
                }
                envelope.hops = static_cast<std::uint32_t>(value);
                return true;
            case 3:
                if (value < 1 || value > 3) return refuse("a scope of " + std::to_string(value) + " (expected 1, 2 or 3)");
                envelope.scope = static_cast<Scope>(value);
                return true;
            case 4:
                envelope.sequence = value;
                return true;
            default:
                return true;  // a newer minor version's item
        }
    }

    bool treeRootKey(const char* data, std::uint32_t size) {
        Frame& frame = stack_.back();
        const Field field = fieldNamed(data, size);
        if (field != Field::None) {
            const unsigned bit = 1u << static_cast<unsigned>(field);
            if ((fieldsSeen_ & bit) != 0) return duplicate(data, size);
            fieldsSeen_ |= bit;
            frame.field = field;
            return true;
        }
        return addMember(payload_, frame, data, size);
    }

    bool treeKey(const char* data, std::uint32_t size) {
        Frame& frame = stack_.back();
        return addMember(*frame.object, frame, data, size);
    }

    bool addMember(Element& object, Frame& frame, const char* data, std::uint32_t size) {
        // A member name seen before finds its member instead of adding one,
        // which the count of members shows.
        const std::size_t before =
            object.GetElementType() == Element::ObjectType ? static_cast<const Object&>(object).size() : 0;
        Element& member = object[std::string(data, size)];
        if (static_cast<const Object&>(object).size() == before) return duplicate(data, size);
        frame.target = &member;
        return true;
    }

    bool duplicate(const char* data, std::uint32_t size) {
        return refuse("the member name \"" + std::string(data, size) + "\" twice in one map");
    }

    std::vector<std::string>& currentAddress() {
        return *addressFor(stack_.back().address);
    }

    std::optional<std::vector<std::string>>& addressFor(Field field) {
        return field == Field::Sender ? sender : destination;
    }

    bool enter() {
        // The outer array is one level above the tree's top.
        if (stack_.size() + 1 > std::size_t{limits_.maxDepth} + 1) {
            return refuse("nesting deeper than " + std::to_string(limits_.maxDepth) + " levels");
        }
        return true;
    }

    // Every item an array or map announces needs at least one byte of its
    // own, so more items in all than the input has bytes cannot be real;
    // refusing them keeps what is reserved below a multiple of the input.
    bool announce(std::uint64_t items) {
        announced_ += items;
        if (announced_ > size_) {
            return refuse("more items announced (" + std::to_string(announced_) + ") than the " +
                          std::to_string(size_) + " bytes could hold");
        }
        return true;
    }

    bool leave() {
        const Frame frame = stack_.back();
        stack_.pop_back();
        if (frame.role == Role::Version) {
            if (major_ != kFormatMajor) {
                return refuse("format version " + version() + ", which this library (format " +
                              std::to_string(kFormatMajor) + "." + std::to_string(kFormatMinor) +
                              ") cannot read");
            }
            const Frame& outer = stack_.back();
            if (outer.size > kOuterItems && !newerMinor()) {
                return refuse("an outer array of " + std::to_string(outer.size) + " items in format " + version() +
                              " (expected 3)");
            }
        }
        return true;
    }

    bool newerMinor() const { return minor_ > kFormatMinor; }
    std::string version() const { return std::to_string(major_) + "." + std::to_string(minor_); }

    std::size_t size_;
    Limits limits_;
    static std::vector<Frame>& spareStack() {
        thread_local std::vector<Frame> spare;
        return spare;
    }

    std::vector<Frame> stack_;
    Element payload_;
    std::uint64_t announced_ = 0;
    std::uint64_t major_ = 0;
    std::uint64_t minor_ = 0;
    unsigned fieldsSeen_ = 0;
    std::string refusal_;
    std::string scratch_;  // a string value on its way into the tree
};

[[noreturn]] void decodeError(const std::string& what) { throw WireError("Kest::Net::decode: " + what); }

// A number of any kind as one value: long double holds every unsigned long,
// long and double exactly.
bool numberOf(const Element& e, long double& value) {
    switch (e.GetElementType()) {
        case Element::NumberType: {
            unsigned long v = 0;
            Kest::MetaData::GetAs(e, v);
            value = v;
            return true;
        }
        case Element::SignedType: {
            long v = 0;
            Kest::MetaData::GetAs(e, v);
            value = v;
            return true;
        }
        case Element::FloatType: {
            double v = 0;
            Kest::MetaData::GetAs(e, v);
            value = v;
            return true;
        }
        default:
            return false;
    }
}

// Whether `written` (what a registered type wrote after reading `received`)
// says nothing `received` does not: no member it lacks, no other kind, no
// other value. Members `written` leaves out are fine (the type does not know
// them), and so is a number read into a field of another numeric kind
// without loss. On a difference, `where` gets its path below this element;
// the path is built only then, as the walk unwinds, since every message
// decoded takes this walk and nearly all of them match.
bool holds(const Element& written, const Element& received, std::string& where) {
    long double a = 0;
    long double b = 0;
    if (numberOf(written, a) && numberOf(received, b)) {
        return (a == b) || (a != a && b != b);  // NaN reads back as NaN
    }
    if (written.GetElementType() != received.GetElementType()) return false;
    switch (written.GetElementType()) {
        case Element::ObjectType: {
            const Object& w = written;
            const Object& r = received;
            for (const auto& member : w) {
                if (!r.contains(member.first) || !holds(member.second, r.at(member.first), where)) {
                    where.insert(0, "/" + member.first);
                    return false;
                }
            }
            return true;
        }
        case Element::ArrayType: {
            const Array& w = written;
            const Array& r = received;
            if (w.size() != r.size()) return false;
            for (unsigned long i = 0; i < w.size(); ++i) {
                if (!holds(w[i], r[i], where)) {
                    where.insert(0, "/" + std::to_string(i));
                    return false;
                }
            }
            return true;
        }
        case Element::StringType: {
            std::string x, y;
            Kest::MetaData::GetAs(written, x);
            Kest::MetaData::GetAs(received, y);
            return x == y;
        }
        case Element::BooleanType: {
            bool x = false, y = false;
            Kest::MetaData::GetAs(written, x);
            Kest::MetaData::GetAs(received, y);
            return x == y;
        }
        default:
            return true;  // both empty
    }
}

// The path where `written` says something `received` does not (see holds);
// empty when there is no such place below the root.
std::string mismatch(const Element& written, const Element& received) {
    std::string where;
    if (holds(written, received, where)) return std::string();
    return where;
}

// Fills a message of a registered type from `tree` and checks that it holds
// what the tree says: every required field set, every field whose member
// the tree has read, and nothing it writes back differing from what it
// read. A reflector falls back silently on a member it cannot read (resets
// it, or keeps its default); such a message would not be what was sent,
// nor encode to what was received. Inside a record field the record's own
// fields cannot be seen from here: one that cannot read its member is
// dropped, like a member the record does not know.
void fill(Message& message, const Element& tree) {
    message.copyFromMetaData(tree);
    std::string unset;
    std::string unread;
    message.forEachField([&](const Kest::MetaData::ReflectorBase& field) {
        if (field.initialized()) return;
        if (unset.empty() && field.isRequired()) unset = field.name();
        if (unread.empty() && Kest::MetaData::HasElement(tree, field.name())) unread = field.name();
    });
    // Named only for an error: a message that decodes needs no text.
    const auto type = [&message] {
        return "the type registered for identifier " + std::to_string(static_cast<unsigned long>(message.id()));
    };
    if (!unread.empty()) decodeError("the tree's member /" + unread + " is not in a form " + type() + " can hold");
    if (!unset.empty()) decodeError("the tree lacks \"" + unset + "\", which " + type() + " requires");
    Element written;
    message.copyToMetaData(written);
    const std::string where = mismatch(written, tree);
    if (!where.empty()) decodeError("the tree's member " + where + " is not in a form " + type() + " can hold");
}

}  // namespace

std::string encode(const Message& message) { return encode(message, Envelope()); }

std::string encode(const Message& message, const Envelope& envelope) {
    std::string out;
    encodeTo(out, message, envelope);
    return out;
}

void encodeTo(std::string& out, const Message& message, const Envelope& envelope) {
    Writer writer(out);
    writer.header(envelope);
    // A plain Message and a GenericMessage are written from their fields;
    // any other type through the tree its copyToMetaData makes.
    if (typeid(message) == typeid(Message)) {
        writeMessageTree(writer, message, nullptr);
    } else if (const auto* generic = dynamic_cast<const GenericMessage*>(&message)) {
        writeMessageTree(writer, message, &static_cast<const Object&>(generic->tree()));
    } else {
        writeCopiedTree(writer, message);
    }
    writer.finish();
}

Decoded decodeWithEnvelope(std::string_view bytes, const Limits& limits) {
    if (bytes.size() > limits.maxBytes) {
        decodeError(std::to_string(bytes.size()) + " bytes, more than the limit of " +
                    std::to_string(limits.maxBytes));
    }
    Reader reader(bytes.size(), limits);
    std::size_t offset = 0;
    bool parsed = false;
    try {
        parsed = msgpack::parse(bytes.data(), bytes.size(), offset, reader);
    } catch (const msgpack::unpack_error& error) {
        decodeError(std::string("malformed MessagePack (") + error.what() + ")");
    }
    if (!parsed) {
        if (!reader.refusal().empty()) decodeError(reader.refusal() + " at byte " + std::to_string(offset));
        if (reader.truncated) {
            decodeError("truncated: the input ends after " + std::to_string(bytes.size()) +
                        " bytes, inside an unfinished item");
        }
        decodeError("malformed MessagePack at byte " + std::to_string(reader.parseError ? reader.errorOffset : offset));
    }
    if (offset != bytes.size()) {
        decodeError(std::to_string(bytes.size() - offset) + " bytes after the message, from byte " +
                    std::to_string(offset));
    }
    if (!reader.haveId) decodeError("the message's tree has no \"Id\"");
    if (!reader.identity) decodeError("the message's tree has no \"Identity\"");

    Decoded decoded;
    decoded.envelope = std::move(reader.envelope);
    const Identifier id(reader.id);
    std::shared_ptr<Message> message = MessageTypes::create(id);
    if (message) {
        // A registered type reads the whole tree, its own fields included.
        Element& tree = reader.payload();
        Kest::MetaData::SetAs<unsigned long>(reader.id, tree["Id"]);
        Kest::MetaData::SetAs<std::string>(*reader.identity, tree["Identity"]);
        for (auto* address : {&reader.sender, &reader.destination}) {
            if (!*address) continue;
            Array& parts = tree[address == &reader.sender ? "Sender" : "Destination"];
            parts.resize((*address)->size());
            for (std::size_t i = 0; i < (*address)->size(); ++i) Kest::MetaData::SetAs<std::string>((**address)[i], parts[i]);
        }
        fill(*message, tree);
    } else {
        auto generic = std::make_shared<GenericMessage>(id, std::move(reader.sender), std::move(reader.destination),
                                                        std::move(reader.payload()));
        generic->identity.assign(std::move(*reader.identity));
        message = std::move(generic);
    }
    decoded.message = std::move(message);
    return decoded;
}

std::shared_ptr<const Message> decode(std::string_view bytes, const Limits& limits) {
    return decodeWithEnvelope(bytes, limits).message;
}

}  // namespace Kest::Net
