#pragma once

// Reflector templates: the typed fields of reflective records.
//
// ReflectorNoWriteParend<T, Serialized> holds one value of T. Reflector<T,
// IsRecord, Serialized> is the same field, named for the value kinds it holds:
// IsRecord is true exactly when T is itself a record (a MirroredObject).
// ReflectorArray<T> holds a std::vector<T>.
//
// Value types of Reflector and ReflectorNoWriteParend: unsigned long,
// unsigned int, long, int, double, float, bool and std::string (written and
// read with SetAs and GetAs, so a number reads into any numeric field that
// holds it exactly; see Element.h), Kest::Msgs::Identifier and records. Value
// types of ReflectorArray: the eight scalar types. Any other type stops the
// build with one static_assert that names the supported ones.
//
// Reading a field from a metadata tree never throws, whatever the tree: a
// scalar or record field whose element is missing, of the wrong kind, or a
// number its type cannot hold exactly (a -1 for an unsigned field, 0.5 for an
// int, a boolean for a number) is reset (default value, uninitialised); an
// array field whose element is malformed keeps its value and prints one
// diagnostic line. An empty tree reads as an empty object (every field is
// missing); a tree that is neither an object nor empty holds no field: an
// array field prints "Exception MetaDat::ReflectorArray MetaData Array
// corrupt for <name>" and keeps its value. Reading the value of an unset
// scalar or record field with operator()() throws MetaDataException.
//
// Memory: a read that runs out of memory is a failed read like any other
// and throws nothing: a scalar or record field is reset (a record field whose
// default record cannot be made is only marked unset), an array field keeps
// its value and prints its "MetaData Array corrupt for <name>" line (the line
// is written whole even to a std::cout whose buffer cannot grow); a record
// read field by field reads its other fields as usual. Assigning a field (operator=, assign) gives the strong guarantee: if
// memory runs out, the field is unchanged. Writing a field into a tree gives
// the basic one: the tree stays a valid tree that may hold the field partly
// written (an array of the right length with only its first entries set).
//
// Not thread-safe; see MirroredObject.

#include <kest/metadata/Element.h>
#include <kest/metadata/MirroredObject.h>
#include <kest/model/Api.h>

#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace Kest::MetaData {

namespace detail {

// Value types a field copies with SetAs and GetAs.
template <class T>
inline constexpr bool isScalarValue =
    std::is_same_v<T, unsigned long> || std::is_same_v<T, unsigned int> ||
    std::is_same_v<T, long> || std::is_same_v<T, int> || std::is_same_v<T, double> ||
    std::is_same_v<T, float> || std::is_same_v<T, bool> || std::is_same_v<T, std::string>;

// Value types that copy themselves to and from a tree: Identifier and records.
template <class T, class = void>
inline constexpr bool copiesItself = false;
template <class T>
inline constexpr bool copiesItself<
    T, std::void_t<decltype(std::declval<const T&>().copyToMetaData(std::declval<Element&>())),
                   decltype(std::declval<T&>().copyFromMetaData(std::declval<const Element&>()))>> =
    true;

template <class T>
inline constexpr bool isFieldValue = isScalarValue<T> || copiesItself<T>;

template <class T>
void writeValue(const T& value, Element& element) {
    if constexpr (copiesItself<T>) {
        value.copyToMetaData(element);
    } else {
        SetAs<T>(value, element);
    }
}

template <class T>
void readValue(const Element& element, T& value) {
    if constexpr (copiesItself<T>) {
        value.copyFromMetaData(element);
    } else {
        GetAs<T>(element, value);
    }
}

// The two diagnostic lines of array fields, written to standard output.
KEST_MESSAGES_API void reportArrayExpected();
KEST_MESSAGES_API void reportArrayCorrupt(const std::string& fieldName);

}  // namespace detail

// A field holding one T. With Serialized false the field stays out of tree copies.
template <class T, bool Serialized>
class KEST_MESSAGES_API ReflectorNoWriteParend : public ReflectorBase {
    static_assert(detail::isFieldValue<T>,
                  "Kest::MetaData::Reflector<T>: unsupported field type T; a field holds unsigned "
                  "long, unsigned int, long, int, double, float, bool, std::string, "
                  "Kest::Msgs::Identifier or a record (a MirroredObject)");

public:
    ReflectorNoWriteParend(MirroredObject* parent, std::string name, bool required)
        : ReflectorBase(parent, std::move(name), required), value_() {}
    // Copy of `other` registered with `parent`.
    ReflectorNoWriteParend(MirroredObject* parent, const ReflectorNoWriteParend& other)
        : ReflectorBase(parent, other), value_(other.value_) {}
    // Copies name, flags and value; the field stays with its record. Strong
    // guarantee for every value type that swaps without throwing (the
    // scalars, Identifier and the records of this library): if memory runs
    // out, the field is unchanged. For a record type without a non-throwing
    // swap, as strong as that record's own assignment.
    ReflectorNoWriteParend& operator=(const ReflectorNoWriteParend& other) {
        if constexpr (std::is_nothrow_swappable_v<T>) {
            if (this != &other) {
                // Everything that allocates happens in a copy aside; the value
                // is assigned with T's own operator= (a record's may do more
                // than copy, e.g. keep a required field set), then swapped in.
                ReflectorNoWriteParend copy(nullptr, *this);
                copy.ReflectorBase::operator=(other);
                copy.value_ = other.value_;
                swap(copy);
            }
        } else {
            ReflectorBase::operator=(other);
            value_ = other.value_;
        }
        return *this;
    }
    ~ReflectorNoWriteParend() override = default;

    // Writes the value under name() when the field is initialised; else nothing.
    void copyToMetaData(Element& tree) const override {
        if constexpr (Serialized) {
            if (initialized()) detail::writeValue(value_, tree[name()]);
        } else {
            (void)tree;
        }
    }

    void copyFromMetaData(const Element& tree) override { assign(tree); }

    // Stores `value`; the field is then initialised.
    virtual void assign(const T& value) {
        value_ = value;
        init();
    }

    // Reads the element named name() of `tree`. On any failure (no such
    // element, wrong kind, a number the type cannot hold, memory running
    // out) the field is reset instead. Never throws.
    virtual void assign(const Element& tree) {
        if constexpr (Serialized) {
            try {
                detail::readValue(tree[name()], value_);
                init();
            } catch (...) {
                resetAfterFailedRead();
            }
        } else {
            (void)tree;
        }
    }

    // Default value (0, false, "", Identifier(0), a default record),
    // uninitialised. For a record value the default record is made first:
    // std::bad_alloc if that runs out of memory, the field unchanged.
    void reset() {
        value_ = T();
        uninit();
    }

    // The value; throws MetaDataException when the field is not initialised.
    const T& operator()() const {
        // Test first: the text argument would otherwise be built on every read.
        if (!initialized()) throwIfUninited("Kest::MetaData::Reflector::operator()()");
        return value_;
    }

    // Exchanges name, flags and value with `other`; each field stays with
    // its record. For value types that swap without throwing.
    void swap(ReflectorNoWriteParend& other) noexcept {
        static_assert(std::is_nothrow_swappable_v<T>,
                      "Kest::MetaData::Reflector::swap: the value type has no non-throwing swap");
        swapState(other);
        using std::swap;
        swap(value_, other.value_);
    }

protected:
    T value_;

private:
    // reset() that cannot throw: a default record allocates its field list,
    // and when even that fails the field is only marked unset, its value
    // left as read (operator()() then throws as for any unset field).
    void resetAfterFailedRead() noexcept {
        if constexpr (std::is_base_of_v<MirroredObject, T>) {
            try {
                value_ = T();
            } catch (...) {
            }
        } else {
            value_ = T();
        }
        uninit();
    }
};

template <class T, bool IsRecord, bool Serialized>
class KEST_MESSAGES_API Reflector : public ReflectorNoWriteParend<T, Serialized> {
    static_assert(IsRecord == std::is_base_of_v<MirroredObject, T>,
                  "IsRecord must be true exactly for record value types");

public:
    Reflector(MirroredObject* parent, std::string name, bool required)
        : ReflectorNoWriteParend<T, Serialized>(parent, std::move(name), required) {}
    Reflector(MirroredObject* parent, const Reflector& other)
        : ReflectorNoWriteParend<T, Serialized>(parent, other) {}
    Reflector& operator=(const Reflector& other) {
        ReflectorNoWriteParend<T, Serialized>::operator=(other);
        return *this;
    }
    ~Reflector() override = default;

    using ReflectorNoWriteParend<T, Serialized>::assign;
};

// A field holding a std::vector<T>, written to the tree as an array.
template <class T>
class KEST_MESSAGES_API ReflectorArray : public ReflectorBase {
    static_assert(detail::isScalarValue<T>,
                  "Kest::MetaData::ReflectorArray<T>: unsupported element type T; an array field "
                  "holds unsigned long, unsigned int, long, int, double, float, bool or std::string");

public:
    // `option` is carried for the framework's serialisers and copied with the
    // field; it does not change how the field copies itself.
    ReflectorArray(MirroredObject* parent, std::string name, bool required, bool option = false)
        : ReflectorBase(parent, std::move(name), required), option_(option) {}
    ReflectorArray(MirroredObject* parent, const ReflectorArray& other)
        : ReflectorBase(parent, other), value_(other.value_), option_(other.option_) {}
    // Copies name, flags, values and option; the field stays with its
    // record. Strong guarantee: if memory runs out, the field is unchanged.
    ReflectorArray& operator=(const ReflectorArray& other) {
        if (this != &other) {
            ReflectorArray copy(nullptr, other);
            swap(copy);
        }
        return *this;
    }
    ~ReflectorArray() override = default;

    // When initialised, makes the element named name() an array of the values;
    // otherwise writes nothing.
    void copyToMetaData(Element& tree) const override {
        if (!initialized()) return;
        Array& array = tree[name()];
        array.resize(value_.size());
        for (unsigned long i = 0; i < value_.size(); ++i) detail::writeValue<T>(value_[i], array[i]);
    }

    // Reads the field from `tree` through the virtual assign(const Element&).
    // An empty tree reads as an empty object: the field is missing, so it is
    // emptied and unset. A tree that is neither an object nor empty (a
    // number, a string, an array) holds no field: prints "Exception
    // MetaDat::ReflectorArray MetaData Array corrupt for " and the field's
    // name, and keeps the value. Never throws.
    void copyFromMetaData(const Element& tree) override {
        switch (tree.GetElementType()) {
            // An object is read in place: a copy of it would copy the whole tree.
            case Element::ObjectType:
            // An empty element answers every lookup as an empty object does.
            case Element::EmptyType:
                assign(tree);
                return;
            default:
                detail::reportArrayCorrupt(name());
                return;
        }
    }

    // Stores a copy of `value`; the field is then initialised. Strong
    // guarantee: if memory runs out, the field is unchanged.
    virtual void assign(const std::vector<T>& value) {
        // Copied aside and swapped in: assigning element by element could
        // stop half way, leaving values that are neither old nor new.
        std::vector<T> copy(value);
        value_.swap(copy);
        init();
    }

    // Missing name: empty and uninitialised. Not an array: a diagnostic line,
    // field unchanged. An entry of the wrong kind: a diagnostic line naming the
    // field, field unchanged. Memory running out while reading: the same
    // line, field unchanged. Never throws.
    virtual void assign(const Element& tree) {
        if (!HasElement(tree, name())) {
            value_.clear();
            uninit();
            return;
        }
        const Element& element = tree[name()];
        if (element.GetElementType() != Element::ArrayType) {
            detail::reportArrayExpected();
            return;
        }
        try {
            const Array& array = element;
            std::vector<T> values;
            values.reserve(array.size());
            for (auto it = array.begin(); it != array.end(); ++it) {
                T value{};
                detail::readValue<T>(*it, value);
                values.push_back(std::move(value));
            }
            assign(values);
        } catch (...) {
            detail::reportArrayCorrupt(name());
        }
    }

    // The values, empty when the field is not initialised.
    const std::vector<T>& operator()() const noexcept { return value_; }
    // The same values by reference, under a name that derived fields keep
    // when they give operator()() another form (see ReflectedAddress).
    const std::vector<T>& values() const noexcept { return value_; }
    bool option() const noexcept { return option_; }

    // Exchanges name, flags, values and option with `other`; each field
    // stays with its record.
    void swap(ReflectorArray& other) noexcept {
        swapState(other);
        value_.swap(other.value_);
        std::swap(option_, other.option_);
    }

protected:
    std::vector<T> value_;
    bool option_;
};

}  // namespace Kest::MetaData

namespace Kest::Msgs {

// An address: a path of names, most general first, as a reflected vector of strings.
class KEST_MESSAGES_API ReflectedAddress : public MetaData::ReflectorArray<std::string> {
public:
    ReflectedAddress(MetaData::MirroredObject* parent, std::string name, bool required = false)
        : ReflectorArray(parent, std::move(name), required) {}
    ReflectedAddress(MetaData::MirroredObject* parent, const ReflectedAddress& other)
        : ReflectorArray(parent, other) {}
    ReflectedAddress& operator=(const ReflectedAddress& other) {
        ReflectorArray::operator=(other);
        return *this;
    }
    ~ReflectedAddress() override = default;

    // A copy of the address, empty when the field is not initialised. Use
    // values() to read it without a copy.
    std::vector<std::string> operator()() const;
};

}  // namespace Kest::Msgs
