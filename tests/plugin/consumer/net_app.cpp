// A client of the installed Kest::Net: a message to bytes and back, and its
// tree to JSON and back. Exits non-zero on any failure.
//
//   net_app [library directory]
//
// With a directory, also checks that Kest::Net and the libraries it uses were
// loaded from it.

#include <kest/messaging.h>
#include <kest/net.h>

#include "LoadedFrom.h"

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

int main(int argc, char** argv) {
    using Kest::Msgs::Identifier;
    using Kest::Msgs::Message;

    const Message sent(Identifier(0x0A0B, 2), std::vector<std::string>{"consumer", "net"});
    Kest::Net::Envelope envelope;
    envelope.origin = "net_app";
    const std::string bytes = Kest::Net::encode(sent, envelope);
    const Kest::Net::Decoded decoded = Kest::Net::decodeWithEnvelope(bytes);
    auto generic = std::dynamic_pointer_cast<const Kest::Net::GenericMessage>(decoded.message);
    if (!generic || generic->identity() != sent.identity() || generic->sender() != sent.sender() ||
        decoded.envelope.origin != "net_app") {
        std::fprintf(stderr, "net_app: the message did not come back as it was sent\n");
        return 1;
    }
    try {
        Kest::Net::decode(bytes.substr(0, bytes.size() - 1));
        std::fprintf(stderr, "net_app: truncated bytes were accepted\n");
        return 1;
    } catch (const Kest::Net::WireError&) {
        // refused, as it should be
    }
    Kest::MetaData::Element tree;
    generic->copyToMetaData(tree);
    if (Kest::Net::toJson(Kest::Net::fromJson(Kest::Net::toJson(tree))) != Kest::Net::toJson(tree)) {
        std::fprintf(stderr, "net_app: the JSON did not come back as it was written\n");
        return 1;
    }
    if (argc > 1) {
        // The dispatcher library is linked too, but nothing here calls it,
        // so the linker may leave it out.
        for (const char* library : {"libKestNet.so.0", "libKestMessages.so.0", "libKestCore.so.0"}) {
            if (loadedFrom(library) != canonical(argv[1])) {
                std::fprintf(stderr, "net_app: %s was loaded from '%s', not from %s\n", library,
                             loadedFrom(library).c_str(), argv[1]);
                return 1;
            }
        }
    }
    std::printf("net_app: %zu bytes there and back\n", bytes.size());
    return 0;
}
