#include <kest/net/Json.h>

#include <nlohmann/json.hpp>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace Kest::Net {

namespace {

using Kest::MetaData::Array;
using Kest::MetaData::Element;
using Kest::MetaData::Object;
using Json = nlohmann::json;

[[noreturn]] void toJsonError(const std::string& what) { throw WireError("Kest::Net::toJson: " + what); }
[[noreturn]] void fromJsonError(const std::string& what) { throw WireError("Kest::Net::fromJson: " + what); }

Json toValue(const Element& element) {
    switch (element.GetElementType()) {
        case Element::EmptyType:
            return Json(nullptr);
        case Element::NumberType: {
            unsigned long value = 0;
            Kest::MetaData::GetAs(element, value);
            return Json(value);
        }
        case Element::SignedType: {
            long value = 0;
            Kest::MetaData::GetAs(element, value);
            return Json(value);
        }
        case Element::FloatType: {
            double value = 0.0;
            Kest::MetaData::GetAs(element, value);
            if (std::isnan(value)) toJsonError("NaN has no JSON form");
            if (std::isinf(value)) toJsonError("an infinity has no JSON form");
            return Json(value);
        }
        case Element::BooleanType: {
            bool value = false;
            Kest::MetaData::GetAs(element, value);
            return Json(value);
        }
        case Element::StringType: {
            std::string text;
            Kest::MetaData::GetAs(element, text);
            return Json(std::move(text));
        }
        case Element::ObjectType: {
            Json object = Json::object();
            for (const auto& member : static_cast<const Object&>(element)) {
                object.emplace(member.first, toValue(member.second));
            }
            return object;
        }
        case Element::ArrayType: {
            Json array = Json::array();
            for (const Element& item : static_cast<const Array&>(element)) array.push_back(toValue(item));
            return array;
        }
        default:
            toJsonError("a tree element of unknown kind " + std::to_string(element.GetElementType()));
    }
}

// Builds the tree as nlohmann's parser reports what it reads, checking the
// limits at each step, before the containers grow. Returning false stops
// the parser; the reason is kept for the WireError.
class TreeBuilder {
public:
    explicit TreeBuilder(const Limits& limits) : limits_(limits) {}

    Element& result() { return root_; }
    const std::string& refusal() const { return refusal_; }

    bool null() { return place(Element()); }
    bool boolean(bool value) { return place(Element(value)); }
    bool number_integer(Json::number_integer_t value) {
        // Only "-0" comes here without being negative; it is 0, like "0".
        if (value >= 0) return place(Element(static_cast<unsigned long>(value)));
        return place(Element(static_cast<long>(value)));
    }
    bool number_unsigned(Json::number_unsigned_t value) {
        return place(Element(static_cast<unsigned long>(value)));
    }
    bool number_float(Json::number_float_t value, const std::string& text) {
        // nlohmann reads an integer too large for 64 bits as a double; that
        // would change both its kind and its value.
        if (text.find_first_of(".eE") == std::string::npos) {
            return refuse("the integer " + text + " is beyond the 64-bit range");
        }
        return place(Element(static_cast<double>(value)));
    }
    bool string(std::string& value) { return place(Element(std::move(value))); }
    bool binary(Json::binary_t&) { return refuse("binary data"); }

    bool start_object(std::size_t) {
        if (!enter()) return false;
        Element* element = slot();
        if (element == nullptr) return false;
        *element = Element(Object());
        stack_.push_back(Frame{element, nullptr, true, 0});
        return true;
    }

    bool key(std::string& name) {
        Frame& frame = stack_.back();
        if (frame.count == limits_.maxMembersPerObject) {
            return refuse("an object of more than " + std::to_string(limits_.maxMembersPerObject) + " members");
        }
        const std::size_t before = static_cast<const Object&>(*frame.container).size();
        Element& member = (*frame.container)[name];
        if (static_cast<const Object&>(*frame.container).size() == before) {
            return refuse("the member name \"" + name + "\" twice in one object");
        }
        ++frame.count;
        frame.pending = &member;
        return true;
    }

    bool end_object() {
        stack_.pop_back();
        return true;
    }

    bool start_array(std::size_t) {
        if (!enter()) return false;
        Element* element = slot();
        if (element == nullptr) return false;
        static_cast<void>(static_cast<Array&>(*element));  // an empty element becomes an empty array
        stack_.push_back(Frame{element, nullptr, false, 0});
        return true;
    }

    bool end_array() {
        stack_.pop_back();
        return true;
    }

    bool parse_error(std::size_t position, const std::string&, const nlohmann::detail::exception& error) {
        // nlohmann's text names the position, the token and what it expected.
        (void)position;
        return refuse(error.what());
    }

private:
    struct Frame {
        Element* container;
        Element* pending;  // object: the member whose value comes next
        bool isObject;
        std::uint32_t count;
    };

    bool refuse(const std::string& why) {
        if (refusal_.empty()) refusal_ = why;
        return false;
    }

    bool enter() {
        if (stack_.size() + 1 > limits_.maxDepth) {
            return refuse("nesting deeper than " + std::to_string(limits_.maxDepth) + " levels");
        }
        return true;
    }

    // Where the next value goes: the root, the pending member of an object
    // or a new last element of an array.
    Element* slot() {
        if (stack_.empty()) return &root_;
        Frame& frame = stack_.back();
        if (frame.isObject) return frame.pending;
        if (frame.count == limits_.maxElementsPerArray) {
            refuse("an array of more than " + std::to_string(limits_.maxElementsPerArray) + " elements");
            return nullptr;
        }
        ++frame.count;
        Array& array = *frame.container;
        array.push_back(Element());
        return &array[array.size() - 1];
    }

    bool place(Element value) {
        Element* element = slot();
        if (element == nullptr) return false;
        *element = std::move(value);
        return true;
    }

    Limits limits_;
    Element root_;
    std::vector<Frame> stack_;
    std::string refusal_;
};

}  // namespace

std::string toJson(const Element& tree) {
    const Json value = toValue(tree);
    try {
        return value.dump();
    } catch (const Json::exception& error) {
        // Text that is not UTF-8 (error 316).
        toJsonError(error.what());
    }
}

Element fromJson(std::string_view json, const Limits& limits) {
    if (json.size() > limits.maxBytes) {
        fromJsonError(std::to_string(json.size()) + " bytes, more than the limit of " +
                      std::to_string(limits.maxBytes));
    }
    TreeBuilder builder(limits);
    bool parsed = false;
    try {
        parsed = Json::sax_parse(json.begin(), json.end(), &builder);
    } catch (const Json::exception& error) {
        fromJsonError(error.what());
    }
    if (!parsed) fromJsonError(builder.refusal().empty() ? "malformed JSON" : builder.refusal());
    return std::move(builder.result());
}

}  // namespace Kest::Net
