#include <kest/net/MessageTypes.h>

#include <kest/model/ForwarderNotifications.h>

#include <mutex>
#include <shared_mutex>
#include <unordered_map>

namespace Kest::Net {

namespace {

namespace Forwarder = Kest::Msgs::Communications::Forwarder;

template <class T>
std::shared_ptr<Kest::Msgs::Message> makeMessage() {
    return std::make_shared<T>();
}

class Registry {
public:
    // The forwarder notifications are there before anything can ask.
    Registry() {
        add(Kest::Msgs::Identifier(Forwarder::Category, Forwarder::ServiceRankNotification::Type),
            &makeMessage<Forwarder::ServiceRankNotification>);
        add(Kest::Msgs::Identifier(Forwarder::Category, Forwarder::ServiceChangeNotification::Type),
            &makeMessage<Forwarder::ServiceChangeNotification>);
        add(Kest::Msgs::Identifier(Forwarder::Category, Forwarder::SubscriptionAddedNotification::Type),
            &makeMessage<Forwarder::SubscriptionAddedNotification>);
        add(Kest::Msgs::Identifier(Forwarder::Category, Forwarder::SubscriptionRemovedNotification::Type),
            &makeMessage<Forwarder::SubscriptionRemovedNotification>);
    }

    void add(unsigned long id, MessageTypes::Factory factory) {
        std::unique_lock<std::shared_mutex> lock(mutex_);
        factories_.emplace(id, factory);  // keeps an existing entry
    }

    MessageTypes::Factory find(unsigned long id) const {
        std::shared_lock<std::shared_mutex> lock(mutex_);
        auto it = factories_.find(id);
        return it == factories_.end() ? nullptr : it->second;
    }

private:
    mutable std::shared_mutex mutex_;
    std::unordered_map<unsigned long, MessageTypes::Factory> factories_;  // guarded by mutex_
};

// Made at first use, so that a decoder running during another library's
// static initialisation still finds the notifications registered.
Registry& registry() {
    static Registry instance;
    return instance;
}

}  // namespace

void MessageTypes::addFactory(Kest::Msgs::Identifier id, Factory factory) {
    if (factory == nullptr) return;
    registry().add(id, factory);
}

bool MessageTypes::known(Kest::Msgs::Identifier id) { return registry().find(id) != nullptr; }

std::shared_ptr<Kest::Msgs::Message> MessageTypes::create(Kest::Msgs::Identifier id) {
    // The factory runs outside the lock: a constructor may take its time.
    const Factory factory = registry().find(id);
    return factory == nullptr ? nullptr : factory();
}

}  // namespace Kest::Net
