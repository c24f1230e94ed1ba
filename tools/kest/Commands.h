#pragma once

// The kest commands, each run to its end: the exit status is returned
//   0  done (echo: N messages; post: all handed to the network; tables:
//      synced; keygen)
//   1  not done: the time-out passed, SIGINT or SIGTERM arrived, the bridge
//      refused messages, or standard output closed
//   2  a usage error (UsageError, thrown before anything was started)

#include <chrono>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace KestTool {

// A bad option value, endpoint, name or JSON text: one line for the user.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The bridge options every networked command takes.
struct BridgeArgs {
    std::string listen;
    std::vector<std::string> peers;
    std::string advertise;
    std::string curveSecret;
    std::string curveSecretFile;
    std::vector<std::string> curveAllow;
    bool allowInsecure = false;
    std::size_t sendBuffer = 10000;
    long heartbeatMs = 200;
    long peerTimeoutMs = 2000;
    long lingerMs = 2000;
};

struct EchoArgs {
    BridgeArgs bridge;
    std::string id;            // CAT.TYPE
    std::string prefix;        // sender prefix a/b (subscriber), empty for any
    std::string service;       // destination prefix: register as a service instead of subscribing
    bool serviceSet = false;
    std::uint64_t rank = 1;
    std::uint64_t count = 0;   // 0: no limit
    long timeoutMs = 0;        // 0: no limit
};

struct PostArgs {
    BridgeArgs bridge;
    std::string id;
    std::string sender;
    bool senderSet = false;
    std::string destination;
    bool destinationSet = false;
    std::string data = "{}";
    std::uint64_t count = 1;
    long intervalMs = 0;
    long timeoutMs = 0;
};

struct TablesArgs {
    BridgeArgs bridge;
    long timeoutMs = 5000;
    bool json = false;
};

int runEcho(const EchoArgs& args);
int runPost(const PostArgs& args);
int runTables(const TablesArgs& args);
int runKeygen();

}  // namespace KestTool
