#pragma once

// PostScope: which half of the routing one post uses. A post reaches the
// subscribers that cover the message, the services that cover its
// destination, or both (an ordinary post). A process that receives from
// another process first the copy of a message meant for its subscribers and
// later the copy meant for its services posts each with its scope: the
// history then delivers each half once, and a copy for subscribers never
// reaches a local service.
//
// The values are bits: Both is Subscribers | Services. No other value is a
// scope; operations given one refuse it.

#include <cstdint>

namespace Kest::Msgs {

enum class PostScope : std::uint8_t { Subscribers = 1, Services = 2, Both = 3 };

}  // namespace Kest::Msgs
