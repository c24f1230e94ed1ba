// kest: the command-line tool of the Kest bus. It joins the bus of other
// processes through a Kest::Net::Bridge and echoes, posts or shows what is
// routed there; keygen makes CURVE keys for it.
//
// Standard output carries the command's own output only (echo's messages,
// tables, keygen's keys); status lines, summaries, errors and the library's
// own diagnostics (the dispatcher's drop warnings) go to standard error.

#include "Commands.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <iostream>
#include <string>

namespace {

constexpr const char* kNames =
    "CAT.TYPE names a message kind: its category and type, each a number from 0 to 65535, decimal or\n"
    "hexadecimal with 0x (7.3, 0x0100.0x2a). Kest::Net's MessageTypes keys its registry by identifier\n"
    "and keeps no names, so numbers are the names. Category 3853 (0x0F0D), the forwarder\n"
    "notifications, is refused: those are never bridged. Addresses are written a/b/c, most general\n"
    "part first; a prefix covers every address below it, and an empty one covers all.\n";

constexpr const char* kExits =
    "Exit status: 0 done; 1 not done (time-out, SIGINT/SIGTERM, refused by the network, output\n"
    "closed); 2 bad options, endpoint, name or JSON (a one-line error on standard error).\n";

// CLI11 reads "-1" into an unsigned number as its two's complement; this
// refuses it first, with a short message.
const CLI::Validator kNotNegative(
    [](std::string& value) { return value.rfind('-', 0) == 0 ? std::string("must not be negative") : std::string(); },
    "NOT NEGATIVE", "NotNegative");

void addBridgeOptions(CLI::App& command, KestTool::BridgeArgs& args) {
    command.add_option("--listen", args.listen,
                       "Endpoint to bind: tcp://HOST:PORT (PORT * takes a free one; the endpoint bound is "
                       "printed on standard error), ipc://PATH. Without CURVE keys only loopback hosts")
        ->required()
        ->type_name("EP");
    command.add_option("--peer", args.peers,
                       "A process to connect to (repeatable); with CURVE EP?key=<its public key>. Peers "
                       "connect back, the rest of the mesh is learned")
        ->allow_extra_args(false)
        ->type_name("EP");
    command.add_option("--advertise", args.advertise,
                       "The endpoint peers reach this process at (needed when --listen binds every interface)")
        ->type_name("EP");
    command.add_option("--curve-secret", args.curveSecret,
                       "This process's CURVE secret key (from kest keygen): encrypt and authenticate")
        ->type_name("KEY");
    command.add_option("--curve-secret-file", args.curveSecretFile,
                       "Read the secret key from a file (kest keygen's output, or the key alone), keeping it "
                       "out of the process list")
        ->type_name("FILE");
    command.add_option("--curve-allow", args.curveAllow,
                       "Public key of a process allowed to connect (repeatable; CURVE only)")
        ->allow_extra_args(false)
        ->type_name("KEY");
    command.add_flag("--allow-insecure", args.allowInsecure,
                     "Listen on a non-loopback address without CURVE (unencrypted, anyone may connect)");
    command.add_option("--send-buffer", args.sendBuffer, "Messages buffered per peer before it refuses more")
        ->check(kNotNegative & CLI::Range(std::size_t{1}, std::size_t{1} << 30))
        ->capture_default_str();
    command.add_option("--heartbeat-ms", args.heartbeatMs, "How often peers are told this process is alive")
        ->check(CLI::Range(1L, 3600000L))
        ->capture_default_str();
    command.add_option("--peer-timeout-ms", args.peerTimeoutMs,
                       "A peer not heard from for this long is dead: its routing is removed")
        ->check(CLI::Range(2L, 3600000L))
        ->capture_default_str();
    command.add_option("--linger-ms", args.lingerMs,
                       "On exit, how long to go on sending what peers can still take")
        ->check(CLI::Range(0L, 3600000L))
        ->capture_default_str();
}

std::string oneLine(std::string text) {
    std::replace(text.begin(), text.end(), '\n', ' ');
    return text;
}

int usageError(const std::string& what) {
    std::fprintf(stderr, "kest: %s\n", oneLine(what).c_str());
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("kest: echo, post and inspect messages of a Kest bus that spans processes "
                 "(through Kest::Net::Bridge)",
                 "kest");
    app.require_subcommand(1);
    app.footer(std::string("\n") + kNames + "\n" + kExits);

    KestTool::EchoArgs echo;
    CLI::App* echoCommand = app.add_subcommand(
        "echo", "Subscribe to CAT.TYPE and print each message received as one JSON line");
    addBridgeOptions(*echoCommand, echo.bridge);
    echoCommand->add_option("CAT.TYPE", echo.id, "The message kind to receive")->required();
    echoCommand->add_option("SENDER/PREFIX", echo.prefix, "Only from senders under this prefix (default: any)");
    echoCommand->add_option("--count", echo.count, "Exit 0 after this many messages (0: no limit)")
        ->check(kNotNegative)
        ->capture_default_str();
    echoCommand->add_option("--timeout-ms", echo.timeoutMs, "Exit 1 when this passes first (0: no limit)")
        ->check(kNotNegative)
        ->capture_default_str();
    echoCommand
        ->add_option("--service", echo.service,
                     "Instead of subscribing, register as the service for destinations under this prefix")
        ->type_name("DEST/PREFIX");
    echoCommand->add_option("--rank", echo.rank, "The service's rank (with --service; 0 is exclusive)")
        ->check(kNotNegative)
        ->capture_default_str();
    echoCommand->footer(
        std::string("\nEach message is printed on its own line, flushed at once:\n"
                    "  {\"id\":\"CAT.TYPE\",\"identity\":\"...\",\"sender\":[...],\"destination\":[...],"
                    "\"data\":{...}}\n"
                    "data is the message's tree without the fields before it (an unset address prints as []).\n"
                    "On exit a summary goes to standard error: kest echo: summary {JSON}, with the messages\n"
                    "received, duplicates and per peer its counters (dropped: lost on the way). SIGINT or\n"
                    "SIGTERM ends it with the summary and status 1.\n\n") +
        kNames + "\n" + kExits);

    KestTool::PostArgs post;
    CLI::App* postCommand = app.add_subcommand(
        "post", "Wait until a peer wants CAT.TYPE, then post messages carrying --data as payload");
    addBridgeOptions(*postCommand, post.bridge);
    postCommand->add_option("CAT.TYPE", post.id, "The message kind to post")->required();
    CLI::Option* senderOption =
        postCommand->add_option("--sender", post.sender, "The messages' sender address")->type_name("a/b");
    CLI::Option* destinationOption =
        postCommand
            ->add_option("--destination", post.destination,
                         "The messages' destination: a request for a service (then it waits for a service "
                         "covering it)")
            ->type_name("x/y");
    postCommand->add_option("--data", post.data, "The payload, a JSON object (default {})")->type_name("JSON");
    postCommand->add_option("--count", post.count, "How many messages")
        ->check(kNotNegative)->capture_default_str();
    postCommand->add_option("--interval-ms", post.intervalMs, "Pause between two messages")
        ->check(kNotNegative)
        ->capture_default_str();
    postCommand->add_option("--timeout-ms", post.timeoutMs, "Exit 1 when this passes first (0: no limit)")
        ->check(kNotNegative)
        ->capture_default_str();
    postCommand->footer(
        std::string("\nBefore each message it waits until a peer has shown interest: a stand-in of a peer in the\n"
                    "local dispatcher's tables subscribed to CAT.TYPE under a prefix of --sender (or, with\n"
                    "--destination, registered as a service covering it). It exits 0 when every message was\n"
                    "counted sent by the bridge (handed to the network), 1 on time-out or when the bridge\n"
                    "refused some (link down or buffer full: counted, not re-sent). Nothing goes to standard\n"
                    "output; the summary goes to standard error: kest post: summary {JSON} with posted, sent,\n"
                    "refused, unrouted (posted as its peer's interest went away) and per-peer counters.\n\n") +
        kNames + "\n" + kExits);

    KestTool::TablesArgs tables;
    CLI::App* tablesCommand = app.add_subcommand(
        "tables", "Print the routing learned from the peers, and the per-peer counters");
    addBridgeOptions(*tablesCommand, tables.bridge);
    tablesCommand
        ->add_option("--timeout-ms", tables.timeoutMs,
                     "How long to wait for sync (Bridge::waitSynced) before printing what is known")
        ->check(kNotNegative)
        ->capture_default_str();
    tablesCommand->add_flag("--json", tables.json, "One JSON document instead of text");
    tablesCommand->footer(
        std::string("\nIt joins the mesh, waits up to --timeout-ms until every peer it knows (those given with\n"
                    "--peer and those they told it of) is connected and has exchanged its routing, prints per\n"
                    "peer the subscriptions (kind and sender prefix) and services (kind, destination prefix,\n"
                    "rank in that process) it exported, and the counters, then exits: 0 when synced, 1 when\n"
                    "the wait ended first (what was known is printed all the same).\n\n") +
        kExits);

    app.add_subcommand("keygen", "Print a new CURVE key pair: a line \"public KEY\", then \"secret KEY\"")
        ->footer("\nUse the secret key with --curve-secret (or the file with --curve-secret-file), and give\n"
                 "the public key to the peers: their --curve-allow KEY and --peer EP?key=KEY.\n");

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        return usageError(std::string(e.what()) + " (see kest --help)");
    }
    echo.serviceSet = echoCommand->count("--service") > 0;
    post.senderSet = senderOption->count() > 0;
    post.destinationSet = destinationOption->count() > 0;

    // The library's diagnostics (drop warnings) go to standard output through
    // std::cout; standard output here is for the command's own output.
    std::cout.rdbuf(std::cerr.rdbuf());
    try {
        if (*echoCommand) return KestTool::runEcho(echo);
        if (*postCommand) return KestTool::runPost(post);
        if (*tablesCommand) return KestTool::runTables(tables);
        return KestTool::runKeygen();
    } catch (const KestTool::UsageError& e) {
        return usageError(e.what());
    } catch (const std::exception& e) {
        std::fprintf(stderr, "kest: %s\n", oneLine(e.what()).c_str());
        return 1;
    }
}
