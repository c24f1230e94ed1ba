// The bridge between two processes over TCP on 127.0.0.1, beside raw ZeroMQ
// moving frames of the same size in the same run. This process is one end;
// kest_bench_bridge_peer, started with fork and exec for each benchmark run,
// is the other (see bridge_peer.cpp). Every run has its own child: no state
// carries over from one benchmark to the next.
//
// The message (BridgeBench.h) is a PayloadMessage of four fields with a
// three-part sender; the raw peers send frames of exactly the bytes the bridge
// puts on the wire for it (frame kind, envelope, tree), counted in frame_bytes.
//
// Throughput (Arg: messages). Kest: this process posts N fresh messages into
// its dispatcher; the child's stand-in there sends each on the posting thread;
// the child's bridge decodes each and posts it to a MessageCallback subscriber
// that counts it on the bridge's I/O thread. Peer: a PUB socket here sends N
// frames to a SUB socket in the child whose reader thread counts them. The
// time runs from the first post or send until the child reports the N-th
// arrival (its "got" line read here), so it covers the whole transfer; both
// sides pay the same report. Both sides queue at most `sendBuffer` messages
// (the bridge's option, the PUB's ZMQ_SNDHWM), large enough here that neither
// drops; the bridge's ROUTER and the SUB keep ZeroMQ's default receive
// high-water mark. A warm-up batch crosses before the timed run.
//
// Round trip. Kest: this thread posts a request; the child answers each with
// a fresh reply message posted into its dispatcher, which the bridge carries
// back to a subscriber here. Two forms: after start() (the bridges' I/O
// threads deliver to MessageQueues, read by this thread and by the child's
// responder thread) and with poll() (each process's own thread polls its
// bridge and receives through a MessageCallback, as a host with a loop of its
// own does). Peer: a DEALER here, a ROUTER in the child answering each frame
// from its thread. Every round trip is timed on its own; p50_ns, p90_ns and
// p99_ns are percentiles of those, the benchmark time their mean.
//
// Floors, in this process alone, without sockets: what each end of the
// bridge does per message of a throughput run. Encode: the sending stand-in's
// encoding into its kept buffer. Receive: the receiving bridge's decoding of
// a frame and its post to a MessageCallback subscriber. The slower of the two
// bounds what the bridge can carry per second on one core each, whatever the
// sockets do.

#include "BenchSupport.h"
#include "BridgeBench.h"

#include <kest/msgs/MessageDispatcher.h>
#include <kest/msgs/PostScope.h>
#include <kest/msgs/queues/MessageCallback.h>
#include <kest/msgs/queues/MessageQueue.h>
#include <kest/net/Bridge.h>
#include <kest/net/Wire.h>

#include <zmq.hpp>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#ifndef KEST_BENCH_BRIDGE_PEER
#error "KEST_BENCH_BRIDGE_PEER must name the kest_bench_bridge_peer executable"
#endif

namespace KestBench {
namespace {

using namespace KestBench::Bridge;
using Clock = std::chrono::steady_clock;
using Kest::Msgs::MessageCallback;
using Kest::Msgs::MessageDispatcher;
using Kest::Msgs::MessageQueue;

constexpr std::size_t kWarmUpMessages = 2000;
constexpr std::size_t kWarmUpRoundTrips = 300;
constexpr benchmark::IterationCount kRoundTrips = 10000;
// ZMQ_SNDHWM of every sending socket and the bridges' sendBuffer: more than
// a throughput run queues, so neither side drops.
constexpr std::size_t kSendBuffer = 250000;
// Bounds on every wait for the other process.
constexpr std::chrono::seconds kSetUpTimeout{10};
constexpr std::chrono::seconds kTransferTimeout{60};
constexpr std::chrono::milliseconds kReplyTimeout{2000};

// ---- The child process ---------------------------------------------------------

// kest_bench_bridge_peer with `args`, its standard input and output piped to
// this process. The destructor ends it on every path: it closes the child's
// input (the child stops and exits), waits a bounded time, then kills it.
// The child is also killed when this thread ends (PR_SET_PDEATHSIG), and ends
// itself after a fixed lifetime.
class Child {
public:
    explicit Child(const std::vector<std::string>& args) {
        ::signal(SIGPIPE, SIG_IGN);  // a child that died must not kill the benchmark
        int toChild[2];
        int fromChild[2];
        if (pipe2(toChild, O_CLOEXEC) != 0) throw std::runtime_error("pipe2 failed");
        if (pipe2(fromChild, O_CLOEXEC) != 0) {
            ::close(toChild[0]);
            ::close(toChild[1]);
            throw std::runtime_error("pipe2 failed");
        }
        std::vector<std::string> argv{KEST_BENCH_BRIDGE_PEER};
        argv.insert(argv.end(), args.begin(), args.end());
        std::vector<char*> raw;
        for (std::string& a : argv) raw.push_back(a.data());
        raw.push_back(nullptr);
        const pid_t parent = getpid();
        pid_ = fork();
        if (pid_ == 0) {
            // Only async-signal-safe calls between fork and exec.
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (getppid() != parent) _exit(126);
            dup2(toChild[0], 0);
            dup2(fromChild[1], 1);
            execv(raw[0], raw.data());
            _exit(127);
        }
        ::close(toChild[0]);
        ::close(fromChild[1]);
        if (pid_ < 0) {
            ::close(toChild[1]);
            ::close(fromChild[0]);
            throw std::runtime_error("fork failed");
        }
        input_ = toChild[1];
        output_ = fromChild[0];
    }

    ~Child() {
        ::close(input_);
        ::close(output_);
        const auto deadline = Clock::now() + std::chrono::seconds(5);
        int status = 0;
        while (waitpid(pid_, &status, WNOHANG) == 0) {
            if (Clock::now() >= deadline) {
                kill(pid_, SIGKILL);
                waitpid(pid_, &status, 0);
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }

    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    void send(const std::string& line) {
        const std::string whole = line + "\n";
        std::size_t done = 0;
        while (done < whole.size()) {
            const ssize_t n = ::write(input_, whole.data() + done, whole.size() - done);
            if (n <= 0) throw std::runtime_error("the child process is gone");
            done += static_cast<std::size_t>(n);
        }
    }

    // The next line of the child that begins with the prefix, without it;
    // empty when `deadline` passed first. Throws when the child has gone.
    std::optional<std::string> line(Clock::time_point deadline) {
        for (;;) {
            const std::size_t end = buffered_.find('\n');
            if (end != std::string::npos) {
                std::string whole = buffered_.substr(0, end);
                buffered_.erase(0, end + 1);
                if (whole.rfind(kLinePrefix, 0) == 0) return whole.substr(std::strlen(kLinePrefix));
                continue;  // a warning of the child's dispatcher
            }
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
            if (left.count() < 0) return std::nullopt;
            pollfd fd{output_, POLLIN, 0};
            const int ready = ::poll(&fd, 1, static_cast<int>(left.count()) + 1);
            if (ready < 0 && errno != EINTR) throw std::runtime_error("poll failed");
            if (ready <= 0) continue;
            char chunk[4096];
            const ssize_t n = ::read(output_, chunk, sizeof chunk);
            if (n <= 0) throw std::runtime_error("the child process ended: " + buffered_);
            buffered_.append(chunk, static_cast<std::size_t>(n));
        }
    }

    // The words of the next line, which must begin with `word`.
    std::vector<std::string> expect(const std::string& word, std::chrono::milliseconds timeout) {
        const std::optional<std::string> text = line(Clock::now() + timeout);
        if (!text) throw std::runtime_error("no '" + word + "' from the child process in time");
        std::istringstream in(*text);
        std::vector<std::string> words;
        for (std::string w; in >> w;) words.push_back(w);
        if (words.empty() || words[0] != word) {
            throw std::runtime_error("expected '" + word + "' from the child process, got '" + *text + "'");
        }
        return words;
    }

    // Sends "wait COUNT" and returns the child's (received, intact).
    std::pair<std::uint64_t, std::uint64_t> awaitCount(std::uint64_t count, std::chrono::milliseconds timeout) {
        send("wait " + std::to_string(count) + " " + std::to_string(timeout.count()));
        const std::vector<std::string> words = expect("got", timeout + std::chrono::seconds(5));
        if (words.size() < 3) throw std::runtime_error("malformed 'got' line");
        return {std::stoull(words[1]), std::stoull(words[2])};
    }

private:
    pid_t pid_ = -1;
    int input_ = -1;
    int output_ = -1;
    std::string buffered_;
};

// ---- Shared pieces ----------------------------------------------------------------

Kest::Net::BridgeOptions bridgeOptions() {
    Kest::Net::BridgeOptions options;
    options.listen = "tcp://127.0.0.1:*";
    options.sendBuffer = kSendBuffer;
    options.linger = std::chrono::milliseconds(500);
    return options;
}

// The bytes the bridge sends for `message`: its frame kind, then the wire
// format with the envelope a bridge at `origin` writes (a random-sized epoch
// is nearly always nine bytes of MessagePack, as this one is).
std::string dataFrame(const Message& message, const std::string& origin, std::uint64_t sequence) {
    Kest::Net::Envelope envelope;
    envelope.origin = origin;
    envelope.epoch = 0x9e3779b97f4a7c15;
    envelope.scope = Kest::Net::Scope::Subscribers;
    envelope.sequence = sequence;
    return std::string(1, '\x10') + Kest::Net::encode(message, envelope);
}

// Until the child's bridge has sent its routing, holds ours, and its
// subscription to `id` is here. `polling`: this thread runs the bridge.
void waitForPeer(Kest::Net::Bridge& bridge, Kest::Msgs::Identifier id, bool polling = false) {
    const auto deadline = Clock::now() + kSetUpTimeout;
    while (Clock::now() < deadline) {
        bool found = false;
        for (const Kest::Net::PeerStatus& peer : bridge.peers()) {
            for (const Kest::Msgs::MessageKey& key : peer.subscriptions) {
                if (key.id() == id) found = true;
            }
        }
        if (found && bridge.waitSynced(std::chrono::milliseconds(100))) return;
        if (found) continue;
        // Until the child's first HELLO no peer is known, and waitSynced
        // returns at once.
        if (polling) {
            bridge.poll(std::chrono::milliseconds(10));
        } else {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
    throw std::runtime_error("the child's bridge did not meet this one in time");
}

std::vector<std::shared_ptr<const Message>> makeReadings(std::size_t count) {
    std::vector<std::shared_ptr<const Message>> messages;
    messages.reserve(count);
    for (std::size_t i = 0; i < count; ++i) messages.push_back(makeReading<ReadingMessage>(i));
    return messages;
}

std::uint64_t refusedByBridge(const Kest::Net::Bridge& bridge) {
    std::uint64_t refused = 0;
    for (const Kest::Net::PeerStatus& peer : bridge.peers()) refused += peer.counters.refused;
    return refused;
}

void reportThroughput(benchmark::State& state, std::size_t messages, std::size_t frameBytes, double seconds) {
    state.counters["msgs_per_s"] = seconds > 0 ? static_cast<double>(messages) / seconds : 0;
    state.counters["frame_bytes"] = static_cast<double>(frameBytes);
    state.SetItemsProcessed(static_cast<std::int64_t>(messages) * state.iterations());
}

void reportLatency(benchmark::State& state, const std::vector<std::int64_t>& samples, std::size_t frameBytes) {
    state.counters["p50_ns"] = percentile(samples, 0.50);
    state.counters["p90_ns"] = percentile(samples, 0.90);
    state.counters["p99_ns"] = percentile(samples, 0.99);
    state.counters["frame_bytes"] = static_cast<double>(frameBytes);
}

// Runs `body`, turning an exception (a child that failed, a time-out) into
// the benchmark's error.
template <class Body>
void guarded(benchmark::State& state, Body body) {
    try {
        body();
    } catch (const std::exception& error) {
        if (!state.error_occurred()) state.SkipWithError(error.what());
    }
}

// ---- Floors ---------------------------------------------------------------------------

void BM_Bridge_Floor_Encode(benchmark::State& state) {
    const auto message = makeReading<ReadingMessage>(kWarmUpMessages + 199999);
    Kest::Net::Envelope envelope;
    envelope.origin = "tcp://127.0.0.1:65000";
    envelope.epoch = 0x9e3779b97f4a7c15;
    envelope.scope = Kest::Net::Scope::Subscribers;
    envelope.sequence = 200000;
    std::string buffer;
    for (auto _ : state) {
        Kest::Net::encodeTo(buffer, *message, envelope);
        benchmark::DoNotOptimize(buffer.data());
        ++envelope.sequence;
    }
    state.counters["frame_bytes"] = static_cast<double>(buffer.size() + 1);
}
BENCHMARK(BM_Bridge_Floor_Encode);

void BM_Bridge_Floor_Receive(benchmark::State& state) {
    registerReadingTypes();
    auto dispatcher = std::make_shared<MessageDispatcher>();
    std::uint64_t delivered = 0;
    auto sink = std::make_shared<MessageCallback>(
        [&delivered](const std::shared_ptr<const Message>& /*message*/) { ++delivered; });
    dispatcher->subscribe(sink, {}, ReadingMessage::Id);
    const MessageDispatcher::QueuePtr sender = std::make_shared<MessageQueue>();  // the stand-in's place
    // The dispatcher refuses a repeated identity: each batch of frames holds
    // fresh messages, made with the timer paused.
    std::vector<std::string> frames(4096);
    std::uint64_t made = 0;
    auto refill = [&] {
        for (std::string& frame : frames) {
            frame = dataFrame(*makeReading<ReadingMessage>(made), "tcp://127.0.0.1:65000", made);
            ++made;
        }
    };
    refill();
    std::size_t next = 0;
    for (auto _ : state) {
        if (next == frames.size()) {
            state.PauseTiming();
            refill();
            next = 0;
            state.ResumeTiming();
        }
        const std::string& frame = frames[next++];
        Kest::Net::Decoded decoded = Kest::Net::decodeWithEnvelope(std::string_view(frame).substr(1));
        dispatcher->postMessage(std::move(decoded.message), sender, Kest::Msgs::PostScope::Subscribers);
    }
    checkDelivered(state, delivered, static_cast<std::uint64_t>(state.iterations()));
}
BENCHMARK(BM_Bridge_Floor_Receive);

// ---- Throughput ----------------------------------------------------------------------

void BM_Bridge_Throughput_Kest(benchmark::State& state) {
    guarded(state, [&] {
        const auto count = static_cast<std::size_t>(state.range(0));
        registerReadingTypes();
        SilenceStdout quiet;  // the dispatcher's drop warnings, should there be any
        auto dispatcher = std::make_shared<MessageDispatcher>();
        Kest::Net::Bridge bridge(dispatcher, bridgeOptions());
        bridge.start();
        Child child({"kest-sink", bridge.endpoint(), "--send-buffer", std::to_string(kSendBuffer)});
        child.expect("ready", kSetUpTimeout);
        waitForPeer(bridge, ReadingMessage::Id);

        const MessageDispatcher::QueuePtr noSender;
        for (const auto& message : makeReadings(kWarmUpMessages)) dispatcher->postMessage(message, noSender);
        if (child.awaitCount(kWarmUpMessages, kTransferTimeout).first != kWarmUpMessages) {
            throw std::runtime_error("the warm-up did not arrive whole");
        }
        child.send("reset");
        child.expect("reset", kSetUpTimeout);

        const std::vector<std::shared_ptr<const Message>> messages = makeReadings(count);
        const std::size_t frameBytes =
            dataFrame(*messages.back(), bridge.endpoint(), kWarmUpMessages + count - 1).size();
        const std::uint64_t refusedBefore = refusedByBridge(bridge);
        std::uint64_t received = 0;
        std::uint64_t intact = 0;
        double seconds = 0;
        for (auto _ : state) {
            const auto start = Clock::now();
            for (const auto& message : messages) dispatcher->postMessage(message, noSender);
            // What the link refused never arrives: wait for the rest only.
            const std::uint64_t refused = refusedByBridge(bridge) - refusedBefore;
            std::tie(received, intact) = child.awaitCount(count - refused, kTransferTimeout);
            seconds = std::chrono::duration<double>(Clock::now() - start).count();
            state.SetIterationTime(seconds);
        }
        reportThroughput(state, count, frameBytes, seconds);
        state.counters["refused"] = static_cast<double>(refusedByBridge(bridge) - refusedBefore);
        checkDelivered(state, received, count);
        checkDelivered(state, intact, count);
    });
}
BENCHMARK(BM_Bridge_Throughput_Kest)
    ->ArgName("messages")
    ->Arg(200000)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

void BM_Bridge_Throughput_ZmqPubSub(benchmark::State& state) {
    guarded(state, [&] {
        const auto count = static_cast<std::size_t>(state.range(0));
        zmq::context_t context;
        zmq::socket_t pub(context, zmq::socket_type::pub);
        pub.set(zmq::sockopt::linger, 0);
        pub.set(zmq::sockopt::sndhwm, static_cast<int>(kSendBuffer));
        pub.bind("tcp://127.0.0.1:*");
        const std::string endpoint = pub.get(zmq::sockopt::last_endpoint);
        // The frame of the same message the bridge benchmark sends, at the
        // same sequence; its endpoint has the bridge's form.
        const std::string frame =
            dataFrame(*makeReading<ReadingMessage>(count - 1), endpoint, kWarmUpMessages + count - 1);
        Child child({"zmq-sink", endpoint, std::to_string(frame.size())});
        child.expect("ready", kSetUpTimeout);
        // A subscription reaches the PUB asynchronously: probe (one byte, not
        // counted) until the child has one.
        const auto deadline = Clock::now() + kSetUpTimeout;
        for (;;) {
            (void)pub.send(zmq::str_buffer("p"), zmq::send_flags::dontwait);
            if (auto text = child.line(Clock::now() + std::chrono::milliseconds(5))) {
                if (text->rfind("subscribed", 0) == 0) break;
            }
            if (Clock::now() >= deadline) throw std::runtime_error("the SUB did not subscribe in time");
        }

        for (std::size_t i = 0; i < kWarmUpMessages; ++i) (void)pub.send(zmq::buffer(frame), zmq::send_flags::dontwait);
        if (child.awaitCount(kWarmUpMessages, kTransferTimeout).first != kWarmUpMessages) {
            throw std::runtime_error("the warm-up did not arrive whole");
        }
        child.send("reset");
        child.expect("reset", kSetUpTimeout);

        std::uint64_t received = 0;
        std::uint64_t intact = 0;
        double seconds = 0;
        for (auto _ : state) {
            const auto start = Clock::now();
            for (std::size_t i = 0; i < count; ++i) (void)pub.send(zmq::buffer(frame), zmq::send_flags::dontwait);
            std::tie(received, intact) = child.awaitCount(count, kTransferTimeout);
            seconds = std::chrono::duration<double>(Clock::now() - start).count();
            state.SetIterationTime(seconds);
        }
        reportThroughput(state, count, frame.size(), seconds);
        checkDelivered(state, received, count);
        checkDelivered(state, intact, count);
    });
}
BENCHMARK(BM_Bridge_Throughput_ZmqPubSub)
    ->ArgName("messages")
    ->Arg(200000)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

// ---- Round trip ------------------------------------------------------------------------

void setRoundTripArgs(benchmark::internal::Benchmark* bench) {
    bench->Iterations(kRoundTrips)->UseRealTime()->Unit(benchmark::kMicrosecond);
}

// `roundTrip(i)` sends the i-th request and returns once its answer is here
// (false: none came in time). Warm-up round trips first, untimed.
template <class RoundTrip>
void runRoundTrips(benchmark::State& state, std::size_t frameBytes, RoundTrip roundTrip) {
    for (std::size_t i = 0; i < kWarmUpRoundTrips; ++i) {
        if (!roundTrip(i)) throw std::runtime_error("no answer to a warm-up request");
    }
    std::vector<std::int64_t> samples;
    samples.reserve(static_cast<std::size_t>(state.max_iterations));
    std::size_t next = kWarmUpRoundTrips;
    for (auto _ : state) {
        const auto start = Clock::now();
        if (!roundTrip(next++)) {
            state.SkipWithError("no answer in time");
            break;
        }
        samples.push_back(nanosecondsSince(start));
    }
    reportLatency(state, samples, frameBytes);
}

void BM_Bridge_RoundTrip_Kest(benchmark::State& state) {
    guarded(state, [&] {
        registerReadingTypes();
        SilenceStdout quiet;
        auto dispatcher = std::make_shared<MessageDispatcher>();
        auto replies = std::make_shared<MessageQueue>();
        dispatcher->subscribe(replies, {}, ReplyMessage::Id);
        Kest::Net::Bridge bridge(dispatcher, bridgeOptions());
        bridge.start();
        Child child({"kest-echo", bridge.endpoint(), "thread", "--send-buffer", std::to_string(kSendBuffer)});
        child.expect("ready", kSetUpTimeout);
        waitForPeer(bridge, ReadingMessage::Id);

        const auto requests = makeReadings(kWarmUpRoundTrips + static_cast<std::size_t>(state.max_iterations));
        const MessageDispatcher::QueuePtr noSender;
        runRoundTrips(state, dataFrame(*requests.back(), bridge.endpoint(), requests.size()).size(),
                      [&](std::size_t i) {
                          dispatcher->postMessage(requests[i], noSender);
                          return replies->getMessage(kReplyTimeout) != nullptr;
                      });
    });
}
BENCHMARK(BM_Bridge_RoundTrip_Kest)->Apply(setRoundTripArgs);

void BM_Bridge_RoundTrip_KestPoll(benchmark::State& state) {
    guarded(state, [&] {
        registerReadingTypes();
        SilenceStdout quiet;
        auto dispatcher = std::make_shared<MessageDispatcher>();
        std::size_t answers = 0;  // this thread's only: the callback runs inside its poll()
        auto replies = std::make_shared<MessageCallback>(
            [&answers](const std::shared_ptr<const Message>& /*reply*/) { ++answers; });
        dispatcher->subscribe(replies, {}, ReplyMessage::Id);
        Kest::Net::Bridge bridge(dispatcher, bridgeOptions());
        bridge.poll(std::chrono::milliseconds(0));  // binds: the endpoint is known
        Child child({"kest-echo", bridge.endpoint(), "poll", "--send-buffer", std::to_string(kSendBuffer)});
        child.expect("ready", kSetUpTimeout);
        waitForPeer(bridge, ReadingMessage::Id, true);

        const auto requests = makeReadings(kWarmUpRoundTrips + static_cast<std::size_t>(state.max_iterations));
        const MessageDispatcher::QueuePtr noSender;
        runRoundTrips(state, dataFrame(*requests.back(), bridge.endpoint(), requests.size()).size(),
                      [&](std::size_t i) {
                          const std::size_t before = answers;
                          dispatcher->postMessage(requests[i], noSender);
                          const auto deadline = Clock::now() + kReplyTimeout;
                          while (answers == before && Clock::now() < deadline) {
                              bridge.poll(std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()));
                          }
                          return answers != before;
                      });
        bridge.stop();
    });
}
BENCHMARK(BM_Bridge_RoundTrip_KestPoll)->Apply(setRoundTripArgs);

void BM_Bridge_RoundTrip_ZmqDealerRouter(benchmark::State& state) {
    guarded(state, [&] {
        // The request frame the bridge benchmarks send (an endpoint of the
        // bridge's form); the child answers with a frame of the same size.
        const std::string request = dataFrame(*makeReading<ReadingMessage>(kWarmUpRoundTrips + kRoundTrips - 1),
                                              "tcp://127.0.0.1:65000", kWarmUpRoundTrips + kRoundTrips);
        const std::size_t frameBytes = request.size();
        Child child({"zmq-echo", std::to_string(frameBytes), "--send-buffer", std::to_string(kSendBuffer)});
        const std::vector<std::string> ready = child.expect("ready", kSetUpTimeout);
        if (ready.size() < 2) throw std::runtime_error("the child did not say where it listens");
        zmq::context_t context;
        zmq::socket_t dealer(context, zmq::socket_type::dealer);
        dealer.set(zmq::sockopt::linger, 0);
        dealer.set(zmq::sockopt::sndhwm, static_cast<int>(kSendBuffer));
        dealer.set(zmq::sockopt::rcvtimeo, static_cast<int>(kReplyTimeout.count()));
        dealer.connect(ready[1]);
        zmq::message_t reply;
        runRoundTrips(state, frameBytes, [&](std::size_t /*i*/) {
            (void)dealer.send(zmq::buffer(request), zmq::send_flags::dontwait);
            return dealer.recv(reply, zmq::recv_flags::none).has_value() && reply.size() == frameBytes;
        });
    });
}
BENCHMARK(BM_Bridge_RoundTrip_ZmqDealerRouter)->Apply(setRoundTripArgs);

}  // namespace
}  // namespace KestBench
