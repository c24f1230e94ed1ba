#include <kest/metadata/Element.h>

#include <utility>

namespace Kest::MetaData {

namespace {

const char* typeName(std::uint16_t type) {
    switch (type) {
        case Element::EmptyType: return "empty";
        case Element::NumberType: return "number";
        case Element::StringType: return "string";
        case Element::ObjectType: return "object";
        case Element::ArrayType: return "array";
        default: return "unknown";
    }
}

[[noreturn]] void throwWrongKind(const char* wanted, std::uint16_t found) {
    throw MetaDataException(std::string("Kest::MetaData::Element: expected ") + wanted +
                            ", found " + typeName(found));
}

}  // namespace

MetaDataException::MetaDataException(const std::string& what) : std::runtime_error(what) {}

Element::Element() noexcept : type_(EmptyType), number_(0) {}

Element::Element(unsigned long number) : type_(NumberType), number_(number) {}

Element::Element(std::string text) : type_(StringType), number_(0), text_(std::move(text)) {}

Element::Element(const Object& object)
    : type_(ObjectType), number_(0), object_(std::make_unique<Object>(object)) {}

Element::Element(const Array& array)
    : type_(ArrayType), number_(0), array_(std::make_unique<Array>(array)) {}

Element::Element(const Element& other)
    : type_(other.type_),
      number_(other.number_),
      text_(other.text_),
      object_(other.object_ ? std::make_unique<Object>(*other.object_) : nullptr),
      array_(other.array_ ? std::make_unique<Array>(*other.array_) : nullptr) {}

Element::Element(Element&& other) noexcept
    : type_(other.type_),
      number_(other.number_),
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
        number_ = other.number_;
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
    number_ = 0;
    text_.clear();
    object_.reset();
    array_.reset();
}

std::uint16_t Element::GetElementType() const noexcept { return type_; }

Element& Element::operator[](const std::string& name) {
    if (type_ == EmptyType) {
        object_ = std::make_unique<Object>();
        type_ = ObjectType;
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
    if (type_ != ObjectType) throwWrongKind("object", type_);
    return *object_;
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
    if (element.type_ != Element::NumberType) throwWrongKind("number", element.type_);
    value = element.number_;
}

template <>
void GetAs<std::string>(const Element& element, std::string& value) {
    if (element.type_ != Element::StringType) throwWrongKind("string", element.type_);
    value = element.text_;
}

template <>
void SetAs<unsigned long>(const unsigned long& value, Element& element) {
    element.clear();
    element.type_ = Element::NumberType;
    element.number_ = value;
}

template <>
void SetAs<std::string>(const std::string& value, Element& element) {
    std::string copy(value);  // `value` may live inside `element`
    element.clear();
    element.type_ = Element::StringType;
    element.text_ = std::move(copy);
}

}  // namespace Kest::MetaData
