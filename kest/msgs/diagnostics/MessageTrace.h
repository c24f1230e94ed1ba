#pragma once

// The one-line trace of a message on standard output:
//
//   <prefix>: sender = [a][b], dest = <None>, cat = 3, id = 17
//
// An unset address prints "<None>", each entry of a set one "[entry]". Lines
// from different threads never interleave: a process-wide mutex, used for
// nothing else and taken innermost, is held for the whole line.
//
// Memory: the trace allocates nothing of its own (the addresses are read in
// place) and throws nothing when memory runs out. Only a std::cout whose
// buffer must grow (a std::ostringstream put in its place) can fail then:
// the line is cut short where the buffer could not grow, the part written is
// ended with a newline where possible, and std::cout is left good, so that
// the next diagnostic line is written whole. The library's other diagnostic
// lines (the drop warning, the metadata reader's lines) behave the same.

#include <kest/msgs/Api.h>

#include <string>

namespace Kest::Msgs {

class Message;

// Writes the trace of `message`, then std::endl, to std::cout.
KEST_DISPATCHER_API void handleMessageDirect(const std::string& prefix, const Message& message);

}  // namespace Kest::Msgs
