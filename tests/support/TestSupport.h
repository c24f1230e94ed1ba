#pragma once

// Helpers shared by the tests: capturing standard output, building messages,
// and reading forwarder notifications back out of a queue.

#include <kest/model/ForwarderNotifications.h>
#include <kest/model/Message.h>
#include <kest/model/MessageQueueInterface.h>

#include <chrono>
#include <typeinfo>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace KestTest {

// Redirects std::cout into a buffer for its lifetime.
class CaptureStdout {
public:
    CaptureStdout() : old_(std::cout.rdbuf(buffer_.rdbuf())) {}
    ~CaptureStdout() { std::cout.rdbuf(old_); }
    CaptureStdout(const CaptureStdout&) = delete;
    CaptureStdout& operator=(const CaptureStdout&) = delete;

    std::string text() const { return buffer_.str(); }
    // The captured text split at newlines (the last, empty piece dropped).
    std::vector<std::string> lines() const {
        std::vector<std::string> result;
        std::istringstream in(buffer_.str());
        for (std::string line; std::getline(in, line);) result.push_back(line);
        return result;
    }

private:
    std::ostringstream buffer_;
    std::streambuf* old_;
};

using Address = std::vector<std::string>;

inline std::shared_ptr<const Kest::Msgs::Message> makeMessage(Kest::Msgs::Identifier id) {
    return std::make_shared<Kest::Msgs::Message>(id);
}
inline std::shared_ptr<const Kest::Msgs::Message> makeMessage(Kest::Msgs::Identifier id,
                                                              const Address& sender) {
    return std::make_shared<Kest::Msgs::Message>(id, sender);
}
inline std::shared_ptr<const Kest::Msgs::Message> makeMessage(Kest::Msgs::Identifier id,
                                                              const Address& sender,
                                                              const Address& destination) {
    return std::make_shared<Kest::Msgs::Message>(id, sender, destination);
}

// What a forwarder learns from one notification.
struct Notice {
    unsigned short type = 0;  // 5, 6, 9 or 10
    unsigned long keyId = 0;
    Address keySender;
    Address keyDestination;
    unsigned long count = 0;
    unsigned long rank = 0;

    bool operator==(const Notice& o) const {
        return type == o.type && keyId == o.keyId && keySender == o.keySender &&
               keyDestination == o.keyDestination && count == o.count && rank == o.rank;
    }
};

inline std::ostream& operator<<(std::ostream& out, const Notice& n) {
    out << "{type " << n.type << ", id " << n.keyId << ", sender [";
    for (const auto& s : n.keySender) out << s << ';';
    out << "], dest [";
    for (const auto& s : n.keyDestination) out << s << ';';
    return out << "], count " << n.count << ", rank " << n.rank << '}';
}

// Reads a notification message; fails the dynamic cast (throws std::bad_cast)
// when the message is not one of the four kinds.
inline Notice readNotice(const Kest::Msgs::Message& message) {
    namespace F = Kest::Msgs::Communications::Forwarder;
    const auto& data = dynamic_cast<const F::Base&>(message);
    const F::ServiceData* payload = nullptr;
    switch (message.id().type()) {
        case 5: payload = &dynamic_cast<const F::ServiceRankNotification&>(data).payload(); break;
        case 6: payload = &dynamic_cast<const F::ServiceChangeNotification&>(data).payload(); break;
        case 9: payload = &dynamic_cast<const F::SubscriptionAddedNotification&>(data).payload(); break;
        case 10: payload = &dynamic_cast<const F::SubscriptionRemovedNotification&>(data).payload(); break;
        default: throw std::bad_cast();
    }
    Notice n;
    n.type = message.id().type();
    n.keyId = payload->key().id();
    n.keySender = payload->key().sender();
    n.keyDestination = payload->key().destination();
    n.count = payload->count();
    n.rank = payload->rank();
    return n;
}

// Takes every message waiting in `queue` (without waiting) as notices.
inline std::vector<Notice> drainNotices(Kest::Msgs::MessageQueueInterface& queue) {
    std::vector<Notice> notices;
    while (auto message = queue.getMessage(std::chrono::milliseconds(0))) {
        notices.push_back(readNotice(*message));
    }
    return notices;
}

inline Notice notice(unsigned short type, Kest::Msgs::Identifier id, Address sender, Address destination,
                     unsigned long rank) {
    Notice n;
    n.type = type;
    n.keyId = static_cast<unsigned long>(id);
    n.keySender = std::move(sender);
    n.keyDestination = std::move(destination);
    n.count = 1;
    n.rank = rank;
    return n;
}

}  // namespace KestTest
