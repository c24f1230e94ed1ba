#pragma once

// Full, comparable descriptions of the library's values for the harness's
// before-and-after comparisons: a metadata tree by value, a record by its
// fields (name, flags and value, set or not), a message by its fields.
// All of them allocate: call them unarmed.

#include <kest/metadata/Element.h>
#include <kest/metadata/MirroredObject.h>
#include <kest/model/Forwarder.h>
#include <kest/model/Identifier.h>
#include <kest/model/MessageKey.h>
#include <kest/model/MessageKeyData.h>
#include <kest/model/Reflector.h>

#include <cstdio>
#include <list>
#include <memory>
#include <string>
#include <vector>

namespace KestAlloc {

inline std::string describe(const Kest::MetaData::Element& element) {
    using Kest::MetaData::Element;
    switch (element.GetElementType()) {
        case Element::EmptyType: return "empty";
        case Element::NumberType: {
            unsigned long v = 0;
            Kest::MetaData::GetAs<unsigned long>(element, v);
            return "u" + std::to_string(v);
        }
        case Element::SignedType: {
            long v = 0;
            Kest::MetaData::GetAs<long>(element, v);
            return "s" + std::to_string(v);
        }
        case Element::FloatType: {
            double v = 0;
            Kest::MetaData::GetAs<double>(element, v);
            char text[64];
            std::snprintf(text, sizeof text, "f%a", v);
            return text;
        }
        case Element::BooleanType: {
            bool v = false;
            Kest::MetaData::GetAs<bool>(element, v);
            return v ? "true" : "false";
        }
        case Element::StringType: {
            std::string v;
            Kest::MetaData::GetAs<std::string>(element, v);
            return "\"" + v + "\"";
        }
        case Element::ObjectType: {
            std::string text = "{";
            for (const auto& member : static_cast<const Kest::MetaData::Object&>(element)) {
                text += member.first + "=" + describe(member.second) + ",";
            }
            return text + "}";
        }
        case Element::ArrayType: {
            std::string text = "[";
            for (const Element& item : static_cast<const Kest::MetaData::Array&>(element)) {
                text += describe(item) + ",";
            }
            return text + "]";
        }
        default: return "?";
    }
}

inline std::string describe(const std::vector<std::string>& address) {
    std::string text = "(";
    for (const std::string& part : address) text += part + "/";
    return text + ")";
}

inline std::string describe(const Kest::Msgs::MessageKey& key) {
    return "key(" + std::to_string(key.id()) + " " + describe(key.sender()) + " " + describe(key.destination()) +
           (key.hashFunction() ? " hashed" : "") + ")";
}

std::string describeRecord(const Kest::MetaData::MirroredObject& record);
std::string describeRecord(const Kest::MetaData::MirroredObject& record, const std::string& masked);

namespace detail {

// The value of a field, whether it is set or not (operator()() would throw
// for an unset one).
template <class T, bool Serialized>
struct PeekValue : Kest::MetaData::ReflectorNoWriteParend<T, Serialized> {
    static const T& of(const Kest::MetaData::ReflectorNoWriteParend<T, Serialized>& field) {
        return field.*(&PeekValue::value_);
    }
};

template <class T>
bool describeValue(const Kest::MetaData::ReflectorBase& field, std::string& text) {
    const auto* typed = dynamic_cast<const Kest::MetaData::ReflectorNoWriteParend<T, true>*>(&field);
    if (typed == nullptr) return false;
    const T& value = PeekValue<T, true>::of(*typed);
    if constexpr (std::is_base_of_v<Kest::MetaData::MirroredObject, T>) {
        text += describeRecord(value);
    } else if constexpr (std::is_same_v<T, std::string>) {
        text += "\"" + value + "\"";
    } else if constexpr (std::is_same_v<T, Kest::Msgs::Identifier>) {
        text += "id" + std::to_string(static_cast<unsigned long>(value));
    } else {
        text += std::to_string(value);
    }
    return true;
}

}  // namespace detail

inline std::string describeField(const Kest::MetaData::ReflectorBase& field) {
    std::string text = field.name() + (field.isRequired() ? "!" : "") + (field.initialized() ? "=" : "~");
    if (const auto* array = dynamic_cast<const Kest::MetaData::ReflectorArray<std::string>*>(&field)) {
        return text + describe(array->values()) + (array->option() ? "+" : "");
    }
    if (detail::describeValue<unsigned long>(field, text) || detail::describeValue<long>(field, text) ||
        detail::describeValue<int>(field, text) || detail::describeValue<double>(field, text) ||
        detail::describeValue<bool>(field, text) || detail::describeValue<std::string>(field, text) ||
        detail::describeValue<Kest::Msgs::Identifier>(field, text) ||
        detail::describeValue<Kest::Msgs::Structs::MessageKeyData>(field, text) ||
        detail::describeValue<Kest::Msgs::Communications::Forwarder::ServiceData>(field, text)) {
        return text;
    }
    return text + "(a field of another type)";
}

// The fields of `record` in declaration order, each described whole. The
// value of a field named `masked` (a message's fresh identity, say) is left
// out: only its name and flags are described.
inline std::vector<std::string> fieldsOf(const Kest::MetaData::MirroredObject& record,
                                         const std::string& masked = "") {
    std::vector<std::string> fields;
    record.forEachField([&](const Kest::MetaData::ReflectorBase& field) {
        if (!masked.empty() && field.name() == masked) {
            fields.push_back(field.name() + (field.isRequired() ? "!" : "") + (field.initialized() ? "=..." : "~..."));
        } else {
            fields.push_back(describeField(field));
        }
    });
    return fields;
}

inline std::string describeRecord(const Kest::MetaData::MirroredObject& record, const std::string& masked) {
    std::string text = "<";
    for (const std::string& field : fieldsOf(record, masked)) text += field + ";";
    return text + ">";
}

inline std::string describeRecord(const Kest::MetaData::MirroredObject& record) {
    return describeRecord(record, "");
}

namespace detail {

template <class T>
bool flattenRecordField(const Kest::MetaData::ReflectorBase& field, const std::string& prefix,
                        std::vector<std::string>& out);

inline void flatten(const Kest::MetaData::MirroredObject& record, const std::string& prefix,
                    const std::string& masked, std::vector<std::string>& out) {
    record.forEachField([&](const Kest::MetaData::ReflectorBase& field) {
        if (flattenRecordField<Kest::Msgs::Structs::MessageKeyData>(field, prefix, out) ||
            flattenRecordField<Kest::Msgs::Communications::Forwarder::ServiceData>(field, prefix, out)) {
            return;
        }
        if (!masked.empty() && field.name() == masked) {
            out.push_back(prefix + field.name() + (field.initialized() ? "=..." : "~..."));
        } else {
            out.push_back(prefix + describeField(field));
        }
    });
}

// A record-valued field: its record's fields first, then its own flags, in
// the order in which reading the field changes them.
template <class T>
bool flattenRecordField(const Kest::MetaData::ReflectorBase& field, const std::string& prefix,
                        std::vector<std::string>& out) {
    const auto* typed = dynamic_cast<const Kest::MetaData::ReflectorNoWriteParend<T, true>*>(&field);
    if (typed == nullptr) return false;
    flatten(PeekValue<T, true>::of(*typed), prefix + field.name() + ".", "", out);
    out.push_back(prefix + field.name() + (field.isRequired() ? "!" : "") + (field.initialized() ? "=" : "~"));
    return true;
}

}  // namespace detail

// Every field of `record`, fields of record-valued fields included, each
// whole, in the order in which copyFromMetaData changes them.
inline std::vector<std::string> flatFieldsOf(const Kest::MetaData::MirroredObject& record,
                                             const std::string& masked = "") {
    std::vector<std::string> out;
    detail::flatten(record, "", masked, out);
    return out;
}

namespace detail {

inline void flattenArrayNames(const Kest::MetaData::MirroredObject& record, std::vector<std::string>& out);

template <class T>
bool flattenRecordArrayNames(const Kest::MetaData::ReflectorBase& field, std::vector<std::string>& out) {
    const auto* typed = dynamic_cast<const Kest::MetaData::ReflectorNoWriteParend<T, true>*>(&field);
    if (typed == nullptr) return false;
    flattenArrayNames(PeekValue<T, true>::of(*typed), out);
    out.emplace_back();  // the record field's own flags
    return true;
}

inline void flattenArrayNames(const Kest::MetaData::MirroredObject& record, std::vector<std::string>& out) {
    record.forEachField([&](const Kest::MetaData::ReflectorBase& field) {
        if (flattenRecordArrayNames<Kest::Msgs::Structs::MessageKeyData>(field, out) ||
            flattenRecordArrayNames<Kest::Msgs::Communications::Forwarder::ServiceData>(field, out)) {
            return;
        }
        const bool array = dynamic_cast<const Kest::MetaData::ReflectorArray<std::string>*>(&field) != nullptr;
        out.push_back(array ? field.name() : std::string());
    });
}

}  // namespace detail

// Beside flatFieldsOf(record): for each entry, the field's name when it is an
// array field (which keeps its value when a read fails), else empty (a
// scalar or record field, which is reset when a read fails).
inline std::vector<std::string> flatArrayNamesOf(const Kest::MetaData::MirroredObject& record) {
    std::vector<std::string> out;
    detail::flattenArrayNames(record, out);
    return out;
}

inline std::string join(const std::vector<std::string>& parts) {
    std::string text;
    for (const std::string& part : parts) text += part + "; ";
    return text;
}

}  // namespace KestAlloc
