#pragma once

// Helpers of the bridge's tests: receivers that count what they get and wake
// a waiting test, a watcher that wakes a test when a dispatcher's tables
// change, and numbered messages. Every wait has a deadline and waits on a
// condition variable, never by sleeping.

#include <kest/metadata/Element.h>
#include <kest/model/Forwarder.h>
#include <kest/model/Identifier.h>
#include <kest/model/Message.h>
#include <kest/msgs/MessageDispatcher.h>
#include <kest/msgs/queues/MessageCallback.h>
#include <kest/net/Bridge.h>
#include <kest/net/GenericMessage.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace KestTest {

using namespace std::chrono_literals;
using Kest::Msgs::Identifier;
using Kest::Msgs::Message;
using Kest::Msgs::MessageCallback;
using Kest::Msgs::MessageDispatcher;

inline constexpr std::chrono::milliseconds kSyncTimeout{10000};

// A message of `id` carrying the number `n` (and `from`), from `sender`, to
// `destination` when given.
inline std::shared_ptr<const Message> numbered(Identifier id, std::uint64_t n, const std::string& from = "",
                                               std::vector<std::string> sender = {},
                                               std::optional<std::vector<std::string>> destination = std::nullopt) {
    Kest::MetaData::Element payload(Kest::MetaData::Object{});
    payload["N"] = Kest::MetaData::Element(static_cast<unsigned long>(n));
    payload["From"] = Kest::MetaData::Element(from);
    return std::make_shared<Kest::Net::GenericMessage>(id, std::move(sender), std::move(destination),
                                                       std::move(payload));
}

// The number and origin a message of numbered() carries.
inline std::uint64_t numberOf(const Message& message) {
    const auto* generic = dynamic_cast<const Kest::Net::GenericMessage*>(&message);
    if (generic == nullptr) return ~std::uint64_t{0};
    unsigned long n = 0;
    Kest::MetaData::GetAs(generic->tree()["N"], n);
    return n;
}

inline std::string originOf(const Message& message) {
    const auto* generic = dynamic_cast<const Kest::Net::GenericMessage*>(&message);
    if (generic == nullptr) return std::string();
    std::string from;
    Kest::MetaData::GetAs(generic->tree()["From"], from);
    return from;
}

// A MessageCallback that keeps what it got and wakes waiters.
class Collector {
public:
    Collector()
        : queue_(std::make_shared<MessageCallback>([this](const std::shared_ptr<const Message>& message) {
              std::lock_guard<std::mutex> lock(mutex_);
              messages_.push_back(message);
              changed_.notify_all();
          })) {}

    const std::shared_ptr<MessageCallback>& queue() const { return queue_; }

    std::size_t count() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return messages_.size();
    }

    std::vector<std::shared_ptr<const Message>> messages() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return messages_;
    }

    // Waits until `predicate(messages)` holds or `timeout` passes; returns it.
    bool waitFor(const std::function<bool(const std::vector<std::shared_ptr<const Message>>&)>& predicate,
                 std::chrono::milliseconds timeout = kSyncTimeout) const {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] { return predicate(messages_); });
    }

    bool waitForCount(std::size_t n, std::chrono::milliseconds timeout = kSyncTimeout) const {
        return waitFor([n](const auto& messages) { return messages.size() >= n; }, timeout);
    }

    // Waits for a message carrying the number `n`.
    bool waitForNumber(std::uint64_t n, std::chrono::milliseconds timeout = kSyncTimeout) const {
        return waitFor(
            [n](const auto& messages) {
                for (const auto& m : messages) {
                    if (numberOf(*m) == n) return true;
                }
                return false;
            },
            timeout);
    }

private:
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<std::shared_ptr<const Message>> messages_;  // guarded by mutex_
    std::shared_ptr<MessageCallback> queue_;
};

// Wakes a waiting test whenever `dispatcher`'s tables change, and evaluates
// the test's condition on the waiting thread (never inside the delivery).
class TableWatcher {
public:
    explicit TableWatcher(std::shared_ptr<MessageDispatcher> dispatcher)
        : dispatcher_(std::move(dispatcher)),
          queue_(std::make_shared<MessageCallback>([this](const std::shared_ptr<const Message>&) {
              std::lock_guard<std::mutex> lock(mutex_);
              ++changes_;
              changed_.notify_all();
          })) {
        namespace Fwd = Kest::Msgs::Communications::Forwarder;
        for (std::uint16_t type : {5, 6, 9, 10}) dispatcher_->subscribe(queue_, {}, Identifier(Fwd::Category, type));
    }
    ~TableWatcher() { dispatcher_->disconnectQueue(queue_); }
    TableWatcher(const TableWatcher&) = delete;
    TableWatcher& operator=(const TableWatcher&) = delete;

    // Waits until `condition()` holds or `timeout` passes; returns it.
    bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout = kSyncTimeout) {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        std::unique_lock<std::mutex> lock(mutex_);
        for (;;) {
            const std::uint64_t seen = changes_;
            lock.unlock();
            if (condition()) return true;
            lock.lock();
            if (!changed_.wait_until(lock, deadline, [&] { return changes_ != seen; })) {
                lock.unlock();
                return condition();
            }
        }
    }

    // The number of subscribers the table shows under (id, sender); 0 when absent.
    unsigned subscribers(Identifier id, const std::vector<std::string>& sender = {}) const {
        MessageDispatcher::SubscriptionsTable table;
        dispatcher_->getSubscriptionsTable(table);
        auto found = table.find(Kest::Msgs::MessageKey(static_cast<unsigned long>(id), sender, {},
                                                       Kest::Msgs::MessageKey::HashFunction()));
        return found == table.end() ? 0 : found->second;
    }

    // The lowest rank under (id, destination), if the key is there.
    std::optional<std::uint64_t> lowestRank(Identifier id, const std::vector<std::string>& destination) const {
        MessageDispatcher::ServicesTable table;
        dispatcher_->getServicesTable(table);
        auto found = table.find(Kest::Msgs::MessageKey(static_cast<unsigned long>(id), {}, destination,
                                                       Kest::Msgs::MessageKey::HashFunction()));
        if (found == table.end()) return std::nullopt;
        return found->second.lowestRank;
    }

private:
    std::shared_ptr<MessageDispatcher> dispatcher_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::uint64_t changes_ = 0;  // guarded by mutex_
    std::shared_ptr<MessageCallback> queue_;
};

// The status of the peer `id` as `bridge` sees it (an empty id when unknown).
inline Kest::Net::PeerStatus peerStatus(const Kest::Net::Bridge& bridge, const std::string& id) {
    for (Kest::Net::PeerStatus& status : bridge.peers()) {
        if (status.id == id) return status;
    }
    return Kest::Net::PeerStatus();
}

}  // namespace KestTest
