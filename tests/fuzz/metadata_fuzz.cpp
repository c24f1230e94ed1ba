// Fuzz target: metadata trees read into the reflective records.
//
// The input is decoded into two trees (empty, unsigned, signed,
// floating-point, boolean, string, object and array elements; member names
// drawn from the real field names, near misses and raw bytes; bounded depth
// and size). A Message, each of the four notification kinds, a ServiceData,
// a MessageKeyData and two records of our own, one with a field of every
// scalar type and one with an array field of every scalar type, read the
// first tree, then the second one over it, and every field is compared with
// what an independent model of the reflector rules predicts:
//
//  - a scalar field (number, identifier, boolean or string) is initialised
//    with the element's value when the tree has its name with a value the
//    field's type holds exactly: any kind of number for a numeric field
//    (decided here in long double, which holds every value of all three
//    number kinds), a boolean for bool, a string for std::string; else it is
//    reset to T() and uninitialised;
//  - an array field (addresses included) with its name missing becomes
//    empty and uninitialised; an element that is not an array prints "Should
//    have gotten an Array" and leaves the field as it was; an array with an
//    entry that the scalar rule refuses prints "Array corrupt for <name>" and
//    leaves it as it was;
//  - an array field asked to read from an empty tree reads it as an empty
//    object (its name is missing); from a number, a string or an array it
//    prints "Array corrupt for <name>" and is left as it was. Nothing is
//    thrown, whatever the tree;
//  - a record field whose name is present reads its own fields, in place,
//    from that element (whatever its kind) and is initialised; a missing
//    one is reset to the default record, assigned through the record copy
//    (so a required identifier inside comes out as 0, set).
//
// The diagnostic lines are captured from std::cout and compared in order.
// Then the record is written back into an object with copyToMetaData (which
// must hold exactly its initialised fields) and read into a fresh record,
// which must end up with the same initialised values. Copies of records must
// carry their own fields. Any broken promise aborts.

#include <kest/metadata/Element.h>
#include <kest/metadata/MirroredObject.h>
#include <kest/model/Forwarder.h>
#include <kest/model/ForwarderNotifications.h>
#include <kest/model/Identifier.h>
#include <kest/model/Message.h>
#include <kest/model/MessageKey.h>
#include <kest/model/MessageKeyData.h>
#include <kest/model/Reflector.h>

#include "FuzzSupport.h"

#include <cfloat>
#include <climits>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using Kest::MetaData::Array;
using Kest::MetaData::Element;
using Kest::MetaData::MetaDataException;
using Kest::MetaData::Object;
using Kest::MetaData::ReflectorBase;
using Kest::MetaData::ReflectorNoWriteParend;
using Kest::Msgs::Identifier;
using Kest::Msgs::Message;
using Kest::Msgs::Communications::Forwarder::ServiceData;
using Kest::Msgs::Structs::MessageKeyData;
using KestFuzz::check;
using KestFuzz::fail;
using KestFuzz::FuzzInput;

template <class T, bool IsRecord>
using Field = Kest::MetaData::Reflector<T, IsRecord, true>;

constexpr int kMaxDepth = 8;
constexpr int kMaxNodes = 200;

const std::string kArrayExpectedLine =
    "Exception MetaDat::ReflectorArray Should have gotten an Array, but didn't\n";
const std::string kArrayCorruptLine = "Exception MetaDat::ReflectorArray MetaData Array corrupt for ";

// ---------------------------------------------------------------------------
// The tree as the model sees it: a plain value, independent of Element.

struct Member;

struct Node {
    enum class Kind { Empty, Number, Signed, Float, Boolean, String, Object, Array };
    Kind kind = Kind::Empty;
    unsigned long number = 0;  // Number
    long signedNumber = 0;     // Signed
    double real = 0.0;         // Float
    bool flag = false;         // Boolean
    std::string text;
    std::vector<Member> members;  // unique names, any order
    std::vector<Node> items;

    const Node* member(const std::string& name) const;
    void set(const std::string& name, Node value);
};

struct Member {
    std::string name;
    Node value;
};

const Node* Node::member(const std::string& name) const {
    if (kind != Kind::Object) return nullptr;
    for (const Member& m : members) {
        if (m.name == name) return &m.value;
    }
    return nullptr;
}

// Like assigning into a map: a repeated name replaces the earlier value.
void Node::set(const std::string& name, Node value) {
    kind = Kind::Object;
    for (Member& m : members) {
        if (m.name == name) {
            m.value = std::move(value);
            return;
        }
    }
    members.push_back(Member{name, std::move(value)});
}

Node numberNode(unsigned long value) {
    Node n;
    n.kind = Node::Kind::Number;
    n.number = value;
    return n;
}

Node signedNode(long value) {
    Node n;
    n.kind = Node::Kind::Signed;
    n.signedNumber = value;
    return n;
}

Node floatNode(double value) {
    Node n;
    n.kind = Node::Kind::Float;
    n.real = value;
    return n;
}

Node booleanNode(bool value) {
    Node n;
    n.kind = Node::Kind::Boolean;
    n.flag = value;
    return n;
}

// NaN equals NaN, and -0.0 differs from 0.0: the same value as a reader sees it.
template <class F>
bool sameFloat(F a, F b) {
    if (std::isnan(a) || std::isnan(b)) return std::isnan(a) && std::isnan(b);
    return a == b && std::signbit(a) == std::signbit(b);
}

Node stringNode(std::string text) {
    Node n;
    n.kind = Node::Kind::String;
    n.text = std::move(text);
    return n;
}

Node stringArrayNode(const std::vector<std::string>& values) {
    Node n;
    n.kind = Node::Kind::Array;
    for (const std::string& v : values) n.items.push_back(stringNode(v));
    return n;
}

bool equalNodes(const Node& a, const Node& b) {
    if (a.kind != b.kind) return false;
    switch (a.kind) {
        case Node::Kind::Empty:
            return true;
        case Node::Kind::Number:
            return a.number == b.number;
        case Node::Kind::Signed:
            return a.signedNumber == b.signedNumber;
        case Node::Kind::Float:
            return sameFloat(a.real, b.real);
        case Node::Kind::Boolean:
            return a.flag == b.flag;
        case Node::Kind::String:
            return a.text == b.text;
        case Node::Kind::Object:
            if (a.members.size() != b.members.size()) return false;
            for (const Member& m : a.members) {
                const Node* other = b.member(m.name);
                if (other == nullptr || !equalNodes(m.value, *other)) return false;
            }
            return true;
        case Node::Kind::Array:
            if (a.items.size() != b.items.size()) return false;
            for (std::size_t i = 0; i < a.items.size(); ++i) {
                if (!equalNodes(a.items[i], b.items[i])) return false;
            }
            return true;
    }
    return false;
}

std::string quoted(const std::string& text) {
    std::string out = "\"";
    for (unsigned char c : text) {
        if (c >= 0x20 && c < 0x7f && c != '"' && c != '\\') {
            out.push_back(static_cast<char>(c));
        } else {
            static const char digits[] = "0123456789abcdef";
            out += "\\x";
            out.push_back(digits[c >> 4]);
            out.push_back(digits[c & 15]);
        }
    }
    return out + "\"";
}

std::string describeFloat(double value) {
    char text[40];
    std::snprintf(text, sizeof text, "%.17g", value);
    return text;
}

std::string describe(const Node& n) {
    switch (n.kind) {
        case Node::Kind::Empty:
            return "empty";
        case Node::Kind::Number:
            return std::to_string(n.number);
        case Node::Kind::Signed:
            return "signed " + std::to_string(n.signedNumber);
        case Node::Kind::Float:
            return "double " + describeFloat(n.real);
        case Node::Kind::Boolean:
            return n.flag ? "true" : "false";
        case Node::Kind::String:
            return quoted(n.text);
        case Node::Kind::Object: {
            std::string out = "{";
            for (const Member& m : n.members) {
                if (out.size() > 1) out += ", ";
                out += quoted(m.name) + ": " + describe(m.value);
            }
            return out + "}";
        }
        case Node::Kind::Array: {
            std::string out = "[";
            for (const Node& item : n.items) {
                if (out.size() > 1) out += ", ";
                out += describe(item);
            }
            return out + "]";
        }
    }
    return "?";
}

// ---------------------------------------------------------------------------
// Decoding the input into trees.

const char* const kFieldNames[] = {"Id", "Sender", "Destination", "Identity",
                                   "Data", "Key", "Count", "Rank"};
// The fields of the two records of every scalar type (TypedScalars, TypedArrays).
const char* const kTypedNames[] = {"Level", "Offset", "Samples", "Value", "Gain", "Valid"};

class TreeDecoder {
public:
    explicit TreeDecoder(FuzzInput& input) : input_(input) {}

    Node tree() { return node(0); }

private:
    // Choices 0 to 11 keep the meaning they had before the typed names were
    // added, so that older inputs still decode to the same trees.
    std::string name() {
        unsigned choice = input_.pick(18);
        if (choice < 8) return kFieldNames[choice];
        if (choice >= 12) return kTypedNames[choice - 12];
        switch (choice) {
            case 8:
                return "";
            case 9:
                return "Sender ";  // near misses must not match
            case 10:
                return "rank";
            default:
                return input_.bytes(4);
        }
    }

    // Small values from one byte, any bit pattern from eight.
    long signedValue() {
        std::uint8_t b = input_.byte();
        if ((b & 0x80) != 0) return static_cast<long>(input_.u64());
        return static_cast<long>(b) - 64;
    }

    // Quarters from -16 to 15.75 from one byte (whole numbers, halves, 0.0);
    // any double from eight bytes, NaN, infinities, -0.0 and subnormals included.
    double floatValue() {
        std::uint8_t b = input_.byte();
        if ((b & 0x80) == 0) return (static_cast<double>(b) - 64.0) / 4.0;
        const std::uint64_t bits = input_.u64();
        double value = 0.0;
        std::memcpy(&value, &bits, sizeof value);
        return value;
    }

    // Kinds 0 to 4 keep their meaning from before the signed, floating-point
    // and boolean kinds (5 to 7), so that older seeds decode as they did.
    Node node(int depth) {
        Node n;
        if (budget_ <= 0) return n;
        --budget_;
        switch (input_.pick(8)) {
            case 0:
                break;
            case 1: {
                std::uint8_t b = input_.byte();
                n = numberNode((b & 0x80) != 0 ? input_.u64() : b);
                break;
            }
            case 2:
                n = stringNode(input_.bytes(6));
                break;
            case 3:
                if (depth >= kMaxDepth) break;
                n.kind = Node::Kind::Object;
                for (unsigned count = input_.pick(6); count > 0; --count) {
                    std::string key = name();
                    n.set(key, node(depth + 1));
                }
                break;
            case 4:
                if (depth >= kMaxDepth) break;
                n.kind = Node::Kind::Array;
                for (unsigned count = input_.pick(6); count > 0; --count) {
                    n.items.push_back(node(depth + 1));
                }
                break;
            case 5:
                n = signedNode(signedValue());
                break;
            case 6:
                n = floatNode(floatValue());
                break;
            default:
                n = booleanNode((input_.byte() & 1) != 0);
                break;
        }
        return n;
    }

    FuzzInput& input_;
    int budget_ = kMaxNodes;
};

// The same tree as the library's Element, built through its public interface.
Element toElement(const Node& n) {
    switch (n.kind) {
        case Node::Kind::Empty:
            return Element();
        case Node::Kind::Number:
            return Element(n.number);
        case Node::Kind::Signed:
            return Element(n.signedNumber);
        case Node::Kind::Float:
            return Element(n.real);
        case Node::Kind::Boolean:
            return Element(n.flag);
        case Node::Kind::String:
            return Element(n.text);
        case Node::Kind::Object: {
            Object object;
            for (const Member& m : n.members) object[m.name] = toElement(m.value);
            return Element(object);
        }
        case Node::Kind::Array: {
            Array array;
            for (const Node& item : n.items) array.push_back(toElement(item));
            return Element(array);
        }
    }
    return Element();
}

// An Element read back into a Node, for comparing what copyToMetaData wrote.
Node fromElement(const Element& e) {
    Node n;
    switch (e.GetElementType()) {
        case Element::EmptyType:
            return n;
        case Element::NumberType: {
            unsigned long value = 0;
            Kest::MetaData::GetAs(e, value);
            return numberNode(value);
        }
        case Element::SignedType: {
            long value = 0;
            Kest::MetaData::GetAs(e, value);
            return signedNode(value);
        }
        case Element::FloatType: {
            double value = 0.0;
            Kest::MetaData::GetAs(e, value);
            return floatNode(value);
        }
        case Element::BooleanType: {
            bool value = false;
            Kest::MetaData::GetAs(e, value);
            return booleanNode(value);
        }
        case Element::StringType: {
            std::string text;
            Kest::MetaData::GetAs(e, text);
            return stringNode(text);
        }
        case Element::ObjectType: {
            const Object& object = e;
            n.kind = Node::Kind::Object;
            for (const auto& member : object) n.set(member.first, fromElement(member.second));
            return n;
        }
        case Element::ArrayType: {
            const Array& array = e;
            n.kind = Node::Kind::Array;
            for (const Element& item : array) n.items.push_back(fromElement(item));
            return n;
        }
        default:
            fail("element of unknown type " + std::to_string(e.GetElementType()));
    }
}

// ---------------------------------------------------------------------------
// The records' states as the model tracks them: initialised flag and value of
// every field, values of uninitialised fields included.

template <class T>
struct State {
    bool init = false;
    T value{};
};

template <class T>
bool sameValue(const T& a, const T& b) {
    return a == b;
}
bool sameValue(double a, double b) { return sameFloat(a, b); }
bool sameValue(float a, float b) { return sameFloat(a, b); }
template <class T>
bool sameValue(const std::vector<T>& a, const std::vector<T>& b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (!sameValue(a[i], b[i])) return false;
    }
    return true;
}

template <class T>
bool operator==(const State<T>& a, const State<T>& b) {
    return a.init == b.init && sameValue(a.value, b.value);
}

using Number = State<unsigned long>;
using Text = State<std::string>;
using Address = State<std::vector<std::string>>;

struct KeyState {
    bool idRequired = false;  // a property of the field, read from the record
    Number id;
    Address sender;
    Address destination;
};

bool operator==(const KeyState& a, const KeyState& b) {
    return a.idRequired == b.idRequired && a.id == b.id && a.sender == b.sender &&
           a.destination == b.destination;
}

struct DataState {
    State<KeyState> key;
    Number count;
    Number rank;
};

bool operator==(const DataState& a, const DataState& b) {
    return a.key == b.key && a.count == b.count && a.rank == b.rank;
}

struct MessageState {
    Number id;
    Address sender;
    Address destination;
    Text identity;
    bool hasData = false;
    State<DataState> data;
};

bool operator==(const MessageState& a, const MessageState& b) {
    return a.id == b.id && a.sender == b.sender && a.destination == b.destination &&
           a.identity == b.identity && a.hasData == b.hasData && (!a.hasData || a.data == b.data);
}

std::string describe(const Number& s) {
    return (s.init ? "" : "unset ") + std::to_string(s.value);
}

std::string describe(const Text& s) { return (s.init ? "" : "unset ") + quoted(s.value); }

std::string describe(const Address& s) {
    std::string out = s.init ? "[" : "unset [";
    for (std::size_t i = 0; i < s.value.size(); ++i) out += (i ? ", " : "") + quoted(s.value[i]);
    return out + "]";
}

std::string describe(const KeyState& k) {
    return "{Id " + describe(k.id) + (k.idRequired ? " (required)" : "") + ", Sender " +
           describe(k.sender) + ", Destination " + describe(k.destination) + "}";
}

std::string describe(const DataState& d) {
    return "{Key " + std::string(d.key.init ? "" : "unset ") + describe(d.key.value) + ", Count " +
           describe(d.count) + ", Rank " + describe(d.rank) + "}";
}

std::string describe(const MessageState& m) {
    std::string out = "{Id " + describe(m.id) + ", Sender " + describe(m.sender) + ", Destination " +
                      describe(m.destination) + ", Identity " + describe(m.identity);
    if (m.hasData) out += ", Data " + std::string(m.data.init ? "" : "unset ") + describe(m.data.value);
    return out + "}";
}

// The two records of every scalar type (one field each, or one array field
// each) share their field names, so that each element is read both ways.
// Of<T> is the value a field holds: T itself, or a vector of T.
template <class T>
using One = T;
template <class T>
using Many = std::vector<T>;

template <template <class> class Of>
struct TypedState {
    State<Of<long>> level;
    State<Of<int>> offset;
    State<Of<unsigned int>> samples;
    State<Of<double>> value;
    State<Of<float>> gain;
    State<Of<bool>> valid;

    // Applies `f(field, name)` to every field in declaration order, as long
    // as it returns true; returns whether all did.
    template <class F>
    bool all(F&& f) {
        return each(*this, f);
    }
    template <class F>
    bool all(F&& f) const {
        return each(*this, f);
    }

private:
    template <class Self, class F>
    static bool each(Self& self, F& f) {
        return f(self.level, "Level") && f(self.offset, "Offset") && f(self.samples, "Samples") &&
               f(self.value, "Value") && f(self.gain, "Gain") && f(self.valid, "Valid");
    }
};

template <template <class> class Of>
bool operator==(const TypedState<Of>& a, const TypedState<Of>& b) {
    return a.level == b.level && a.offset == b.offset && a.samples == b.samples &&
           a.value == b.value && a.gain == b.gain && a.valid == b.valid;
}

std::string describeValue(long v) { return std::to_string(v); }
std::string describeValue(int v) { return std::to_string(v); }
std::string describeValue(unsigned int v) { return std::to_string(v); }
std::string describeValue(double v) { return describeFloat(v); }
std::string describeValue(float v) { return describeFloat(static_cast<double>(v)) + "f"; }
std::string describeValue(bool v) { return v ? "true" : "false"; }

template <class T>
std::string describe(const State<T>& s) {
    return (s.init ? "" : "unset ") + describeValue(s.value);
}

template <class T>
std::string describe(const State<std::vector<T>>& s) {
    std::string out = s.init ? "[" : "unset [";
    for (std::size_t i = 0; i < s.value.size(); ++i) {
        out += (i ? ", " : "") + describeValue(static_cast<T>(s.value[i]));
    }
    return out + "]";
}

template <template <class> class Of>
std::string describe(const TypedState<Of>& r) {
    std::string out = "{";
    r.all([&](const auto& field, const char* name) {
        out += (out.size() > 1 ? ", " : "") + std::string(name) + " " + describe(field);
        return true;
    });
    return out + "}";
}

// ---------------------------------------------------------------------------
// Two records of our own with fields of every scalar type.

template <class T>
using ScalarField = Field<T, false>;
template <class T>
using ArrayField = Kest::MetaData::ReflectorArray<T>;

template <template <class> class FieldOf>
class TypedRecord : public Kest::MetaData::MirroredObject {
public:
    TypedRecord() = default;
    TypedRecord(const TypedRecord& other)
        : MirroredObject(other),
          level(this, other.level),
          offset(this, other.offset),
          samples(this, other.samples),
          value(this, other.value),
          gain(this, other.gain),
          valid(this, other.valid) {}

    FieldOf<long> level{this, "Level", false};
    FieldOf<int> offset{this, "Offset", false};
    FieldOf<unsigned int> samples{this, "Samples", false};
    FieldOf<double> value{this, "Value", true};
    FieldOf<float> gain{this, "Gain", false};
    FieldOf<bool> valid{this, "Valid", false};
};

using TypedScalars = TypedRecord<ScalarField>;
using TypedArrays = TypedRecord<ArrayField>;
using ScalarsState = TypedState<One>;
using ArraysState = TypedState<Many>;

// ---------------------------------------------------------------------------
// Reading the actual records' states. Values of unset scalar and record
// fields are not reachable through operator()(), which throws; this derived
// view reads the stored value directly.

template <class T>
struct ValueOf : ReflectorNoWriteParend<T, true> {
    static const T& of(const ReflectorNoWriteParend<T, true>& field) {
        return field.*(&ValueOf::value_);
    }
};

std::vector<const ReflectorBase*> fieldsOf(const Kest::MetaData::MirroredObject& record) {
    std::vector<const ReflectorBase*> fields;
    record.forEachField([&](const ReflectorBase& f) { fields.push_back(&f); });
    return fields;
}

void checkFields(const Kest::MetaData::MirroredObject& record, const char* what,
                 const std::vector<std::pair<const ReflectorBase*, const char*>>& expected) {
    const std::vector<const ReflectorBase*> fields = fieldsOf(record);
    if (fields.size() != expected.size()) fail(std::string(what) + ": wrong number of fields");
    for (std::size_t i = 0; i < fields.size(); ++i) {
        if (expected[i].first != nullptr && fields[i] != expected[i].first) {
            fail(std::string(what) + ": field " + std::to_string(i) + " is not the record's own");
        }
        if (fields[i]->name() != expected[i].second) {
            fail(std::string(what) + ": field " + std::to_string(i) + " is named " +
                 quoted(fields[i]->name()) + ", not " + expected[i].second);
        }
    }
}

Number numberState(const Field<unsigned long, false>& f) {
    return {f.initialized(), ValueOf<unsigned long>::of(f)};
}

Number identifierState(const Field<Identifier, false>& f) {
    return {f.initialized(), static_cast<unsigned long>(ValueOf<Identifier>::of(f))};
}

Address addressState(const Kest::Msgs::ReflectedAddress& f) { return {f.initialized(), f()}; }

KeyState snapshot(const MessageKeyData& k) {
    checkFields(k, "MessageKeyData", {{&k.id, "Id"}, {&k.sender, "Sender"}, {&k.destination, "Destination"}});
    KeyState s;
    s.idRequired = k.id.isRequired();
    s.id = identifierState(k.id);
    s.sender = addressState(k.sender);
    s.destination = addressState(k.destination);
    return s;
}

DataState snapshot(const ServiceData& d) {
    checkFields(d, "ServiceData", {{&d.key, "Key"}, {&d.count, "Count"}, {&d.rank, "Rank"}});
    DataState s;
    s.key = {d.key.initialized(), snapshot(ValueOf<MessageKeyData>::of(d.key))};
    s.count = numberState(d.count);
    s.rank = numberState(d.rank);
    return s;
}

// `data` is the notification's payload field, or nullptr for a plain message.
MessageState snapshot(const Message& m, const Field<ServiceData, true>* data) {
    std::vector<std::pair<const ReflectorBase*, const char*>> expected = {
        {nullptr, "Id"}, {&m.sender, "Sender"}, {&m.destination, "Destination"}, {&m.identity, "Identity"}};
    if (data != nullptr) expected.push_back({data, "Data"});
    checkFields(m, "Message", expected);

    const auto* id = dynamic_cast<const Field<Identifier, false>*>(fieldsOf(m).front());
    check(id != nullptr, "Message: field Id is not an identifier field");
    MessageState s;
    s.id = identifierState(*id);
    check(static_cast<unsigned long>(m.id()) == (s.id.init ? s.id.value : 0UL),
          "Message::id() disagrees with its field");
    s.sender = addressState(m.sender);
    s.destination = addressState(m.destination);
    s.identity = {m.identity.initialized(), ValueOf<std::string>::of(m.identity)};
    if (data != nullptr) {
        s.hasData = true;
        s.data = {data->initialized(), snapshot(ValueOf<ServiceData>::of(*data))};
    }
    return s;
}

template <class T>
State<T> fieldState(const ScalarField<T>& f) {
    return {f.initialized(), ValueOf<T>::of(f)};
}

template <class T>
State<std::vector<T>> fieldState(const ArrayField<T>& f) {
    return {f.initialized(), f()};
}

template <template <class> class FieldOf, template <class> class Of>
TypedState<Of> snapshotTyped(const TypedRecord<FieldOf>& r) {
    checkFields(r, "TypedRecord",
                {{&r.level, "Level"}, {&r.offset, "Offset"}, {&r.samples, "Samples"},
                 {&r.value, "Value"}, {&r.gain, "Gain"}, {&r.valid, "Valid"}});
    return {fieldState(r.level), fieldState(r.offset), fieldState(r.samples),
            fieldState(r.value), fieldState(r.gain),   fieldState(r.valid)};
}

// ---------------------------------------------------------------------------
// The model: what reading a tree does to each kind of field.

// Which element values a field of each type reads (GetAs). Every value of
// the three number kinds is exact in a long double of 64 mantissa bits or
// more, so a number fits a type when it lies in the type's range there and
// converting it to the type and back changes nothing.

static_assert(std::numeric_limits<long double>::digits >= 64,
              "the model needs a long double that holds every long and unsigned long exactly");

bool numberOf(const Node& n, long double& out) {
    switch (n.kind) {
        case Node::Kind::Number:
            out = static_cast<long double>(n.number);
            return true;
        case Node::Kind::Signed:
            out = static_cast<long double>(n.signedNumber);
            return true;
        case Node::Kind::Float:
            out = static_cast<long double>(n.real);
            return true;
        default:
            return false;  // a boolean is not a number
    }
}

template <class Int>
bool modelInteger(const Node& n, Int& out) {
    long double v = 0;
    if (!numberOf(n, v) || !std::isfinite(v) || std::trunc(v) != v) return false;
    if (v < static_cast<long double>(std::numeric_limits<Int>::min()) ||
        v > static_cast<long double>(std::numeric_limits<Int>::max())) {
        return false;
    }
    out = static_cast<Int>(v);
    return true;
}

template <class F>
bool modelFloating(const Node& n, F& out) {
    long double v = 0;
    if (!numberOf(n, v)) return false;
    if (std::isnan(v)) {
        out = std::numeric_limits<F>::quiet_NaN();
        return true;
    }
    if (std::isinf(v)) {
        out = v > 0 ? std::numeric_limits<F>::infinity() : -std::numeric_limits<F>::infinity();
        return true;
    }
    if (std::fabs(v) > static_cast<long double>(std::numeric_limits<F>::max())) return false;
    const F converted = static_cast<F>(v);
    if (static_cast<long double>(converted) != v) return false;
    out = converted;
    return true;
}

bool modelGet(const Node& n, unsigned long& out) { return modelInteger(n, out); }
bool modelGet(const Node& n, unsigned int& out) { return modelInteger(n, out); }
bool modelGet(const Node& n, long& out) { return modelInteger(n, out); }
bool modelGet(const Node& n, int& out) { return modelInteger(n, out); }
bool modelGet(const Node& n, double& out) { return modelFloating(n, out); }
bool modelGet(const Node& n, float& out) { return modelFloating(n, out); }

bool modelGet(const Node& n, bool& out) {
    if (n.kind != Node::Kind::Boolean) return false;
    out = n.flag;
    return true;
}

bool modelGet(const Node& n, std::string& out) {
    if (n.kind != Node::Kind::String) return false;
    out = n.text;
    return true;
}

// A scalar field (identifiers included: they read an unsigned long).
template <class T>
void readScalar(State<T>& field, const Node* tree, const std::string& name) {
    const Node* e = tree != nullptr ? tree->member(name) : nullptr;
    T value{};
    if (e != nullptr && modelGet(*e, value)) {
        field = {true, value};
    } else {
        field = {false, T()};
    }
}

// An array field, addresses included. An empty tree reads as an empty
// object; any other tree that is not an object holds no field, which the
// field reports and survives.
template <class T>
void readArray(State<std::vector<T>>& field, const Node& tree, const std::string& name,
               std::string& lines) {
    if (tree.kind != Node::Kind::Object && tree.kind != Node::Kind::Empty) {
        lines += kArrayCorruptLine + name + "\n";
        return;
    }
    const Node* e = tree.member(name);
    if (e == nullptr) {
        field = {false, {}};
        return;
    }
    if (e->kind != Node::Kind::Array) {
        lines += kArrayExpectedLine;
        return;
    }
    std::vector<T> values;
    for (const Node& item : e->items) {
        T value{};
        if (!modelGet(item, value)) {
            lines += kArrayCorruptLine + name + "\n";
            return;
        }
        values.push_back(value);
    }
    field = {true, values};
}

// A default MessageKeyData assigned through the record copy: its unset
// identifier comes out as 0, initialised exactly when the target's
// identifier field is required; the addresses come over unset and empty.
KeyState resetKey(const KeyState& current) {
    KeyState k;
    k.idRequired = current.idRequired;
    k.id = {current.idRequired, 0};
    return k;
}

DataState resetData(const DataState& current) {
    DataState d;
    d.key = {false, resetKey(current.key.value)};
    return d;
}

// The fields are read in declaration order; none of the reads throws.

void readKeyRecord(KeyState& key, const Node& tree, std::string& lines) {
    readScalar(key.id, &tree, "Id");
    readArray(key.sender, tree, "Sender", lines);
    readArray(key.destination, tree, "Destination", lines);
}

// A record field reads its record in place from the element of its name, and
// is reset when that is missing.
void readKeyField(State<KeyState>& field, const Node& tree, std::string& lines) {
    const Node* e = tree.member("Key");
    if (e != nullptr) {
        readKeyRecord(field.value, *e, lines);
        field.init = true;
    } else {
        field = {false, resetKey(field.value)};
    }
}

void readDataRecord(DataState& data, const Node& tree, std::string& lines) {
    readKeyField(data.key, tree, lines);
    readScalar(data.count, &tree, "Count");
    readScalar(data.rank, &tree, "Rank");
}

void readDataField(State<DataState>& field, const Node& tree, std::string& lines) {
    const Node* e = tree.member("Data");
    if (e != nullptr) {
        readDataRecord(field.value, *e, lines);
        field.init = true;
    } else {
        field = {false, resetData(field.value)};
    }
}

void readMessage(MessageState& m, const Node& tree, std::string& lines) {
    readScalar(m.id, &tree, "Id");
    readArray(m.sender, tree, "Sender", lines);
    readArray(m.destination, tree, "Destination", lines);
    readScalar(m.identity, &tree, "Identity");
    if (m.hasData) readDataField(m.data, tree, lines);
}

// No field throws, whatever the tree: each is read in declaration order.
template <class T>
void readTyped(State<T>& field, const Node& tree, const std::string& name, std::string&) {
    readScalar(field, &tree, name);
}

template <class T>
void readTyped(State<std::vector<T>>& field, const Node& tree, const std::string& name,
               std::string& lines) {
    readArray(field, tree, name, lines);
}

template <template <class> class Of>
void readTypedRecord(TypedState<Of>& r, const Node& tree, std::string& lines) {
    r.all([&](auto& field, const char* name) {
        readTyped(field, tree, name, lines);
        return true;
    });
}

// What copyToMetaData writes: each initialised field under its name; a tree
// nothing was written to stays empty.
Node writeKey(const KeyState& k) {
    Node n;
    if (k.id.init) n.set("Id", numberNode(k.id.value));
    if (k.sender.init) n.set("Sender", stringArrayNode(k.sender.value));
    if (k.destination.init) n.set("Destination", stringArrayNode(k.destination.value));
    return n;
}

Node writeData(const DataState& d) {
    Node n;
    if (d.key.init) n.set("Key", writeKey(d.key.value));
    if (d.count.init) n.set("Count", numberNode(d.count.value));
    if (d.rank.init) n.set("Rank", numberNode(d.rank.value));
    return n;
}

Node writeMessage(const MessageState& m) {
    Node n;
    if (m.id.init) n.set("Id", numberNode(m.id.value));
    if (m.sender.init) n.set("Sender", stringArrayNode(m.sender.value));
    if (m.destination.init) n.set("Destination", stringArrayNode(m.destination.value));
    if (m.identity.init) n.set("Identity", stringNode(m.identity.value));
    if (m.hasData && m.data.init) n.set("Data", writeData(m.data.value));
    return n;
}

// Each type writes its own kind: long and int signed, unsigned int unsigned,
// double and float (widened exactly) floating point, bool boolean.
Node valueNode(long v) { return signedNode(v); }
Node valueNode(int v) { return signedNode(v); }
Node valueNode(unsigned int v) { return numberNode(v); }
Node valueNode(double v) { return floatNode(v); }
Node valueNode(float v) { return floatNode(static_cast<double>(v)); }
Node valueNode(bool v) { return booleanNode(v); }

template <class T>
Node fieldNode(const T& value) {
    return valueNode(value);
}

template <class T>
Node fieldNode(const std::vector<T>& values) {
    Node array;
    array.kind = Node::Kind::Array;
    for (const T& v : values) array.items.push_back(valueNode(v));
    return array;
}

template <template <class> class Of>
Node writeTyped(const TypedState<Of>& r) {
    Node n;
    r.all([&](const auto& field, const char* name) {
        if (field.init) n.set(name, fieldNode(field.value));
        return true;
    });
    return n;
}

// Only what a tree copy can carry: the values of initialised fields. A key
// record that is set but holds no set field is written as an empty element,
// which reads back as a set record with no set field.
KeyState visible(KeyState k) {
    if (!k.id.init) k.id.value = 0;
    if (!k.sender.init) k.sender.value.clear();
    if (!k.destination.init) k.destination.value.clear();
    return k;
}

State<KeyState> visible(const State<KeyState>& f) {
    const KeyState& k = f.value;
    if (!f.init) return {false, KeyState{k.idRequired, {}, {}, {}}};
    return {true, visible(k)};
}

DataState visible(DataState d) {
    d.key = visible(d.key);
    if (!d.count.init) d.count.value = 0;
    if (!d.rank.init) d.rank.value = 0;
    return d;
}

MessageState visible(MessageState m) {
    if (!m.id.init) m.id.value = 0;
    if (!m.sender.init) m.sender.value.clear();
    if (!m.destination.init) m.destination.value.clear();
    if (!m.identity.init) m.identity.value.clear();
    if (m.hasData) {
        if (m.data.init) {
            m.data.value = visible(m.data.value);
        } else {
            DataState blank;
            blank.key.value.idRequired = m.data.value.key.value.idRequired;
            m.data = {false, blank};
        }
    }
    return m;
}

template <class T>
State<T> visible(const State<T>& f) {
    return f.init ? f : State<T>{false, T()};
}

template <template <class> class Of>
TypedState<Of> visible(TypedState<Of> r) {
    r.all([](auto& field, const char*) {
        field = visible(field);
        return true;
    });
    return r;
}

// ---------------------------------------------------------------------------
// The records under test, each with the model's view of it. A record starts
// either blank or filled, so that "left as it was" has something to keep.

ServiceData filledPayload() {
    return ServiceData(Kest::Msgs::MessageKey(Identifier(5, 6), {"s"}, {"d", "e"}, {}), 2, 3);
}

struct KeyDataSubject {
    using Record = MessageKeyData;
    using Model = KeyState;
    static constexpr const char* name = "MessageKeyData";
    static std::unique_ptr<Record> make(bool filled) {
        if (!filled) return std::make_unique<Record>();
        return std::make_unique<Record>(Identifier(3, 4), std::vector<std::string>{"s"},
                                        std::vector<std::string>{"d", "e"});
    }
    static Model snap(const Record& r) { return snapshot(r); }
    static void read(Model& m, const Node& tree, std::string& lines) { readKeyRecord(m, tree, lines); }
    static Node write(const Model& m) { return writeKey(m); }
};

struct ServiceDataSubject {
    using Record = ServiceData;
    using Model = DataState;
    static constexpr const char* name = "ServiceData";
    static std::unique_ptr<Record> make(bool filled) {
        if (!filled) return std::make_unique<Record>();
        return std::make_unique<Record>(filledPayload());
    }
    static Model snap(const Record& r) { return snapshot(r); }
    static void read(Model& m, const Node& tree, std::string& lines) { readDataRecord(m, tree, lines); }
    static Node write(const Model& m) { return writeData(m); }
};

struct PlainMessageSubject {
    using Record = Message;
    using Model = MessageState;
    static constexpr const char* name = "Message";
    static std::unique_ptr<Record> make(bool filled) {
        if (!filled) return std::make_unique<Message>(Identifier(7, 9));
        return std::make_unique<Message>(Identifier(7, 9), std::vector<std::string>{"from"},
                                         std::vector<std::string>{"to", "there"});
    }
    static Model snap(const Record& r) { return snapshot(r, nullptr); }
    static void read(Model& m, const Node& tree, std::string& lines) { readMessage(m, tree, lines); }
    static Node write(const Model& m) { return writeMessage(m); }
};

template <class Notification>
struct NotificationSubject {
    using Record = Notification;
    using Model = MessageState;
    static constexpr const char* name = "notification";
    static std::unique_ptr<Record> make(bool filled) {
        if (!filled) return std::make_unique<Notification>();
        return std::make_unique<Notification>(filledPayload());
    }
    static Model snap(const Record& r) {
        Model m = snapshot(r, &r.data);
        // The payload accessor reads the same field, and refuses an unset one.
        if (m.data.init) {
            check(&r.payload() == &ValueOf<ServiceData>::of(r.data), "payload() is not the Data field");
        } else {
            bool threw = false;
            try {
                (void)r.payload();
            } catch (const MetaDataException&) {
                threw = true;
            }
            check(threw, "payload() of an unset Data field did not throw");
        }
        return m;
    }
    static void read(Model& m, const Node& tree, std::string& lines) { readMessage(m, tree, lines); }
    static Node write(const Model& m) { return writeMessage(m); }
};

template <template <class> class FieldOf, template <class> class Of>
struct TypedSubject {
    using Record = TypedRecord<FieldOf>;
    using Model = TypedState<Of>;
    static Model snap(const Record& r) { return snapshotTyped<FieldOf, Of>(r); }
    static void read(Model& m, const Node& tree, std::string& lines) { readTypedRecord(m, tree, lines); }
    static Node write(const Model& m) { return writeTyped(m); }
};

struct TypedScalarsSubject : TypedSubject<ScalarField, One> {
    static constexpr const char* name = "TypedScalars";
    static std::unique_ptr<Record> make(bool filled) {
        auto r = std::make_unique<Record>();
        if (filled) {
            r->level.assign(LONG_MIN);
            r->offset.assign(-7);
            r->samples.assign(UINT_MAX);
            r->value.assign(-3.25);
            r->gain.assign(0.1F);
            r->valid.assign(true);
        }
        return r;
    }
};

struct TypedArraysSubject : TypedSubject<ArrayField, Many> {
    static constexpr const char* name = "TypedArrays";
    static std::unique_ptr<Record> make(bool filled) {
        auto r = std::make_unique<Record>();
        if (filled) {
            r->level.assign({LONG_MAX, -1});
            r->offset.assign(std::vector<int>{INT_MIN});
            r->samples.assign({0U, 7U});
            r->value.assign({std::numeric_limits<double>::quiet_NaN(), -0.0});
            r->gain.assign({FLT_MAX, -FLT_MIN});
            r->valid.assign({true, false});
        }
        return r;
    }
};

// Reads `tree` into `record` and compares fields and printed lines with the
// model, which is advanced to the expected state.
template <class Subject>
void readAndCheck(typename Subject::Record& record, typename Subject::Model& model, const Node& tree,
                  const Element& element, const char* step) {
    const typename Subject::Model before = model;
    std::string expectedLines;
    Subject::read(model, tree, expectedLines);

    std::string lines;
    std::string thrown;
    {
        KestFuzz::CapturedOutput output;
        try {
            record.copyFromMetaData(element);
        } catch (const std::exception& e) {
            thrown = e.what();
        }
        lines = output.take();
    }
    const typename Subject::Model actual = Subject::snap(record);
    if (!(actual == model) || lines != expectedLines || !thrown.empty()) {
        fail(std::string(Subject::name) + ", " + step + ": reading " + describe(tree) +
             "\n  over      " + describe(before) + "\n  expected  " + describe(model) +
             "\n  got       " + describe(actual) +
             (thrown.empty() ? "" : " and an exception: " + thrown) +
             "\n  expected lines " + quoted(expectedLines) + "\n  got lines      " + quoted(lines));
    }
}

template <class Subject>
void exercise(bool filled, const Node& first, const Element& firstElement, const Node& second,
              const Element& secondElement) {
    using Record = typename Subject::Record;
    using Model = typename Subject::Model;

    std::unique_ptr<Record> record = Subject::make(filled);
    Model model = Subject::snap(*record);
    readAndCheck<Subject>(*record, model, first, firstElement, "first tree");
    readAndCheck<Subject>(*record, model, second, secondElement, "second tree over the first");

    // Writing back into an object: exactly the initialised fields, no diagnostics.
    Element written{Object()};
    {
        KestFuzz::CapturedOutput output;
        record->copyToMetaData(written);
        if (!output.take().empty()) fail(std::string(Subject::name) + ": copyToMetaData printed");
    }
    const Node writtenTree = fromElement(written);
    Node expectedTree = Subject::write(model);
    expectedTree.kind = Node::Kind::Object;
    if (!equalNodes(writtenTree, expectedTree)) {
        fail(std::string(Subject::name) + ": copyToMetaData of " + describe(model) + " wrote " +
             describe(writtenTree) + ", expected " + describe(expectedTree));
    }

    // Round trip: a fresh record reading what was written has the same values.
    std::unique_ptr<Record> fresh = Subject::make(false);
    Model freshModel = Subject::snap(*fresh);
    readAndCheck<Subject>(*fresh, freshModel, writtenTree, written, "round trip");
    if (!(visible(freshModel) == visible(model))) {
        fail(std::string(Subject::name) + ": round trip of " + describe(model) + " gave " +
             describe(freshModel));
    }

    // A copy carries the values and its own fields: reading into it changes
    // the copy and leaves the original alone.
    if constexpr (std::is_copy_constructible_v<Record>) {
        Record copy(*record);
        Model copyModel = Subject::snap(copy);
        if (!(copyModel == model)) fail(std::string(Subject::name) + ": copy differs from its original");
        readAndCheck<Subject>(copy, copyModel, first, firstElement, "copy reading the first tree");
        if (!(Subject::snap(*record) == model)) {
            fail(std::string(Subject::name) + ": reading into a copy changed the original");
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace Kest::Msgs::Communications::Forwarder;

    FuzzInput input(data, size);
    const bool filled = (input.byte() & 1) != 0;
    TreeDecoder decoder(input);
    const Node first = decoder.tree();
    const Node second = decoder.tree();
    // For reading what an input does: KEST_FUZZ_TRACE=1 <target>_replay FILE
    if (std::getenv("KEST_FUZZ_TRACE") != nullptr) {
        std::fprintf(stderr, "%s\n%s\n%s\n", filled ? "filled" : "blank", describe(first).c_str(),
                     describe(second).c_str());
    }
    const Element firstElement = toElement(first);
    const Element secondElement = toElement(second);
    check(equalNodes(fromElement(firstElement), first), "Element does not hold the tree it was built from");

    exercise<KeyDataSubject>(filled, first, firstElement, second, secondElement);
    exercise<ServiceDataSubject>(filled, first, firstElement, second, secondElement);
    exercise<PlainMessageSubject>(filled, first, firstElement, second, secondElement);
    exercise<NotificationSubject<ServiceRankNotification>>(filled, first, firstElement, second,
                                                           secondElement);
    exercise<NotificationSubject<ServiceChangeNotification>>(filled, first, firstElement, second,
                                                             secondElement);
    exercise<NotificationSubject<SubscriptionAddedNotification>>(filled, first, firstElement, second,
                                                                 secondElement);
    exercise<NotificationSubject<SubscriptionRemovedNotification>>(filled, first, firstElement,
                                                                   second, secondElement);
    exercise<TypedScalarsSubject>(filled, first, firstElement, second, secondElement);
    exercise<TypedArraysSubject>(filled, first, firstElement, second, secondElement);
    return 0;
}
