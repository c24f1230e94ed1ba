#pragma once

// Messages as bytes, for carrying them between processes.
//
// The bytes are standard MessagePack: one array of three items,
//
//   [ [formatMajor, formatMinor], envelope, tree ]
//
// The envelope is [origin (str), epoch (uint), hops (uint), scope (uint),
// sequence (uint)]; the tree is the message's metadata tree
// (Message::copyToMetaData) as a map. Every kind of tree element keeps its
// kind: empty as nil, an unsigned integer in an unsigned format, a signed
// integer always in a signed format (also when it is not negative), a
// floating-point number as float64, a boolean, a string (any bytes) as str,
// an object as a map with str keys in name order, an array as an array.
// Encoding is deterministic: encode, decode and encode again gives the same
// bytes.
//
// A reader accepts the same major format version with any minor one: the
// items a newer minor version appends to the envelope, or to the outer
// array, are read (they must be well-formed, of the kinds above) and
// ignored. A newer major version is refused.
//
// Thread safety: every function here may be called from any thread at once;
// they share nothing but the registry of MessageTypes.

#include <kest/model/Message.h>
#include <kest/net/Api.h>
#include <kest/net/Limits.h>
#include <kest/net/WireError.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace Kest::Net {

// The format these functions write, and the newest they read.
inline constexpr std::uint32_t kFormatMajor = 1;
inline constexpr std::uint32_t kFormatMinor = 0;

// Which receivers a process that receives the message delivers it to.
enum class Scope : std::uint8_t { Subscribers = 1, Services = 2, Both = 3 };

// What travels with a message between processes, besides the message.
struct Envelope {
    std::string origin;            // the process the message was first posted in
    std::uint64_t epoch = 0;       // that process's epoch (changes on restart)
    std::uint32_t hops = 0;        // how many times it has been forwarded
    Scope scope = Scope::Both;     // where the receiving process delivers it
    std::uint64_t sequence = 0;    // the sender's running count
};

// Bytes and the message they held.
struct Decoded {
    Envelope envelope;
    std::shared_ptr<const Kest::Msgs::Message> message;
};

// The bytes of `message` with an empty envelope (Envelope()).
// Throws WireError when the message cannot be written so that a receiver
// would accept it: no identifier or no identity (a tree copy left them
// unset), an address that is not a list of strings, a string, object or
// array too large for the format (2^32 - 1 bytes or items). Never changes
// the message.
KEST_NET_API std::string encode(const Kest::Msgs::Message& message);
KEST_NET_API std::string encode(const Kest::Msgs::Message& message, const Envelope& envelope);

// As encode, but replaces the content of `out`, reusing its capacity. On a
// throw `out` holds unspecified bytes.
KEST_NET_API void encodeTo(std::string& out, const Kest::Msgs::Message& message,
                           const Envelope& envelope);

// The envelope and message that `bytes` hold. The message is a new object of
// the type MessageTypes knows for its identifier, default-constructed and
// filled with copyFromMetaData from the tree; for an identifier it does not
// know, a GenericMessage that keeps the whole tree. Identifier, sender and
// destination (unset stays unset, set and empty stays set and empty),
// identity and every field come back as they were sent.
//
// Throws WireError, saying what and (where known) at which byte, for
// anything malformed: not MessagePack, truncated, bytes after the outer
// array, more than limits.maxBytes, nesting or counts beyond the limits, an
// item of the wrong kind in the envelope or tree, bin or ext values, map
// keys that are not strings or appear twice, a newer major version, a tree
// without an unsigned "Id" or a string "Identity", a "Sender" or
// "Destination" that is not an array of strings; and, for a registered
// type, a tree that the type cannot hold as it is (its reflectors would fall
// back silently): a required field missing, a top-level member of one of its
// fields that the field cannot read, or a member it writes back differently
// from how it was received. Members the type does not know are dropped, as
// copyFromMetaData drops them; inside a record field, so is a member the
// record cannot read. A number may fill a field of another numeric kind
// that holds it exactly. So a decoded message always encodes to a tree that
// decodes to the same message.
// Never reads outside `bytes`; what it allocates is bounded by a multiple of
// bytes.size(), at most 128 times it plus a few kilobytes (an array or map
// never reserves room for more items than the bytes could hold; the worst
// case, many tiny objects in an array, costs about 80 bytes of tree per
// byte of input). The registered type's constructor and
// copyFromMetaData run as they are: their exceptions pass through, and the
// diagnostic lines address fields print on standard output for malformed
// addresses inside a payload are printed.
KEST_NET_API Decoded decodeWithEnvelope(std::string_view bytes, const Limits& limits = Limits());

// decodeWithEnvelope(bytes, limits).message.
KEST_NET_API std::shared_ptr<const Kest::Msgs::Message> decode(std::string_view bytes,
                                                                const Limits& limits = Limits());

}  // namespace Kest::Net
