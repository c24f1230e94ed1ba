#pragma once

// The line `kest echo` prints for a message.

#include <kest/model/Message.h>

#include <string>

namespace KestTool {

// One JSON object, without a line end:
//   {"id":"CAT.TYPE","identity":"...","sender":[...],"destination":[...],"data":{...}}
// `data` is the message's metadata tree (Kest::Net::toJson) without the four
// fields shown before it; an unset address prints as []. Throws
// Kest::Net::WireError when the message holds what JSON cannot (a NaN, an
// infinity, a string that is not UTF-8).
std::string messageLine(const Kest::Msgs::Message& message);

}  // namespace KestTool
