#include <kest/metadata/Element.h>

#include <cfloat>
#include <climits>
#include <cmath>
#include <cstdio>
#include <utility>

namespace Kest::MetaData {

namespace {

const char* typeName(std::uint16_t type) {
    switch (type) {
        case Element::EmptyType: return "empty";
        case Element::NumberType: return "unsigned integer";
        case Element::StringType: return "string";
        case Element::SignedType: return "signed integer";
        case Element::ObjectType: return "object";
        case Element::ArrayType: return "array";
        case Element::FloatType: return "floating-point number";
        case Element::BooleanType: return "boolean";
        default: return "unknown";
    }
}

[[noreturn]] void throwWrongKind(const char* wanted, std::uint16_t found) {
    throw MetaDataException(std::string("Kest::MetaData::Element: expected ") + wanted +
                            ", found " + typeName(found));
}

// The number an element holds, copied out of it (by the friend GetAs below) so
// that the conversions need no access to Element. Only the member that
// `type` names is meaningful.
struct NumberView {
    std::uint16_t type = Element::EmptyType;
    unsigned long unsignedNumber = 0;
    long signedNumber = 0;
    double floatNumber = 0.0;
};

std::string describe(const NumberView& number) {
    switch (number.type) {
        case Element::NumberType: return "unsigned integer " + std::to_string(number.unsignedNumber);
        case Element::SignedType: return "signed integer " + std::to_string(number.signedNumber);
        default: {
            char text[40];
            // %.17g prints every double so that it reads back as the same value.
            std::snprintf(text, sizeof text, "%.17g", number.floatNumber);
            return std::string("floating-point number ") + text;
        }
    }
}

[[noreturn]] void throwInexact(const char* wanted, const NumberView& number) {
    throw MetaDataException("Kest::MetaData::Element: the " + describe(number) +
                            " does not fit " + wanted + " exactly");
}

// 2^63 and 2^64: the first doubles above the ranges of long and unsigned long.
// Both are exact, so comparing against them involves no rounding.
constexpr double kLongEnd = 9223372036854775808.0;
constexpr double kUnsignedLongEnd = 18446744073709551616.0;

bool isWholeNumber(double number) { return std::trunc(number) == number; }

// Each conversion below returns false when the number cannot be held exactly.

bool toUnsignedLong(const NumberView& number, unsigned long& out) {
    switch (number.type) {
        case Element::NumberType:
            out = number.unsignedNumber;
            return true;
        case Element::SignedType:
            if (number.signedNumber < 0) return false;
            out = static_cast<unsigned long>(number.signedNumber);
            return true;
        default:
            // NaN fails every comparison; -0.0 passes as 0.
            if (!(number.floatNumber >= 0.0 && number.floatNumber < kUnsignedLongEnd)) return false;
            if (!isWholeNumber(number.floatNumber)) return false;
            out = static_cast<unsigned long>(number.floatNumber);
            return true;
    }
}

bool toLong(const NumberView& number, long& out) {
    switch (number.type) {
        case Element::NumberType:
            if (number.unsignedNumber > static_cast<unsigned long>(LONG_MAX)) return false;
            out = static_cast<long>(number.unsignedNumber);
            return true;
        case Element::SignedType:
            out = number.signedNumber;
            return true;
        default:
            if (!(number.floatNumber >= -kLongEnd && number.floatNumber < kLongEnd)) return false;
            if (!isWholeNumber(number.floatNumber)) return false;
            out = static_cast<long>(number.floatNumber);
            return true;
    }
}

bool toDouble(const NumberView& number, double& out) {
    switch (number.type) {
        case Element::NumberType: {
            const double converted = static_cast<double>(number.unsignedNumber);
            // Rounding may reach 2^64, which converting back could not hold.
            if (converted >= kUnsignedLongEnd) return false;
            if (static_cast<unsigned long>(converted) != number.unsignedNumber) return false;
            out = converted;
            return true;
        }
        case Element::SignedType: {
            const double converted = static_cast<double>(number.signedNumber);
            if (converted >= kLongEnd) return false;
            if (static_cast<long>(converted) != number.signedNumber) return false;
            out = converted;
            return true;
        }
        default:
            out = number.floatNumber;
            return true;
    }
}

bool toFloat(const NumberView& number, float& out) {
    double wide = 0.0;
    if (!toDouble(number, wide)) return false;
    if (std::isnan(wide)) {
        out = static_cast<float>(wide);
        return true;
    }
    // Out of float's range the conversion would not be defined; infinities are in it.
    if (std::isfinite(wide) && std::fabs(wide) > static_cast<double>(FLT_MAX)) return false;
    const float narrow = static_cast<float>(wide);
    if (static_cast<double>(narrow) != wide) return false;
    out = narrow;
    return true;
}

bool toUnsignedInt(const NumberView& number, unsigned int& out) {
    unsigned long wide = 0;
    if (!toUnsignedLong(number, wide) || wide > UINT_MAX) return false;
    out = static_cast<unsigned int>(wide);
    return true;
}

bool toInt(const NumberView& number, int& out) {
    long wide = 0;
    if (!toLong(number, wide) || wide < INT_MIN || wide > INT_MAX) return false;
    out = static_cast<int>(wide);
    return true;
}

}  // namespace

// Copies the kind and, for a number, its value out of `element`.
template <>
void GetAs<NumberView>(const Element& element, NumberView& value) {
    value.type = element.type_;
    if (element.type_ == Element::NumberType) value.unsignedNumber = element.scalar_.unsignedNumber;
    if (element.type_ == Element::SignedType) value.signedNumber = element.scalar_.signedNumber;
    if (element.type_ == Element::FloatType) value.floatNumber = element.scalar_.floatNumber;
}

namespace {

// Reads `element` as T through `convert`, or throws naming `wanted` and
// leaves `value` as it was.
template <class T>
void readNumber(const Element& element, T& value, bool (*convert)(const NumberView&, T&),
                const char* wanted) {
    NumberView number;
    GetAs<NumberView>(element, number);
    if (number.type != Element::NumberType && number.type != Element::SignedType &&
        number.type != Element::FloatType) {
        throwWrongKind(wanted, number.type);
    }
    T converted{};
    if (!convert(number, converted)) throwInexact(wanted, number);
    value = converted;
}

}  // namespace

MetaDataException::MetaDataException(const std::string& what) : std::runtime_error(what) {}

Element::Element() noexcept : type_(EmptyType), scalar_{0} {}

Element::Element(unsigned long number) noexcept : type_(NumberType), scalar_{number} {}

Element::Element(long number) noexcept : type_(SignedType), scalar_{0} {
    scalar_.signedNumber = number;
}

Element::Element(double number) noexcept : type_(FloatType), scalar_{0} {
    scalar_.floatNumber = number;
}

Element::Element(bool flag) noexcept : type_(BooleanType), scalar_{0} { scalar_.boolean = flag; }

Element::Element(std::string text) : type_(StringType), scalar_{0}, text_(std::move(text)) {}

Element::Element(const Object& object)
    : type_(ObjectType), scalar_{0}, object_(std::make_unique<Object>(object)) {}

Element::Element(const Array& array)
    : type_(ArrayType), scalar_{0}, array_(std::make_unique<Array>(array)) {}

Element::Element(const Element& other)
    : type_(other.type_),
      scalar_(other.scalar_),
      text_(other.text_),
      object_(other.object_ ? std::make_unique<Object>(*other.object_) : nullptr),
      array_(other.array_ ? std::make_unique<Array>(*other.array_) : nullptr) {}

Element::Element(Element&& other) noexcept
    : type_(other.type_),
      scalar_(other.scalar_),
      text_(std::move(other.text_)),
      object_(std::move(other.object_)),
      array_(std::move(other.array_)) {
    other.clear();
}

Element& Element::operator=(const Element& other) {
    if (this != &other) {
        Element copy(other);  // a member of `other` may live inside this tree
        *this = std::move(copy);
    }
    return *this;
}

Element& Element::operator=(Element&& other) noexcept {
    if (this != &other) {
        // Keep our old subtree alive until the move is done: `other` may be part of it.
        std::unique_ptr<Object> oldObject = std::move(object_);
        std::unique_ptr<Array> oldArray = std::move(array_);
        type_ = other.type_;
        scalar_ = other.scalar_;
        text_ = std::move(other.text_);
        object_ = std::move(other.object_);
        array_ = std::move(other.array_);
        other.clear();
    }
    return *this;
}

Element::~Element() = default;

void Element::clear() noexcept {
    type_ = EmptyType;
    scalar_.unsignedNumber = 0;
    text_.clear();
    object_.reset();
    array_.reset();
}

std::uint16_t Element::GetElementType() const noexcept { return type_; }

Element& Element::operator[](const std::string& name) {
    if (type_ == EmptyType) {
        // The member is made before this element becomes an object, so that
        // running out of memory leaves it empty.
        auto object = std::make_unique<Object>();
        Element& member = (*object)[name];
        object_ = std::move(object);
        type_ = ObjectType;
        return member;
    }
    if (type_ != ObjectType) throwWrongKind("object", type_);
    return (*object_)[name];
}

const Element& Element::operator[](const std::string& name) const {
    if (type_ != ObjectType) throwWrongKind("object", type_);
    return object_->at(name);
}

Element::operator Array&() {
    if (type_ == EmptyType) {
        array_ = std::make_unique<Array>();
        type_ = ArrayType;
    }
    if (type_ != ArrayType) throwWrongKind("array", type_);
    return *array_;
}

Element::operator const Array&() const {
    if (type_ != ArrayType) throwWrongKind("array", type_);
    return *array_;
}

Element::operator const Object&() const {
    if (type_ == ObjectType) return *object_;
    // An empty element reads as an object without members, so that a record
    // read from an empty tree finds every field missing.
    static const Object noMembers;
    if (type_ == EmptyType) return noMembers;
    throwWrongKind("object", type_);
}

const Element& Object::at(const std::string& name) const {
    auto it = members_.find(name);
    if (it == members_.end()) {
        throw MetaDataException("Kest::MetaData::Object: no member named '" + name + "'");
    }
    return it->second;
}

bool HasElement(const Element& element, const std::string& name) {
    if (element.GetElementType() != Element::ObjectType) return false;
    return static_cast<const Object&>(element).contains(name);
}

template <>
void GetAs<unsigned long>(const Element& element, unsigned long& value) {
    readNumber(element, value, toUnsignedLong, "unsigned long");
}

template <>
void GetAs<unsigned int>(const Element& element, unsigned int& value) {
    readNumber(element, value, toUnsignedInt, "unsigned int");
}

template <>
void GetAs<long>(const Element& element, long& value) {
    readNumber(element, value, toLong, "long");
}

template <>
void GetAs<int>(const Element& element, int& value) {
    readNumber(element, value, toInt, "int");
}

template <>
void GetAs<double>(const Element& element, double& value) {
    readNumber(element, value, toDouble, "double");
}

template <>
void GetAs<float>(const Element& element, float& value) {
    readNumber(element, value, toFloat, "float");
}

template <>
void GetAs<bool>(const Element& element, bool& value) {
    if (element.type_ != Element::BooleanType) throwWrongKind("bool", element.type_);
    value = element.scalar_.boolean;
}

template <>
void GetAs<std::string>(const Element& element, std::string& value) {
    if (element.type_ != Element::StringType) throwWrongKind("string", element.type_);
    value = element.text_;
}

template <>
void SetAs<unsigned long>(const unsigned long& value, Element& element) {
    const unsigned long copy = value;  // `value` may live inside `element`
    element.clear();
    element.type_ = Element::NumberType;
    element.scalar_.unsignedNumber = copy;
}

template <>
void SetAs<unsigned int>(const unsigned int& value, Element& element) {
    SetAs<unsigned long>(static_cast<unsigned long>(value), element);
}

template <>
void SetAs<long>(const long& value, Element& element) {
    const long copy = value;
    element.clear();
    element.type_ = Element::SignedType;
    element.scalar_.signedNumber = copy;
}

template <>
void SetAs<int>(const int& value, Element& element) {
    SetAs<long>(static_cast<long>(value), element);
}

template <>
void SetAs<double>(const double& value, Element& element) {
    const double copy = value;
    element.clear();
    element.type_ = Element::FloatType;
    element.scalar_.floatNumber = copy;
}

template <>
void SetAs<float>(const float& value, Element& element) {
    SetAs<double>(static_cast<double>(value), element);
}

template <>
void SetAs<bool>(const bool& value, Element& element) {
    const bool copy = value;
    element.clear();
    element.type_ = Element::BooleanType;
    element.scalar_.boolean = copy;
}

template <>
void SetAs<std::string>(const std::string& value, Element& element) {
    std::string copy(value);  // `value` may live inside `element`
    element.clear();
    element.type_ = Element::StringType;
    element.text_ = std::move(copy);
}

}  // namespace Kest::MetaData
