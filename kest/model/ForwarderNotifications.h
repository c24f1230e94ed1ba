#pragma once

// The four notifications a dispatcher posts when its routing tables change.
// Each carries a ServiceData: the key that changed, count 1 and a rank.
//
//   5  ServiceRankNotification          rank = lowest rank now registered
//   6  ServiceChangeNotification        rank = all ones
//   9  SubscriptionAddedNotification    rank = 0
//  10  SubscriptionRemovedNotification  rank = 0

#include <kest/model/Forwarder.h>
#include <kest/model/PayloadMessageHelper.h>

namespace Kest::Msgs::Communications::Forwarder {

using ServiceRankNotification = PayloadMessageHelper<Base, ServiceData, 5>;
using ServiceChangeNotification = PayloadMessageHelper<Base, ServiceData, 6>;
using SubscriptionAddedNotification = PayloadMessageHelper<Base, ServiceData, 9>;
using SubscriptionRemovedNotification = PayloadMessageHelper<Base, ServiceData, 10>;

}  // namespace Kest::Msgs::Communications::Forwarder

namespace Kest::Msgs::Communications::Forwarder {

// The payload of a notification of any of the four kinds, or nullptr for any
// other message. Throws MetaDataException for a notification whose payload
// is unset (one read from a tree without a valid "Data"). Allocates nothing
// when the payload is set.
inline const ServiceData* notificationPayload(const Message& message) {
    if (const auto* n = dynamic_cast<const ServiceRankNotification*>(&message)) return &n->payload();
    if (const auto* n = dynamic_cast<const ServiceChangeNotification*>(&message)) return &n->payload();
    if (const auto* n = dynamic_cast<const SubscriptionAddedNotification*>(&message)) return &n->payload();
    if (const auto* n = dynamic_cast<const SubscriptionRemovedNotification*>(&message)) {
        return &n->payload();
    }
    return nullptr;
}

}  // namespace Kest::Msgs::Communications::Forwarder
