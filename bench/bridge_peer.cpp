// The other process of kest_bench_bridge: started by it with fork and exec,
// driven through standard input, answering on standard output with lines
// that begin with "KB ". One role per process:
//
//   kest-sink PARENT_EP                 a bridge to PARENT_EP; a MessageCallback
//                                       subscribed to ReadingMessage counts what
//                                       arrives, on the bridge's I/O thread
//   kest-echo PARENT_EP thread|poll     a bridge to PARENT_EP; each request
//                                       (ReadingMessage) is answered with a
//                                       ReplyMessage: after start() by a
//                                       responder thread reading a MessageQueue,
//                                       with poll by the thread that polls,
//                                       once its poll() returns
//   zmq-sink PUB_EP BYTES               a SUB socket connected to PUB_EP counts
//                                       the frames of BYTES bytes
//   zmq-echo BYTES                      a ROUTER bound to 127.0.0.1 answers each
//                                       frame with a frame of BYTES bytes
//
// Options after the role: --send-buffer N (the bridge's sendBuffer, the
// sockets' ZMQ_SNDHWM; default 10000).
//
// At start: "KB ready ENDPOINT" (the bridge's endpoint, or the ROUTER's).
// Commands, one per line:
//
//   wait COUNT MS   (sinks) until COUNT messages arrived since the last reset
//                   or MS passed               -> KB got RECEIVED INTACT
//   reset           (sinks) counts from zero   -> KB reset
//   stats           the bridge's peer counters -> KB stats RECEIVED DROPPED
//                                                 DELIVERYERRORS (0 0 0 for zmq-*)
//   quit, or the end of standard input: stops and exits.
//
// Every loop is bounded: a process whose parent is gone exits (it reads the
// end of its standard input), and alarm() ends one that outlives kMaxLifetime.

#include "BridgeBench.h"

#include <kest/msgs/MessageDispatcher.h>
#include <kest/msgs/queues/MessageCallback.h>
#include <kest/msgs/queues/MessageQueue.h>
#include <kest/net/Bridge.h>

#include <zmq.hpp>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace KestBench::Bridge;
using Kest::Msgs::Message;
using Kest::Msgs::MessageCallback;
using Kest::Msgs::MessageDispatcher;
using Kest::Msgs::MessageQueue;

// Longer than any benchmark of the suite runs with one child.
constexpr unsigned kMaxLifetimeSeconds = 600;
// How often the threads of this process look at their stop flag.
constexpr std::chrono::milliseconds kStopCheck{100};

void say(const std::string& line) {
    const std::string whole = kLinePrefix + line + "\n";
    std::fwrite(whole.data(), 1, whole.size(), stdout);
    std::fflush(stdout);
}

// Counts arrivals; wait() blocks until a count is reached. Arrivals come from
// one thread (the bridge's I/O thread or the SUB reader) and are lock-free;
// only the one that reaches the awaited count takes the lock, to wake the
// waiter.
class Counter {
public:
    void arrived(bool intact) {
        if (intact) intact_.fetch_add(1);
        const std::uint64_t now = received_.fetch_add(1) + 1;
        if (now == target_.load()) {
            std::lock_guard<std::mutex> lock(mutex_);
            reached_.notify_all();
        }
    }

    std::pair<std::uint64_t, std::uint64_t> wait(std::uint64_t count, std::chrono::milliseconds timeout) {
        std::unique_lock<std::mutex> lock(mutex_);
        target_.store(count);
        reached_.wait_for(lock, timeout, [&] { return received_.load() >= count; });
        target_.store(0);
        return {received_.load(), intact_.load()};
    }

    void reset() {
        received_.store(0);
        intact_.store(0);
    }

private:
    std::atomic<std::uint64_t> received_{0};
    std::atomic<std::uint64_t> intact_{0};
    std::atomic<std::uint64_t> target_{0};
    std::mutex mutex_;
    std::condition_variable reached_;
};

bool intactReading(const Message& message) {
    const auto* reading = dynamic_cast<const ReadingMessage*>(&message);
    return reading != nullptr && reading->payload().unit() == "degC";
}

Kest::Net::BridgeOptions bridgeOptions(const std::string& parent, std::size_t sendBuffer) {
    Kest::Net::BridgeOptions options;
    options.listen = "tcp://127.0.0.1:*";
    options.peers = {parent};
    options.sendBuffer = sendBuffer;
    options.linger = std::chrono::milliseconds(500);
    return options;
}

// Reads commands until quit or the end of input. `stats` gives the
// counters for "stats"; a sink's counter serves "wait" and "reset".
template <class Stats>
void serveCommands(Counter* counter, Stats stats) {
    std::string line;
    while (std::getline(std::cin, line)) {
        std::istringstream in(line);
        std::string command;
        in >> command;
        if (command == "quit") break;
        if (command == "wait" && counter != nullptr) {
            std::uint64_t count = 0;
            long ms = 0;
            in >> count >> ms;
            const auto [received, intact] = counter->wait(count, std::chrono::milliseconds(ms));
            say("got " + std::to_string(received) + " " + std::to_string(intact));
        } else if (command == "reset" && counter != nullptr) {
            counter->reset();
            say("reset");
        } else if (command == "stats") {
            say("stats " + stats());
        } else {
            say("error unknown command '" + line + "'");
        }
    }
}

std::string bridgeStats(const Kest::Net::Bridge& bridge) {
    std::uint64_t received = 0;
    std::uint64_t dropped = 0;
    for (const Kest::Net::PeerStatus& peer : bridge.peers()) {
        received += peer.counters.received;
        dropped += peer.counters.dropped;
    }
    return std::to_string(received) + " " + std::to_string(dropped) + " " +
           std::to_string(bridge.counters().deliveryErrors);
}

int kestSink(const std::string& parent, std::size_t sendBuffer) {
    auto dispatcher = std::make_shared<MessageDispatcher>();
    Counter counter;
    // Delivered on the bridge's I/O thread, as a MessageCallback subscriber is.
    auto sink = std::make_shared<MessageCallback>(
        [&counter](const std::shared_ptr<const Message>& message) { counter.arrived(intactReading(*message)); });
    dispatcher->subscribe(sink, {}, ReadingMessage::Id);
    Kest::Net::Bridge bridge(dispatcher, bridgeOptions(parent, sendBuffer));
    bridge.start();
    say("ready " + bridge.endpoint());
    serveCommands(&counter, [&] { return bridgeStats(bridge); });
    bridge.stop();
    return 0;
}

int kestEcho(const std::string& parent, std::size_t sendBuffer, bool pollMode) {
    auto dispatcher = std::make_shared<MessageDispatcher>();
    const MessageDispatcher::QueuePtr noSender;
    Kest::Net::Bridge bridge(dispatcher, bridgeOptions(parent, sendBuffer));
    std::atomic<bool> stop{false};
    std::uint64_t next = 0;
    // Each answer is a fresh message (the parent's dispatcher refuses a
    // repeat); made ahead of the requests, as the parent makes its requests.
    std::vector<std::shared_ptr<const Message>> replies;
    auto nextReply = [&]() -> std::shared_ptr<const Message> {
        if (replies.empty()) {
            for (int i = 0; i < 4096; ++i) replies.push_back(makeReading<ReplyMessage>(next++));
            std::reverse(replies.begin(), replies.end());
        }
        std::shared_ptr<const Message> reply = std::move(replies.back());
        replies.pop_back();
        return reply;
    };
    nextReply();  // makes the first batch before any request

    std::thread worker;
    // Poll mode: requests are collected by the callback inside poll() and
    // answered once it has returned (a delivery must not post).
    std::vector<std::shared_ptr<const Message>> requests;  // the worker's only
    if (pollMode) {
        auto inbox = std::make_shared<MessageCallback>(
            [&requests](const std::shared_ptr<const Message>& message) { requests.push_back(message); });
        dispatcher->subscribe(inbox, {}, ReadingMessage::Id);
        worker = std::thread([&] {
            while (!stop.load()) {
                bridge.poll(kStopCheck);
                for (std::size_t i = 0; i < requests.size(); ++i) dispatcher->postMessage(nextReply(), noSender);
                requests.clear();
            }
        });
        // The endpoint is known after the first poll, which the worker makes.
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (bridge.endpoint().empty() && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    } else {
        auto inbox = std::make_shared<MessageQueue>();
        dispatcher->subscribe(inbox, {}, ReadingMessage::Id);
        bridge.start();
        worker = std::thread([&, inbox] {
            while (!stop.load()) {
                if (inbox->getMessage(kStopCheck)) dispatcher->postMessage(nextReply(), noSender);
            }
        });
    }
    say("ready " + bridge.endpoint());
    serveCommands(nullptr, [&] { return bridgeStats(bridge); });
    stop.store(true);
    worker.join();
    bridge.stop();
    return 0;
}

int zmqSink(const std::string& publisher, std::size_t frameBytes) {
    zmq::context_t context;
    zmq::socket_t sub(context, zmq::socket_type::sub);
    sub.set(zmq::sockopt::linger, 0);
    sub.set(zmq::sockopt::rcvtimeo, static_cast<int>(kStopCheck.count()));
    sub.set(zmq::sockopt::subscribe, "");
    sub.connect(publisher);
    Counter counter;
    std::atomic<bool> stop{false};
    std::atomic<bool> probed{false};
    std::thread reader([&] {
        zmq::message_t frame;
        while (!stop.load()) {
            if (!sub.recv(frame, zmq::recv_flags::none)) continue;
            if (frame.size() == frameBytes) {
                // The same check as the bridge's sink makes of its message.
                counter.arrived(static_cast<const char*>(frame.data())[0] != 0);
            } else if (!probed.exchange(true)) {
                say("subscribed");
            }
        }
    });
    say("ready " + publisher);
    serveCommands(&counter, [] { return std::string("0 0 0"); });
    stop.store(true);
    reader.join();
    return 0;
}

int zmqEcho(std::size_t frameBytes, std::size_t sendBuffer) {
    zmq::context_t context;
    zmq::socket_t router(context, zmq::socket_type::router);
    router.set(zmq::sockopt::linger, 0);
    router.set(zmq::sockopt::rcvtimeo, static_cast<int>(kStopCheck.count()));
    router.set(zmq::sockopt::sndhwm, static_cast<int>(sendBuffer));
    router.bind("tcp://127.0.0.1:*");
    const std::string endpoint = router.get(zmq::sockopt::last_endpoint);
    const std::string reply(frameBytes, 'r');
    std::atomic<bool> stop{false};
    std::thread echo([&] {
        zmq::message_t identity;
        zmq::message_t frame;
        while (!stop.load()) {
            if (!router.recv(identity, zmq::recv_flags::none)) continue;
            if (!identity.more() || !router.recv(frame, zmq::recv_flags::none)) continue;
            (void)router.send(identity, zmq::send_flags::sndmore | zmq::send_flags::dontwait);
            (void)router.send(zmq::buffer(reply), zmq::send_flags::dontwait);
        }
    });
    say("ready " + endpoint);
    serveCommands(nullptr, [] { return std::string("0 0 0"); });
    stop.store(true);
    echo.join();
    return 0;
}

int usage() {
    std::cerr << "usage: kest_bench_bridge_peer kest-sink PARENT_EP | kest-echo PARENT_EP thread|poll |\n"
                 "       zmq-sink PUB_EP BYTES | zmq-echo BYTES   [--send-buffer N]\n";
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    alarm(kMaxLifetimeSeconds);
    std::vector<std::string> args(argv + 1, argv + argc);
    std::size_t sendBuffer = 10000;
    for (std::size_t i = 0; i + 1 < args.size(); ++i) {
        if (args[i] == "--send-buffer") {
            sendBuffer = std::stoul(args[i + 1]);
            args.erase(args.begin() + static_cast<std::ptrdiff_t>(i), args.begin() + static_cast<std::ptrdiff_t>(i) + 2);
            break;
        }
    }
    if (args.empty()) return usage();
    registerReadingTypes();
    try {
        const std::string& role = args[0];
        if (role == "kest-sink" && args.size() == 2) return kestSink(args[1], sendBuffer);
        if (role == "kest-echo" && args.size() == 3 && (args[2] == "thread" || args[2] == "poll")) {
            return kestEcho(args[1], sendBuffer, args[2] == "poll");
        }
        if (role == "zmq-sink" && args.size() == 3) return zmqSink(args[1], std::stoul(args[2]));
        if (role == "zmq-echo" && args.size() == 2) return zmqEcho(std::stoul(args[1]), sendBuffer);
    } catch (const std::exception& error) {
        say(std::string("error ") + error.what());
        return 1;
    }
    return usage();
}
