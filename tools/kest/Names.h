#pragma once

// How the kest tool reads and writes message kinds, addresses and endpoints
// given on its command line. Pure functions: no I/O, no global state.

#include <kest/model/Identifier.h>

#include <string>
#include <vector>

namespace KestTool {

// "CAT.TYPE": a category and a type, each a number from 0 to 65535, decimal
// ("7.3") or hexadecimal with 0x ("0x0100.0x2a"). Kest::Net's MessageTypes
// keys its registry by identifier and keeps no names, so numbers are the only
// names there are. The forwarder notifications' category
// (Communications::Forwarder::Category) is refused: each process's
// notifications describe its own tables and are never bridged. Throws
// std::invalid_argument with a message fit for the user.
Kest::Msgs::Identifier parseIdentifier(const std::string& text);

// The identifier as "CAT.TYPE", both decimal ("7.3").
std::string formatIdentifier(Kest::Msgs::Identifier id);

// "a/b/c" as {"a", "b", "c"}; "" as {} (the empty address, which as a prefix
// covers every address). A part may not be empty ("a//b", "/a", "a/"):
// throws std::invalid_argument.
std::vector<std::string> parseAddress(const std::string& text);

// The address as "a/b/c"; "" for the empty address.
std::string formatAddress(const std::vector<std::string>& address);

// Checks the shape of a bridge endpoint before the bridge sees it:
// tcp://HOST:PORT (PORT a number from 0 to 65535 or "*"; an IPv6 HOST in
// brackets), ipc://PATH or inproc://NAME, optionally followed by
// "?key=<40 characters>" when `keyAllowed`. Throws std::invalid_argument
// naming `what` ("--listen", "--peer").
void checkEndpoint(const std::string& endpoint, const char* what, bool keyAllowed);

}  // namespace KestTool
