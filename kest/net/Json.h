#pragma once

// The metadata tree as JSON text and back.
//
//   tree element            JSON
//   empty                   null
//   unsigned integer        a number without fraction or exponent, >= 0
//   signed integer          a number without fraction or exponent
//   floating-point number   a number with a fraction or exponent (5.0, 1e+300)
//   boolean                 true, false
//   string                  a string
//   object                  an object
//   array                   an array
//
// JSON has one kind of integer, so the kind is read from the sign: a
// negative integer reads as a signed integer, any other as an unsigned one.
// A signed element that is not negative (a signed 5) is therefore written as
// 5 and reads back as an unsigned 5; every numeric field reads either kind
// without loss, so a record read from the JSON gets the same values.
//
// Thread safety: both functions may be called from any thread at once.

#include <kest/metadata/Element.h>
#include <kest/net/Api.h>
#include <kest/net/Limits.h>
#include <kest/net/WireError.h>

#include <string>
#include <string_view>

namespace Kest::Net {

// `tree` as compact JSON text. Throws WireError for what JSON cannot hold:
// a NaN or an infinity, or a string (value or member name) that is not
// valid UTF-8.
KEST_NET_API std::string toJson(const Kest::MetaData::Element& tree);

// The tree that `json` (UTF-8 JSON text) holds. Throws WireError for
// anything that is not one well-formed JSON value (with nothing but white
// space after it), for an object with a member name twice, for an integer
// beyond the 64-bit range (-2^63 to 2^64 - 1) or a number beyond double's,
// and for input beyond `limits` (size, nesting depth, members per object,
// elements per array).
KEST_NET_API Kest::MetaData::Element fromJson(std::string_view json, const Limits& limits = Limits());

}  // namespace Kest::Net
