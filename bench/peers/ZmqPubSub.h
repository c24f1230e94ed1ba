#pragma once

// A ZeroMQ PUB socket and a SUB socket joined over inproc, carrying message
// pointers. The benchmarks keep every message alive until the run ends, so a
// frame holds the bare pointer and no ownership travels with it: the peer is
// spared the heap allocation that passing a std::shared_ptr through a byte
// queue would cost.

#include <zmq.hpp>

#include <chrono>
#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>

namespace KestBench::Peers {

class ZmqPubSub {
public:
    // Binds PUB and connects SUB at `endpoint`. Both high-water marks are
    // unlimited: a PUB socket drops what it cannot queue, and every workload
    // must deliver every message.
    explicit ZmqPubSub(const std::string& endpoint)
        : publisher_(context_, zmq::socket_type::pub), subscriber_(context_, zmq::socket_type::sub) {
        publisher_.set(zmq::sockopt::linger, 0);
        subscriber_.set(zmq::sockopt::linger, 0);
        publisher_.set(zmq::sockopt::sndhwm, 0);
        subscriber_.set(zmq::sockopt::rcvhwm, 0);
        subscriber_.set(zmq::sockopt::sndhwm, 0);  // subscriptions travel upstream
        publisher_.bind(endpoint);
        subscriber_.connect(endpoint);
    }

    void subscribe(const std::string& topic) { subscriber_.set(zmq::sockopt::subscribe, topic); }

    // Subscriptions reach the publisher asynchronously. Publishes probes on
    // `topic` until one arrives, then drops any probe still queued. Subscribe
    // to `topic` last: the publisher handles subscriptions in order, so once
    // it routes `topic` it has seen all the others. False after 10 s.
    bool waitUntilRouted(const std::string& topic) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        zmq::message_t frame;
        while (std::chrono::steady_clock::now() < deadline) {
            publish(topic, nullptr);
            if (subscriber_.recv(frame, zmq::recv_flags::dontwait)) {
                while (subscriber_.recv(frame, zmq::recv_flags::dontwait)) {
                }
                return true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return false;
    }

    // One frame: the topic, then the pointer's bytes.
    void publish(const std::string& topic, const void* pointer) {
        char frame[128];
        if (topic.size() > sizeof frame - sizeof pointer) throw std::length_error("topic too long");
        std::memcpy(frame, topic.data(), topic.size());
        std::memcpy(frame + topic.size(), &pointer, sizeof pointer);
        (void)publisher_.send(zmq::const_buffer(frame, topic.size() + sizeof pointer), zmq::send_flags::none);
    }

    // Waits for the next frame and returns the pointer it carries.
    const void* receive(std::size_t topicLength) {
        if (!subscriber_.recv(frame_, zmq::recv_flags::none)) return nullptr;
        const void* pointer = nullptr;
        std::memcpy(&pointer, static_cast<const char*>(frame_.data()) + topicLength, sizeof pointer);
        return pointer;
    }

private:
    zmq::context_t context_;
    zmq::socket_t publisher_;   // used by the posting thread
    zmq::socket_t subscriber_;  // used by the reading thread
    zmq::message_t frame_;      // reused by receive
};

}  // namespace KestBench::Peers
