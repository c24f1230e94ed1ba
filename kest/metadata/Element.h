#pragma once

// The metadata tree: a generic value that records copy themselves to and from.
//
// An Element is empty, an unsigned integer, a string, an Object (named members,
// ordered by name) or an Array (a sequence of elements). Elements are values:
// copying one copies the whole subtree. Nothing here is thread-safe; a tree is
// owned by one thread at a time.
//
// Errors (a member that is not there, a conversion to the wrong kind) throw
// MetaDataException.

#include <kest/metadata/Api.h>

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
    static constexpr std::uint16_t NumberType = 1;
    static constexpr std::uint16_t StringType = 2;
    static constexpr std::uint16_t ObjectType = 4;
    static constexpr std::uint16_t ArrayType = 5;

    Element() noexcept;
    explicit Element(unsigned long number);
    explicit Element(std::string text);
    explicit Element(const Object& object);
    explicit Element(const Array& array);
    Element(const Element& other);
    Element(Element&& other) noexcept;
    Element& operator=(const Element& other);
    Element& operator=(Element&& other) noexcept;
    ~Element();

    // 0 empty, 1 unsigned integer, 2 string, 4 object, 5 array.
    std::uint16_t GetElementType() const noexcept;

    // Member access. The non-const form turns an empty element into an object
    // and creates the member (empty) when absent; on an element of another kind
    // it throws. The const form throws unless this is an object holding `name`.
    Element& operator[](const std::string& name);
    const Element& operator[](const std::string& name) const;

    // Array access. The non-const conversion turns an empty element into an
    // empty array; every conversion throws on an element of another kind.
    operator Array&();
    operator const Array&() const;
    operator const Object&() const;

private:
    template <class T>
    friend void GetAs(const Element& element, T& value);
    template <class T>
    friend void SetAs(const T& value, Element& element);

    void clear() noexcept;

    std::uint16_t type_;
    unsigned long number_;
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

    // Creates the member, empty, when absent.
    Element& operator[](const std::string& name) { return members_[name]; }
    // Throws MetaDataException when absent.
    const Element& at(const std::string& name) const;

private:
    std::map<std::string, Element> members_;
};

// True when `element` is an object with a member `name`; false, never a throw,
// for an element of any other kind.
KEST_CORE_API bool HasElement(const Element& element, const std::string& name);

// Reads `element` into `value`; throws MetaDataException when the element is
// not of T's kind. Provided for unsigned long and std::string.
template <class T>
void GetAs(const Element& element, T& value);

// Makes `element` hold `value`, whatever it held before. Provided for
// unsigned long and std::string.
template <class T>
void SetAs(const T& value, Element& element);

template <>
KEST_CORE_API void GetAs<unsigned long>(const Element& element, unsigned long& value);
template <>
KEST_CORE_API void GetAs<std::string>(const Element& element, std::string& value);
template <>
KEST_CORE_API void SetAs<unsigned long>(const unsigned long& value, Element& element);
template <>
KEST_CORE_API void SetAs<std::string>(const std::string& value, Element& element);

}  // namespace Kest::MetaData
