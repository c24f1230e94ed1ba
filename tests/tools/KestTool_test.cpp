// The kest tool as a user runs it: every command and exit status, between
// processes the test starts on 127.0.0.1. Every wait reads the child's
// output with a deadline.

#include "ToolProcess.h"

#include <kest/net/Bridge.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <memory>
#include <regex>
#include <set>
#include <string>
#include <vector>

namespace {

using KestTest::ToolProcess;
using namespace std::chrono_literals;

const std::string kLoopback = "tcp://127.0.0.1:*";
const std::string kTimeout = "20000";  // a loose guard for the waits of the tools themselves

std::unique_ptr<ToolProcess> run(const std::vector<std::string>& args) {
    return std::make_unique<ToolProcess>(KEST_TOOL, args);
}

// Runs to its end; its exit status.
int finish(ToolProcess& process) {
    const auto status = process.waitExit(40s);
    EXPECT_TRUE(status.has_value()) << "kest did not end in time";
    return status.value_or(-1);
}

// The JSON of a "kest COMMAND: summary {...}" line on standard error.
nlohmann::json summary(ToolProcess& process, const std::string& command) {
    const std::string text = process.after("kest " + command + ": summary ");
    EXPECT_FALSE(text.empty()) << "no summary from kest " << command;
    return text.empty() ? nlohmann::json() : nlohmann::json::parse(text);
}

// A usage error: status 2, one line on standard error, nothing on standard
// output. Returns that line.
std::string expectUsageError(const std::vector<std::string>& args) {
    auto process = run(args);
    EXPECT_EQ(finish(*process), 2);
    const auto err = process->lines(ToolProcess::Err);
    EXPECT_EQ(err.size(), 1u);
    EXPECT_TRUE(process->lines(ToolProcess::Out).empty());
    const std::string line = err.empty() ? std::string() : err.front();
    EXPECT_EQ(line.rfind("kest: ", 0), 0u) << line;
    return line;
}

// An echo started in the background; its endpoint read from its status line.
struct Echo {
    std::unique_ptr<ToolProcess> process;
    std::string endpoint;
};

Echo startEcho(std::vector<std::string> args) {
    std::vector<std::string> all{"echo", "--listen", kLoopback};
    all.insert(all.end(), args.begin(), args.end());
    Echo echo{run(all), ""};
    echo.endpoint = echo.process->after("kest echo: listening on ");
    EXPECT_EQ(echo.endpoint.rfind("tcp://127.0.0.1:", 0), 0u) << echo.endpoint;
    return echo;
}

std::vector<std::string> postArgs(const std::string& peer, std::vector<std::string> extra) {
    std::vector<std::string> all{"post", "--listen", kLoopback, "--peer", peer};
    all.insert(all.end(), extra.begin(), extra.end());
    return all;
}

// ---- Help ----------------------------------------------------------------------

TEST(KestTool, HelpListsEveryCommandAndExitsZero) {
    auto process = run({"--help"});
    EXPECT_EQ(finish(*process), 0);
    std::string text;
    for (const auto& line : process->lines(ToolProcess::Out)) text += line + "\n";
    for (const char* word : {"echo", "post", "tables", "keygen", "CAT.TYPE", "Exit status"}) {
        EXPECT_NE(text.find(word), std::string::npos) << word << " missing from:\n" << text;
    }
}

TEST(KestTool, EachCommandsHelpDescribesItsOptionsAndExitsZero) {
    const std::vector<std::pair<std::string, std::vector<std::string>>> expected{
        {"echo", {"--listen", "--peer", "--count", "--timeout-ms", "--curve-secret", "--curve-allow",
                  "--allow-insecure", "SENDER/PREFIX", "CAT.TYPE", "summary"}},
        {"post", {"--sender", "--destination", "--data", "--count", "--timeout-ms", "interest"}},
        {"tables", {"--timeout-ms", "waits", "connected", "exchanged its routing"}},
        {"keygen", {"public", "secret", "--curve-allow"}}};
    for (const auto& [command, words] : expected) {
        auto process = run({command, "--help"});
        EXPECT_EQ(finish(*process), 0) << command;
        std::string text;
        for (const auto& line : process->lines(ToolProcess::Out)) text += line + "\n";
        for (const std::string& word : words) {
            EXPECT_NE(text.find(word), std::string::npos) << command << " --help lacks " << word;
        }
    }
}

// ---- Usage errors: status 2 ------------------------------------------------------

TEST(KestTool, UnknownOptionIsAOneLineErrorWithStatusTwo) {
    const std::string line = expectUsageError({"echo", "--listen", kLoopback, "--bogus", "7.3"});
    EXPECT_NE(line.find("--bogus"), std::string::npos) << line;
    expectUsageError({"post", "--listen", kLoopback, "--count", "-1", "7.3"});
    expectUsageError({"post", "--listen", kLoopback, "--count", "many", "7.3"});
    expectUsageError({"echo", "7.3"});  // no --listen
    expectUsageError({"post", "--listen", kLoopback});  // no CAT.TYPE
}

TEST(KestTool, MissingOrUnknownCommandIsAOneLineErrorWithStatusTwo) {
    expectUsageError({});
    expectUsageError({"listen"});
}

TEST(KestTool, BadEndpointIsAOneLineErrorWithStatusTwo) {
    EXPECT_NE(expectUsageError({"echo", "--listen", "foo", "7.3"}).find("'foo'"), std::string::npos);
    expectUsageError({"echo", "--listen", "tcp://127.0.0.1:port", "7.3"});
    expectUsageError({"echo", "--listen", kLoopback, "--peer", "127.0.0.1:7001", "7.3"});
    expectUsageError({"echo", "--listen", kLoopback, "--peer", "tcp://127.0.0.1:7001?key=short", "7.3"});
    // Well-formed but not a host of this machine: the bind fails.
    expectUsageError({"echo", "--listen", "tcp://no-such-host.invalid:7001", "7.3"});
}

TEST(KestTool, BadNameOrAddressIsAOneLineErrorWithStatusTwo) {
    for (const char* name : {"7", "7.x", "70000.1", "3853.9"}) {
        expectUsageError({"echo", "--listen", kLoopback, name});
    }
    expectUsageError({"echo", "--listen", kLoopback, "7.3", "a//b"});
    expectUsageError({"post", "--listen", kLoopback, "--sender", "/a", "7.3"});
}

TEST(KestTool, BadJsonIsAOneLineErrorWithStatusTwo) {
    for (const char* data : {"{\"a\":", "{\"a\":1} junk", "{'a':1}", "", "[1,2]", "5", "{\"Identity\":\"x\"}",
                             "{\"a\":1,\"a\":2}"}) {
        expectUsageError({"post", "--listen", kLoopback, "--data", data, "7.3"});
    }
}

TEST(KestTool, NonLoopbackListenWithoutKeysIsRefusedWithStatusTwo) {
    const std::string line = expectUsageError({"echo", "--listen", "tcp://0.0.0.0:*", "7.3"});
    EXPECT_NE(line.find("without encryption"), std::string::npos) << line;
}

// ---- keygen ----------------------------------------------------------------------

struct KeyPair {
    std::string publicKey;
    std::string secretKey;
};

KeyPair keygen() {
    auto process = run({"keygen"});
    EXPECT_EQ(finish(*process), 0);
    const auto out = process->lines(ToolProcess::Out);
    const std::regex z85("[0-9a-zA-Z.\\-:+=^!/*?&<>()\\[\\]{}@%$#]{40}");
    EXPECT_EQ(out.size(), 2u);
    KeyPair pair;
    if (out.size() == 2) {
        EXPECT_EQ(out[0].rfind("public ", 0), 0u) << out[0];
        EXPECT_EQ(out[1].rfind("secret ", 0), 0u) << out[1];
        pair.publicKey = out[0].substr(7);
        pair.secretKey = out[1].substr(7);
    }
    EXPECT_TRUE(std::regex_match(pair.publicKey, z85)) << pair.publicKey;
    EXPECT_TRUE(std::regex_match(pair.secretKey, z85)) << pair.secretKey;
    return pair;
}

TEST(KestTool, KeygenPrintsAPublicKeyAndTheSecretKeyItBelongsTo) {
    const KeyPair first = keygen();
    EXPECT_EQ(Kest::Net::curvePublicKey(first.secretKey), first.publicKey);
    const KeyPair second = keygen();
    EXPECT_NE(first.secretKey, second.secretKey);
}

// ---- echo and post -----------------------------------------------------------------

TEST(KestTool, EchoPrintsWhatPostSentWithItsDataRoundTripped) {
    const std::string data =
        R"({"nested":{"deep":{"list":[1,-2,3.5,true,false,null,"x",[],{}]}},)"
        R"("text":"quote \" backslash \\ slash / newline \n tab \t bell \u0007 \u00e9 \ud83d\ude00",)"
        R"("big":18446744073709551615,"small":-9223372036854775808,"float":1e+300,"tiny":-2.5e-300,)"
        R"("yes":true,"no":false,"nothing":null,"empty":"","zero":0})";
    Echo echo = startEcho({"--count", "1", "--timeout-ms", kTimeout, "7.3"});
    auto post = run(postArgs(echo.endpoint, {"--sender", "a/b", "--data", data, "--timeout-ms", kTimeout, "7.3"}));
    EXPECT_EQ(finish(*post), 0);
    EXPECT_TRUE(post->lines(ToolProcess::Out).empty());
    EXPECT_EQ(finish(*echo.process), 0);

    const auto out = echo.process->lines(ToolProcess::Out);
    ASSERT_EQ(out.size(), 1u);
    const auto line = nlohmann::json::parse(out[0]);
    EXPECT_EQ(line["id"], "7.3");
    EXPECT_EQ(line["sender"], nlohmann::json::parse(R"(["a","b"])"));
    EXPECT_EQ(line["destination"], nlohmann::json::array());
    EXPECT_TRUE(line["identity"].is_string() && !line["identity"].get<std::string>().empty());
    EXPECT_EQ(line["data"], nlohmann::json::parse(data)) << out[0];
    // The keys in the order shown to the user.
    EXPECT_EQ(out[0].rfind("{\"id\":\"7.3\",\"identity\":", 0), 0u) << out[0];

    const auto posted = summary(*post, "post");
    EXPECT_EQ(posted["posted"], 1);
    EXPECT_EQ(posted["sent"], 1);
    const auto echoed = summary(*echo.process, "echo");
    EXPECT_EQ(echoed["received"], 1);
}

TEST(KestTool, EchoPrintsEveryMessageOnceAndExitsZeroAfterCount) {
    Echo echo = startEcho({"--count", "25", "--timeout-ms", kTimeout, "7.3"});
    auto post = run(postArgs(echo.endpoint, {"--count", "25", "--data", "{\"n\":1}", "--timeout-ms", kTimeout, "7.3"}));
    EXPECT_EQ(finish(*post), 0);
    EXPECT_EQ(finish(*echo.process), 0);
    std::set<std::string> identities;
    for (const auto& text : echo.process->lines(ToolProcess::Out)) {
        identities.insert(nlohmann::json::parse(text)["identity"].get<std::string>());
    }
    EXPECT_EQ(identities.size(), 25u);
    EXPECT_EQ(echo.process->lines(ToolProcess::Out).size(), 25u);
    const auto posted = summary(*post, "post");
    EXPECT_EQ(posted["posted"], 25);
    EXPECT_EQ(posted["sent"], 25);
    EXPECT_EQ(posted["refused"], 0);
}

TEST(KestTool, EchoExitsOneWithItsSummaryWhenTheTimeoutPassesFirst) {
    Echo echo = startEcho({"--count", "1", "--timeout-ms", "300", "7.3"});
    EXPECT_EQ(finish(*echo.process), 1);
    EXPECT_TRUE(echo.process->lines(ToolProcess::Out).empty());
    const auto echoed = summary(*echo.process, "echo");
    EXPECT_EQ(echoed["received"], 0);
    EXPECT_EQ(echoed["ended"], "time-out");
}

TEST(KestTool, EchoOnlyGetsSendersUnderItsPrefixAndPostTimesOutWithoutInterest) {
    Echo echo = startEcho({"--count", "1", "--timeout-ms", kTimeout, "7.3", "a/b"});
    // No peer wants 7.3 from x/y: post waits for interest until its time-out.
    auto outside = run(postArgs(echo.endpoint, {"--sender", "x/y", "--timeout-ms", "1500", "7.3"}));
    EXPECT_EQ(finish(*outside), 1);
    EXPECT_TRUE(outside->waitLine(ToolProcess::Err, [](const std::string& l) {
        return l.find("waiting for interest in 7.3 from x/y") != std::string::npos;
    }));
    EXPECT_EQ(summary(*outside, "post")["posted"], 0);
    auto inside = run(postArgs(echo.endpoint, {"--sender", "a/b/c", "--timeout-ms", kTimeout, "7.3"}));
    EXPECT_EQ(finish(*inside), 0);
    EXPECT_EQ(finish(*echo.process), 0);
    const auto out = echo.process->lines(ToolProcess::Out);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(nlohmann::json::parse(out[0])["sender"], nlohmann::json::parse(R"(["a","b","c"])"));
}

TEST(KestTool, PostWithADestinationReachesTheEchoServingIt) {
    Echo echo = startEcho({"--service", "x/y", "--count", "1", "--timeout-ms", kTimeout, "7.4"});
    auto post = run(postArgs(echo.endpoint, {"--destination", "x/y/z", "--timeout-ms", kTimeout, "7.4"}));
    EXPECT_EQ(finish(*post), 0);
    EXPECT_EQ(finish(*echo.process), 0);
    const auto out = echo.process->lines(ToolProcess::Out);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(nlohmann::json::parse(out[0])["destination"], nlohmann::json::parse(R"(["x","y","z"])"));
}

TEST(KestTool, SigintOrSigtermEndsEchoWithItsSummaryAndStatusOne) {
    for (int sig : {SIGINT, SIGTERM}) {
        Echo echo = startEcho({"7.3"});
        echo.process->signal(sig);
        EXPECT_EQ(finish(*echo.process), 1) << "signal " << sig;
        EXPECT_EQ(summary(*echo.process, "echo")["ended"], "signal");
    }
}

TEST(KestTool, SigintEndsAPostWaitingForInterestWithStatusOne) {
    auto post = run({"post", "--listen", kLoopback, "7.3"});
    ASSERT_TRUE(post->waitLine(ToolProcess::Err, [](const std::string& l) { return l.find("waiting") != std::string::npos; }));
    post->signal(SIGINT);
    EXPECT_EQ(finish(*post), 1);
    EXPECT_EQ(summary(*post, "post")["ended"], "signal");
}

// ---- tables --------------------------------------------------------------------------

TEST(KestTool, TablesShowEachPeersSubscriptionsServicesAndCounters) {
    Echo subscriber = startEcho({"7.3", "a/b"});
    Echo service = startEcho({"--service", "x/y", "--rank", "3", "7.4"});
    auto tables = run({"tables", "--listen", kLoopback, "--peer", subscriber.endpoint, "--peer", service.endpoint});
    EXPECT_EQ(finish(*tables), 0);
    const auto out = tables->lines(ToolProcess::Out);
    std::string text;
    for (const auto& line : out) text += line + "\n";
    const auto at = [&](const std::string& what) { return text.find(what); };
    ASSERT_NE(at("peer " + subscriber.endpoint + " "), std::string::npos) << text;
    ASSERT_NE(at("peer " + service.endpoint + " "), std::string::npos) << text;
    EXPECT_NE(at("  subscription 7.3 from a/b\n"), std::string::npos) << text;
    EXPECT_NE(at("  service 7.4 to x/y rank 3\n"), std::string::npos) << text;
    EXPECT_NE(at("  counters sent 0 received 0 refused 0 dropped 0"), std::string::npos) << text;
    EXPECT_NE(at("bridge rejected-connections 0"), std::string::npos) << text;
    // Each entry under the peer it belongs to.
    const bool subscriberFirst = at("peer " + subscriber.endpoint) < at("peer " + service.endpoint);
    const std::size_t subscription = at("subscription 7.3");
    const std::size_t serviceLine = at("service 7.4");
    EXPECT_EQ(subscriberFirst, subscription < at("peer " + service.endpoint)) << text;
    EXPECT_EQ(subscriberFirst, serviceLine > at("peer " + subscriber.endpoint) && serviceLine > subscription) << text;

    auto json = run({"tables", "--json", "--listen", kLoopback, "--peer", subscriber.endpoint});
    EXPECT_EQ(finish(*json), 0);
    const auto lines = json->lines(ToolProcess::Out);
    ASSERT_EQ(lines.size(), 1u);
    const auto document = nlohmann::json::parse(lines[0]);
    EXPECT_EQ(document["synced"], true);
    bool sawSubscription = false;
    bool sawService = false;
    for (const auto& peer : document["peers"]) {
        for (const auto& s : peer["subscriptions"]) {
            sawSubscription |= peer["peer"] == subscriber.endpoint && s["id"] == "7.3" &&
                               s["sender"] == nlohmann::json::parse(R"(["a","b"])");
        }
        for (const auto& s : peer["services"]) {
            sawService |= peer["peer"] == service.endpoint && s["id"] == "7.4" && s["rank"] == 3;
        }
        EXPECT_TRUE(peer["counters"].contains("dropped"));
    }
    EXPECT_TRUE(sawSubscription) << lines[0];
    EXPECT_TRUE(sawService) << lines[0];  // learned from the subscriber's echo
}

TEST(KestTool, TablesExitsOneWhenAPeerNeverAnswersWithinItsWait) {
    // Port 1 of loopback: nothing listens there.
    auto tables = run({"tables", "--listen", kLoopback, "--peer", "tcp://127.0.0.1:1", "--timeout-ms", "300"});
    EXPECT_EQ(finish(*tables), 1);
    const auto out = tables->lines(ToolProcess::Out);
    ASSERT_GE(out.size(), 2u);
    EXPECT_EQ(out[1].rfind("peer tcp://127.0.0.1:1 ", 0), 0u) << out[1];
    EXPECT_NE(out[1].find("connected no"), std::string::npos) << out[1];
}

// ---- CURVE -----------------------------------------------------------------------------

TEST(KestTool, CurveWithTheKeysKeygenPrintedCarriesMessages) {
    const KeyPair echoKeys = keygen();
    const KeyPair postKeys = keygen();
    // The echo reads its secret from a file in keygen's format.
    char path[] = "/tmp/kest-keys-XXXXXX";
    const int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    close(fd);
    {
        std::ofstream file(path);
        file << "public " << echoKeys.publicKey << "\nsecret " << echoKeys.secretKey << "\n";
    }
    Echo echo = startEcho({"--curve-secret-file", path, "--curve-allow", postKeys.publicKey, "--count", "2",
                           "--timeout-ms", kTimeout, "7.3"});
    std::remove(path);
    auto post = run(postArgs(echo.endpoint + "?key=" + echoKeys.publicKey,
                             {"--curve-secret", postKeys.secretKey, "--curve-allow", echoKeys.publicKey,
                              "--count", "2", "--data", "{\"secret\":true}", "--timeout-ms", kTimeout, "7.3"}));
    EXPECT_EQ(finish(*post), 0);
    EXPECT_EQ(finish(*echo.process), 0);
    const auto out = echo.process->lines(ToolProcess::Out);
    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(nlohmann::json::parse(out[0])["data"], nlohmann::json::parse("{\"secret\":true}"));
}

TEST(KestTool, CurveRefusesAProcessWhoseKeyIsNotAllowed) {
    const KeyPair echoKeys = keygen();
    const KeyPair allowed = keygen();
    const KeyPair intruder = keygen();
    Echo echo = startEcho({"--curve-secret", echoKeys.secretKey, "--curve-allow", allowed.publicKey,
                           "--timeout-ms", "3000", "7.3"});
    auto post = run(postArgs(echo.endpoint + "?key=" + echoKeys.publicKey,
                             {"--curve-secret", intruder.secretKey, "--curve-allow", echoKeys.publicKey,
                              "--timeout-ms", "1500", "7.3"}));
    EXPECT_EQ(finish(*post), 1);
    EXPECT_EQ(summary(*post, "post")["posted"], 0);
    EXPECT_EQ(finish(*echo.process), 1);
    EXPECT_TRUE(echo.process->lines(ToolProcess::Out).empty());
}

TEST(KestTool, CurveWithoutAllowedKeysOrWithAKeylessPeerIsAUsageError) {
    const KeyPair keys = keygen();
    expectUsageError({"echo", "--listen", kLoopback, "--curve-secret", keys.secretKey, "7.3"});
    expectUsageError({"echo", "--listen", kLoopback, "--curve-secret", "not-a-key", "--curve-allow",
                      keys.publicKey, "7.3"});
    expectUsageError({"post", "--listen", kLoopback, "--curve-secret", keys.secretKey, "--curve-allow",
                      keys.publicKey, "--peer", "tcp://127.0.0.1:7001", "7.3"});
}

}  // namespace
