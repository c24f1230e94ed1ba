#pragma once

// Metadata trees for the tests of Kest::Net and its fuzz targets: exact
// comparison (kind by kind, NaN equal to NaN, -0.0 apart from 0.0), a
// readable description, random trees from a seed, and a message's tree.

#include <kest/metadata/Element.h>
#include <kest/model/Message.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

namespace KestTest {

using Kest::MetaData::Array;
using Kest::MetaData::Element;
using Kest::MetaData::Object;

inline bool sameDouble(double a, double b) {
    if (std::isnan(a) || std::isnan(b)) return std::isnan(a) && std::isnan(b);
    return a == b && std::signbit(a) == std::signbit(b);
}

// The same kinds with the same values, all the way down.
inline bool sameTree(const Element& a, const Element& b) {
    if (a.GetElementType() != b.GetElementType()) return false;
    switch (a.GetElementType()) {
        case Element::EmptyType:
            return true;
        case Element::NumberType: {
            unsigned long x = 0, y = 0;
            Kest::MetaData::GetAs(a, x);
            Kest::MetaData::GetAs(b, y);
            return x == y;
        }
        case Element::SignedType: {
            long x = 0, y = 0;
            Kest::MetaData::GetAs(a, x);
            Kest::MetaData::GetAs(b, y);
            return x == y;
        }
        case Element::FloatType: {
            double x = 0, y = 0;
            Kest::MetaData::GetAs(a, x);
            Kest::MetaData::GetAs(b, y);
            return sameDouble(x, y);
        }
        case Element::BooleanType: {
            bool x = false, y = false;
            Kest::MetaData::GetAs(a, x);
            Kest::MetaData::GetAs(b, y);
            return x == y;
        }
        case Element::StringType: {
            std::string x, y;
            Kest::MetaData::GetAs(a, x);
            Kest::MetaData::GetAs(b, y);
            return x == y;
        }
        case Element::ObjectType: {
            const Object& x = a;
            const Object& y = b;
            if (x.size() != y.size()) return false;
            auto i = x.begin();
            auto j = y.begin();
            for (; i != x.end(); ++i, ++j) {
                if (i->first != j->first || !sameTree(i->second, j->second)) return false;
            }
            return true;
        }
        case Element::ArrayType: {
            const Array& x = a;
            const Array& y = b;
            if (x.size() != y.size()) return false;
            for (unsigned long k = 0; k < x.size(); ++k) {
                if (!sameTree(x[k], y[k])) return false;
            }
            return true;
        }
        default:
            return false;
    }
}

inline std::string quotedText(const std::string& text) {
    std::string out = "\"";
    for (unsigned char c : text) {
        if (c >= 0x20 && c < 0x7f && c != '"' && c != '\\') {
            out.push_back(static_cast<char>(c));
        } else {
            char hex[8];
            std::snprintf(hex, sizeof hex, "\\x%02x", c);
            out += hex;
        }
    }
    return out + "\"";
}

// One line, every kind marked: u5, s-1, d0.5, true, "text", {...}, [...].
inline std::string describeTree(const Element& e) {
    switch (e.GetElementType()) {
        case Element::EmptyType:
            return "empty";
        case Element::NumberType: {
            unsigned long v = 0;
            Kest::MetaData::GetAs(e, v);
            return "u" + std::to_string(v);
        }
        case Element::SignedType: {
            long v = 0;
            Kest::MetaData::GetAs(e, v);
            return "s" + std::to_string(v);
        }
        case Element::FloatType: {
            double v = 0;
            Kest::MetaData::GetAs(e, v);
            char text[40];
            std::snprintf(text, sizeof text, "d%.17g", v);
            return text;
        }
        case Element::BooleanType: {
            bool v = false;
            Kest::MetaData::GetAs(e, v);
            return v ? "true" : "false";
        }
        case Element::StringType: {
            std::string v;
            Kest::MetaData::GetAs(e, v);
            return quotedText(v);
        }
        case Element::ObjectType: {
            std::string out = "{";
            for (const auto& member : static_cast<const Object&>(e)) {
                if (out.size() > 1) out += ", ";
                out += quotedText(member.first) + ": " + describeTree(member.second);
            }
            return out + "}";
        }
        case Element::ArrayType: {
            std::string out = "[";
            for (const Element& item : static_cast<const Array&>(e)) {
                if (out.size() > 1) out += ", ";
                out += describeTree(item);
            }
            return out + "]";
        }
        default:
            return "?";
    }
}

// The tree a message writes of itself.
inline Element treeOf(const Kest::Msgs::Message& message) {
    Element tree;
    message.copyToMetaData(tree);
    return tree;
}

// Random trees of every kind, from a seed: numbers at the ends of their
// ranges and in between, NaN, infinities, -0.0, strings with any bytes
// (NUL and invalid UTF-8 included), empty and nested containers. With
// jsonSafe, only what JSON can hold: finite numbers and UTF-8 text.
class RandomTrees {
public:
    explicit RandomTrees(std::uint64_t seed, bool jsonSafe = false) : random_(seed), jsonSafe_(jsonSafe) {}

    // An object (a message's payload is one) of up to `maxDepth` levels.
    Element object(int maxDepth) {
        Element e(Object{});
        const int members = pick(6);
        for (int i = 0; i < members; ++i) e[text(6)] = value(maxDepth - 1);
        return e;
    }

    Element value(int depthLeft) {
        const int kind = pick(depthLeft > 0 ? 9 : 7);
        switch (kind) {
            case 0:
                return Element();
            case 1:
                return Element(unsignedNumber());
            case 2:
                return Element(signedNumber());
            case 3:
                return Element(floatNumber());
            case 4:
                return Element(pick(2) == 1);
            case 5:
            case 6:
                return Element(text(12));
            case 7:
                return object(depthLeft);
            default: {
                Array array;
                const int items = pick(6);
                for (int i = 0; i < items; ++i) array.push_back(value(depthLeft - 1));
                return Element(array);
            }
        }
    }

    std::string text(int maxLength) {
        std::string out;
        const int length = pick(maxLength + 1);
        for (int i = 0; i < length; ++i) {
            if (jsonSafe_) {
                static const char* const pieces[] = {"a", "Z", "0", " ", "\"", "\\", "\n", "\x01", "\xc3\xa9",
                                                     "\xe2\x82\xac", "\xf0\x9f\x98\x80", "/", "{"};
                out += pieces[pick(13)];
            } else {
                out.push_back(static_cast<char>(pick(256)));
            }
        }
        return out;
    }

    unsigned long unsignedNumber() {
        static const unsigned long ends[] = {0, 1, 127, 128, 255, 256, 65535, 65536, 4294967295ul, 4294967296ul,
                                             std::numeric_limits<unsigned long>::max()};
        if (pick(2) == 0) return ends[pick(11)];
        return random_() >> pick(64);
    }

    long signedNumber() {
        static const long ends[] = {0,      -1,     1,          -32,         -33,        127,
                                    -128,   -129,   32767,      -32768,      -32769,     2147483647,
                                    -2147483648l, -2147483649l, std::numeric_limits<long>::min(),
                                    std::numeric_limits<long>::max()};
        if (pick(2) == 0) return ends[pick(16)];
        return static_cast<long>(random_()) >> pick(64);
    }

    double floatNumber() {
        static const double ends[] = {0.0,
                                      -0.0,
                                      5.0,
                                      0.5,
                                      -1.25,
                                      1e300,
                                      -1e-300,
                                      std::numeric_limits<double>::denorm_min(),
                                      std::numeric_limits<double>::max(),
                                      std::numeric_limits<double>::infinity(),
                                      -std::numeric_limits<double>::infinity(),
                                      std::numeric_limits<double>::quiet_NaN()};
        double value = 0;
        do {
            if (pick(2) == 0) {
                value = ends[pick(12)];
            } else {
                const std::uint64_t bits = random_();
                std::memcpy(&value, &bits, sizeof value);
            }
        } while (jsonSafe_ && !std::isfinite(value));
        return value;
    }

    int pick(int bound) { return static_cast<int>(random_() % static_cast<std::uint64_t>(bound)); }

private:
    std::mt19937_64 random_;
    bool jsonSafe_;
};

}  // namespace KestTest
