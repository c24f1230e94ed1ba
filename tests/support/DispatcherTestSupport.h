#pragma once

// Helpers for the dispatcher tests: a forwarder-style queue that listens to
// the four routing notifications, reading plain messages back out of queues,
// and generated hierarchical addresses.

#include <kest/model/ForwarderNotifications.h>
#include <kest/model/Identifier.h>
#include <kest/model/Message.h>
#include <kest/model/MessageQueueInterface.h>
#include <kest/msgs/MessageDispatcher.h>
#include <kest/msgs/queues/MessageQueue.h>

#include <support/TestSupport.h>

#include <chrono>
#include <cstdint>
#include <list>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace KestTest {

inline Kest::Msgs::Identifier noticeId(std::uint16_t type) {
    return Kest::Msgs::Identifier(Kest::Msgs::Communications::Forwarder::Category, type);
}

// A queue subscribed, from any sender, to the notification kinds 9, 10, 5 and
// 6, as a forwarding component would be. Its own subscriptions announce
// nothing to it, so it starts out empty.
inline std::shared_ptr<Kest::Msgs::MessageQueue> attachForwarder(Kest::Msgs::MessageDispatcher& dispatcher) {
    auto forwarder = std::make_shared<Kest::Msgs::MessageQueue>();
    for (std::uint16_t type : {9, 10, 5, 6}) dispatcher.subscribe(forwarder, {}, noticeId(type));
    return forwarder;
}

// Takes every message waiting in `queue`, oldest first. Never waits, not even
// the short timed wait of getMessage(0) on an empty queue.
inline std::vector<std::shared_ptr<const Kest::Msgs::Message>> drainMessages(
    Kest::Msgs::MessageQueueInterface& queue) {
    std::list<std::shared_ptr<const Kest::Msgs::Message>> taken;
    queue.takeAllAvailableMessages(taken);
    return {taken.begin(), taken.end()};
}

// A random path of `minDepth` to `maxDepth` parts drawn from `parts`.
inline Address randomAddress(std::mt19937& random, const std::vector<std::string>& parts,
                             std::size_t minDepth, std::size_t maxDepth) {
    std::uniform_int_distribution<std::size_t> depth(minDepth, maxDepth);
    std::uniform_int_distribution<std::size_t> pick(0, parts.size() - 1);
    Address address(depth(random));
    for (std::string& part : address) part = parts[pick(random)];
    return address;
}

}  // namespace KestTest
