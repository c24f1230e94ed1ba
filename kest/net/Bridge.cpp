#include <kest/net/Bridge.h>

#include <kest/msgs/MessageDispatcher.h>
#include <kest/net/internal/BridgeCore.h>

#include <zmq.h>

#include <charconv>
#include <limits>
#include <stdexcept>
#include <utility>

namespace Kest::Net {

namespace {

std::uint64_t parseNumber(const std::string& option, const std::string& value) {
    std::uint64_t number = 0;
    const char* first = value.data();
    const char* last = value.data() + value.size();
    const auto [end, error] = std::from_chars(first, last, number);
    if (value.empty() || error != std::errc() || end != last ||
        number > static_cast<std::uint64_t>(std::numeric_limits<std::int32_t>::max())) {
        throw std::invalid_argument("Kest::Net::Bridge: option '" + option + "' needs a number, not '" + value +
                                    "'");
    }
    return number;
}

BridgeOptions parseOptions(const std::vector<std::string>& args) {
    BridgeOptions options;
    for (const std::string& arg : args) {
        const std::size_t equals = arg.find('=');
        const std::string name = arg.substr(0, equals);
        const bool hasValue = equals != std::string::npos;
        const std::string value = hasValue ? arg.substr(equals + 1) : std::string();
        auto needValue = [&] {
            if (!hasValue || value.empty()) {
                throw std::invalid_argument("Kest::Net::Bridge: option '" + name + "' needs a value (" + name +
                                            "=...)");
            }
        };
        if (name == "listen") {
            needValue();
            options.listen = value;
        } else if (name == "peer") {
            needValue();
            options.peers.push_back(value);
        } else if (name == "advertise") {
            needValue();
            options.advertise = value;
        } else if (name == "curve-secret") {
            needValue();
            options.curveSecretKey = value;
        } else if (name == "curve-allow") {
            needValue();
            options.curveAllow.push_back(value);
        } else if (name == "allow-insecure") {
            if (hasValue) throw std::invalid_argument("Kest::Net::Bridge: option 'allow-insecure' takes no value");
            options.allowInsecure = true;
        } else if (name == "send-buffer") {
            needValue();
            options.sendBuffer = static_cast<std::size_t>(parseNumber(name, value));
        } else if (name == "linger-ms") {
            needValue();
            options.linger = std::chrono::milliseconds(parseNumber(name, value));
        } else if (name == "heartbeat-ms") {
            needValue();
            options.heartbeatInterval = std::chrono::milliseconds(parseNumber(name, value));
        } else if (name == "peer-timeout-ms") {
            needValue();
            options.peerTimeout = std::chrono::milliseconds(parseNumber(name, value));
        } else {
            throw std::invalid_argument("Kest::Net::Bridge: unknown option '" + arg + "'");
        }
    }
    return options;
}

}  // namespace

Bridge::Bridge(std::shared_ptr<Kest::Msgs::MessageDispatcher> dispatcher, BridgeOptions options)
    : core_(std::make_shared<detail::BridgeCore>(std::move(options))) {
    core_->attach(std::move(dispatcher));
}

Bridge::Bridge(const std::vector<std::string>& args)
    : core_(std::make_shared<detail::BridgeCore>(parseOptions(args))) {}

Bridge::~Bridge() { core_->release(); }

void Bridge::attach(std::shared_ptr<Kest::Msgs::MessageDispatcher> dispatcher) {
    core_->attach(std::move(dispatcher));
}

void Bridge::start() { core_->start(); }

void Bridge::stop() { core_->stop(); }

bool Bridge::poll(std::chrono::milliseconds timeout) { return core_->poll(timeout); }

bool Bridge::waitSynced(std::chrono::milliseconds timeout) { return core_->waitSynced(timeout); }

std::string Bridge::endpoint() const { return core_->endpoint(); }

std::uint64_t Bridge::epoch() const { return core_->epoch(); }

std::vector<PeerStatus> Bridge::peers() const { return core_->peers(); }

BridgeCounters Bridge::counters() const { return core_->counters(); }

CurveKeyPair makeCurveKeyPair() {
    char publicKey[41];
    char secretKey[41];
    if (zmq_curve_keypair(publicKey, secretKey) != 0) {
        throw std::runtime_error("Kest::Net::makeCurveKeyPair: ZeroMQ has no CURVE (built without libsodium)");
    }
    return CurveKeyPair{std::string(publicKey, 40), std::string(secretKey, 40)};
}

std::string curvePublicKey(const std::string& secretKey) {
    detail::checkCurveKey(secretKey, "the secret key");
    char publicKey[41];
    if (zmq_curve_public(publicKey, secretKey.c_str()) != 0) {
        throw std::invalid_argument("Kest::Net::curvePublicKey: not a CURVE secret key");
    }
    return std::string(publicKey, 40);
}

}  // namespace Kest::Net
