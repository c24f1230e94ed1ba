#pragma once

// The one-line trace of a message on standard output:
//
//   <prefix>: sender = [a][b], dest = <None>, cat = 3, id = 17
//
// An unset address prints "<None>", each entry of a set one "[entry]". Lines
// from different threads never interleave: a process-wide mutex, used for
// nothing else and taken innermost, is held for the whole line.

#include <kest/msgs/Api.h>

#include <string>

namespace Kest::Msgs {

class Message;

// Writes the trace of `message`, then std::endl, to std::cout.
KEST_DISPATCHER_API void handleMessageDirect(const std::string& prefix, const Message& message);

}  // namespace Kest::Msgs
