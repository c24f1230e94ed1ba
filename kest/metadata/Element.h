#pragma once

// The metadata tree: a generic value that records copy themselves to and from.
//
// An Element is empty, an unsigned integer (unsigned long), a signed integer
// (long), a floating-point number (double), a boolean, a string, an Object
// (named members, ordered by name) or an Array (a sequence of elements).
// Elements are values: copying one copies the whole subtree. Nothing here is
// thread-safe; a tree is owned by one thread at a time.
//
// Errors (a member that is not there, a conversion to the wrong kind, a
// number read as a type that cannot hold it exactly) throw MetaDataException.
//
// Memory: every operation that allocates gives the strong guarantee. When
// memory runs out it throws std::bad_alloc and leaves every tree as it was
// (equal by value); a copy or a constructor then makes nothing. Building the
// text of a MetaDataException allocates too, so an error met while memory
// runs out may surface as std::bad_alloc instead, again with nothing changed.
// The operations marked noexcept, the scalar constructors, GetAs and SetAs of
// numbers and booleans, the lookups of existing members and HasElement
// allocate nothing.

#include <kest/metadata/Api.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace Kest::MetaData {

class Array;
class Object;

// The one exception type of the metadata model.
class KEST_CORE_API MetaDataException : public std::runtime_error {
public:
    explicit MetaDataException(const std::string& what);
};

class KEST_CORE_API Element {
public:
    // Type codes returned by GetElementType().
    static constexpr std::uint16_t EmptyType = 0;
    static constexpr std::uint16_t NumberType = 1;  // an unsigned integer
    static constexpr std::uint16_t StringType = 2;
    static constexpr std::uint16_t SignedType = 3;
    static constexpr std::uint16_t ObjectType = 4;
    static constexpr std::uint16_t ArrayType = 5;
    static constexpr std::uint16_t FloatType = 6;
    static constexpr std::uint16_t BooleanType = 7;

    Element() noexcept;

    // Scalars. The kind follows the argument's type: an unsigned integer type
    // makes an unsigned integer, a signed one a signed integer (so Element(5)
    // holds the signed 5, and Element(-1) the signed -1), float and double a
    // floating-point number, bool a boolean and text a string. Integer types
    // narrower than int promote to int and so are signed. A char is refused
    // at compile time (a character is not a number; pass a string), as is a
    // null pointer; long long and long double do not compile either (the
    // constructors for them would all be equally good).
    explicit Element(unsigned long number) noexcept;
    explicit Element(unsigned int number) noexcept : Element(static_cast<unsigned long>(number)) {}
    explicit Element(long number) noexcept;
    explicit Element(int number) noexcept : Element(static_cast<long>(number)) {}
    explicit Element(double number) noexcept;
    explicit Element(bool flag) noexcept;
    // Strong guarantee (allocates the text).
    explicit Element(std::string text);
    // `text` must not be null. Without this constructor a string literal would
    // convert to bool rather than to std::string.
    explicit Element(const char* text) : Element(std::string(text)) {}
    Element(char) = delete;
    Element(std::nullptr_t) = delete;

    // Deep copies. Strong guarantee: if memory runs out nothing is made and
    // the source is unchanged.
    explicit Element(const Object& object);
    explicit Element(const Array& array);
    Element(const Element& other);
    Element(Element&& other) noexcept;
    // Strong guarantee: if memory runs out this element is unchanged. `other`
    // may be a member of this tree.
    Element& operator=(const Element& other);
    Element& operator=(Element&& other) noexcept;
    ~Element();

    // 0 empty, 1 unsigned integer, 2 string, 3 signed integer, 4 object,
    // 5 array, 6 floating point, 7 boolean.
    std::uint16_t GetElementType() const noexcept;

    // Member access. The non-const form turns an empty element into an object
    // and creates the member (empty) when absent; on an element of another kind
    // it throws. The const form throws unless this is an object holding `name`.
    // Strong guarantee: if memory runs out while the member is created, the
    // element is unchanged (an empty one stays empty).
    Element& operator[](const std::string& name);
    const Element& operator[](const std::string& name) const;

    // Array access. The non-const conversion turns an empty element into an
    // empty array; every conversion throws on an element of another kind.
    // Strong guarantee: if memory runs out an empty element stays empty.
    operator Array&();
    operator const Array&() const;
    // Object access: an empty element reads as an object without members (so
    // a record read from an empty tree finds every field missing); a number,
    // string, boolean or array throws.
    operator const Object&() const;

private:
    template <class T>
    friend void GetAs(const Element& element, T& value);
    template <class T>
    friend void SetAs(const T& value, Element& element);

    void clear() noexcept;

    // The scalar kinds share storage; type_ says which member is live.
    union Scalar {
        unsigned long unsignedNumber;
        long signedNumber;
        double floatNumber;
        bool boolean;
    };

    std::uint16_t type_;
    Scalar scalar_;
    std::string text_;
    std::unique_ptr<Object> object_;
    std::unique_ptr<Array> array_;
};

// A sequence of elements.
class KEST_CORE_API Array {
public:
    using const_iterator = std::vector<Element>::const_iterator;
    using iterator = std::vector<Element>::iterator;

    const_iterator begin() const noexcept { return items_.begin(); }
    const_iterator end() const noexcept { return items_.end(); }
    iterator begin() noexcept { return items_.begin(); }
    iterator end() noexcept { return items_.end(); }
    unsigned long size() const noexcept { return items_.size(); }

    // Unchecked, as for std::vector.
    Element& operator[](unsigned long index) { return items_[index]; }
    const Element& operator[](unsigned long index) const { return items_[index]; }

    // Strong guarantee: if memory runs out the array is unchanged.
    void resize(unsigned long count) { items_.resize(count); }
    void push_back(Element element) { items_.push_back(std::move(element)); }

private:
    std::vector<Element> items_;
};

// Named members, ordered by name.
class KEST_CORE_API Object {
public:
    using const_iterator = std::map<std::string, Element>::const_iterator;

    const_iterator begin() const noexcept { return members_.begin(); }
    const_iterator end() const noexcept { return members_.end(); }
    unsigned long size() const noexcept { return members_.size(); }
    bool contains(const std::string& name) const { return members_.count(name) != 0; }

    // Creates the member, empty, when absent. Strong guarantee: if memory
    // runs out the object is unchanged.
    Element& operator[](const std::string& name) { return members_[name]; }
    // Throws MetaDataException when absent.
    const Element& at(const std::string& name) const;

private:
    std::map<std::string, Element> members_;
};

// True when `element` is an object with a member `name`; false, never a throw,
// for an element of any other kind.
KEST_CORE_API bool HasElement(const Element& element, const std::string& name);

namespace detail {
template <class T>
inline constexpr bool unsupportedValueType = false;
}  // namespace detail

// GetAs<T>(element, value) reads `element` into `value`. Provided for
// unsigned long, unsigned int, long, int, double, float, bool and std::string.
//
// A number reads as any numeric T that holds its value exactly, whatever kind
// of number the element is:
//  - an integer reads as an integer type when it is in that type's range: an
//    unsigned 5 reads as a long 5 and a signed 5 as an unsigned long 5, but
//    -1 never reads as unsigned and an unsigned above LONG_MAX never as long;
//    int and unsigned int take only values in their range;
//  - an integer reads as double (or float) only when that type represents it
//    exactly: 2^53 does, 2^53 + 1 does not;
//  - a floating-point number reads as an integer type only when it is a whole
//    number in range (-0.0 reads as 0; NaN and infinities never do);
//  - a floating-point number reads as double always, and as float only when
//    float holds it exactly; NaN reads as NaN and infinities as infinities.
// A boolean is not a number: bool reads only from a boolean, and no number
// type reads from a boolean. A string reads only as std::string.
//
// Throws MetaDataException, leaving `value` unchanged, when the element is of
// another kind or its number does not fit T exactly. Any other T does not
// compile. Only GetAs<std::string> allocates on success: strong guarantee,
// `value` is unchanged if memory runs out.
template <class T>
void GetAs(const Element& element, T& value) {
    static_assert(detail::unsupportedValueType<T>,
                  "Kest::MetaData::GetAs<T>: T must be unsigned long, unsigned int, long, int, "
                  "double, float, bool or std::string");
    (void)element;
    (void)value;
}

// SetAs<T>(value, element) makes `element` hold `value`, whatever it held
// before: unsigned long and unsigned int as an unsigned integer, long and int
// as a signed integer, double and float as a floating-point number (a float
// widens exactly), bool as a boolean, std::string as a string. Any other T
// does not compile. Throws only std::bad_alloc (for a string), with the strong
// guarantee: `element` is then unchanged.
template <class T>
void SetAs(const T& value, Element& element) {
    static_assert(detail::unsupportedValueType<T>,
                  "Kest::MetaData::SetAs<T>: T must be unsigned long, unsigned int, long, int, "
                  "double, float, bool or std::string");
    (void)value;
    (void)element;
}

template <>
KEST_CORE_API void GetAs<unsigned long>(const Element& element, unsigned long& value);
template <>
KEST_CORE_API void GetAs<unsigned int>(const Element& element, unsigned int& value);
template <>
KEST_CORE_API void GetAs<long>(const Element& element, long& value);
template <>
KEST_CORE_API void GetAs<int>(const Element& element, int& value);
template <>
KEST_CORE_API void GetAs<double>(const Element& element, double& value);
template <>
KEST_CORE_API void GetAs<float>(const Element& element, float& value);
template <>
KEST_CORE_API void GetAs<bool>(const Element& element, bool& value);
template <>
KEST_CORE_API void GetAs<std::string>(const Element& element, std::string& value);

template <>
KEST_CORE_API void SetAs<unsigned long>(const unsigned long& value, Element& element);
template <>
KEST_CORE_API void SetAs<unsigned int>(const unsigned int& value, Element& element);
template <>
KEST_CORE_API void SetAs<long>(const long& value, Element& element);
template <>
KEST_CORE_API void SetAs<int>(const int& value, Element& element);
template <>
KEST_CORE_API void SetAs<double>(const double& value, Element& element);
template <>
KEST_CORE_API void SetAs<float>(const float& value, Element& element);
template <>
KEST_CORE_API void SetAs<bool>(const bool& value, Element& element);
template <>
KEST_CORE_API void SetAs<std::string>(const std::string& value, Element& element);

}  // namespace Kest::MetaData
