#include "Names.h"

#include <kest/model/Forwarder.h>

#include <cerrno>
#include <cstdlib>
#include <stdexcept>

namespace KestTool {

namespace {

// A number from 0 to `max`, decimal or 0x-hexadecimal, nothing else around it
// (strtoul alone would take a sign, white space and trailing junk).
bool parseNumber(const std::string& text, unsigned long max, unsigned long& value) {
    if (text.empty()) return false;
    int base = 10;
    std::string digits = text;
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        base = 16;
        digits = text.substr(2);
    }
    for (char c : digits) {
        const bool ok = base == 10 ? (c >= '0' && c <= '9')
                                   : ((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'));
        if (!ok) return false;
    }
    errno = 0;
    const unsigned long parsed = std::strtoul(digits.c_str(), nullptr, base);
    if (errno == ERANGE || parsed > max) return false;
    value = parsed;
    return true;
}

}  // namespace

Kest::Msgs::Identifier parseIdentifier(const std::string& text) {
    const std::size_t dot = text.find('.');
    unsigned long category = 0;
    unsigned long type = 0;
    if (dot == std::string::npos || !parseNumber(text.substr(0, dot), 0xFFFF, category) ||
        !parseNumber(text.substr(dot + 1), 0xFFFF, type)) {
        throw std::invalid_argument("'" + text +
                                    "' is not CAT.TYPE (two numbers from 0 to 65535, decimal or 0x-hex, "
                                    "such as 7.3)");
    }
    if (category == Kest::Msgs::Communications::Forwarder::Category) {
        throw std::invalid_argument("'" + text + "': category " + std::to_string(category) +
                                    " holds the forwarder notifications, which are never bridged");
    }
    return Kest::Msgs::Identifier(static_cast<std::uint16_t>(category), static_cast<std::uint16_t>(type));
}

std::string formatIdentifier(Kest::Msgs::Identifier id) {
    return std::to_string(id.category()) + "." + std::to_string(id.type());
}

std::vector<std::string> parseAddress(const std::string& text) {
    std::vector<std::string> parts;
    if (text.empty()) return parts;
    std::size_t start = 0;
    for (;;) {
        const std::size_t slash = text.find('/', start);
        std::string part = text.substr(start, slash == std::string::npos ? std::string::npos : slash - start);
        if (part.empty()) {
            throw std::invalid_argument("'" + text + "' is not an address a/b/c: it has an empty part");
        }
        parts.push_back(std::move(part));
        if (slash == std::string::npos) break;
        start = slash + 1;
    }
    return parts;
}

std::string formatAddress(const std::vector<std::string>& address) {
    std::string text;
    for (const std::string& part : address) {
        if (!text.empty()) text += '/';
        text += part;
    }
    return text;
}

void checkEndpoint(const std::string& endpoint, const char* what, bool keyAllowed) {
    const auto bad = [&](const std::string& why) {
        return std::invalid_argument(std::string(what) + " '" + endpoint + "': " + why);
    };
    std::string address = endpoint;
    const std::size_t query = endpoint.find('?');
    if (query != std::string::npos) {
        if (!keyAllowed) throw bad("nothing may follow the endpoint here");
        const std::string rest = endpoint.substr(query + 1);
        if (rest.rfind("key=", 0) != 0 || rest.size() != 4 + 40) {
            throw bad("only ?key=<40-character public key> may follow the endpoint");
        }
        address = endpoint.substr(0, query);
    }
    if (address.rfind("ipc://", 0) == 0 || address.rfind("inproc://", 0) == 0) {
        if (address.size() == address.find("://") + 3) throw bad("the path or name is missing");
        return;
    }
    if (address.rfind("tcp://", 0) != 0) {
        throw bad("not an endpoint tcp://HOST:PORT, ipc://PATH or inproc://NAME");
    }
    const std::string hostPort = address.substr(6);
    const std::size_t colon = hostPort.rfind(':');
    if (colon == std::string::npos || colon == 0) throw bad("a tcp:// endpoint needs HOST:PORT");
    const std::string host = hostPort.substr(0, colon);
    const std::string port = hostPort.substr(colon + 1);
    unsigned long number = 0;
    if (port != "*" && !parseNumber(port, 65535, number)) {
        throw bad("the port must be a number from 0 to 65535 or *");
    }
    if (host.front() == '[' ? host.back() != ']' || host.size() < 3 : host.find(':') != std::string::npos) {
        throw bad("an IPv6 host goes in brackets, tcp://[::1]:PORT");
    }
}

}  // namespace KestTool
