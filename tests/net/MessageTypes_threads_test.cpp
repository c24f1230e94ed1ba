// The registry read by several threads while another registers types: every
// reader finds each type from its registration on, and every decode finds
// the notification kinds. Bounded: the readers stop when the writer is done,
// and the writer adds a fixed number of types.

#include <kest/model/ForwarderNotifications.h>
#include <kest/model/Message.h>
#include <kest/model/MessageKey.h>
#include <kest/net/MessageTypes.h>
#include <kest/net/Wire.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using Kest::Msgs::Identifier;
using Kest::Msgs::Message;
using Kest::Net::MessageTypes;
namespace Forwarder = Kest::Msgs::Communications::Forwarder;

constexpr std::uint16_t kCategory = 0x0D00;
constexpr int kTypes = 2000;

class Registered : public Message {
public:
    Registered() : Message(Identifier(kCategory, 0)) {}
};

TEST(MessageTypesThreads, ReadersFindEachTypeFromItsRegistrationOnWhileAWriterAddsMore) {
    std::atomic<int> added{0};  // types 1..added are registered
    std::atomic<bool> done{false};
    std::atomic<int> failures{0};
    const Forwarder::ServiceRankNotification notification{
        Forwarder::ServiceData(Kest::Msgs::MessageKey(Identifier(1), {}, {}, {}), 1, 0)};
    const std::string notificationBytes = Kest::Net::encode(notification);

    auto reader = [&](unsigned seed) {
        std::uint32_t state = seed;
        while (!done.load(std::memory_order_acquire)) {
            const int known = added.load(std::memory_order_acquire);
            state = state * 1664525u + 1013904223u;
            const int type = 1 + static_cast<int>(state % kTypes);
            const bool isKnown = MessageTypes::known(Identifier(kCategory, static_cast<std::uint16_t>(type)));
            // Added before we looked: must be known; once known, it stays so.
            if (type <= known && !isKnown) ++failures;
            if (isKnown && !MessageTypes::known(Identifier(kCategory, static_cast<std::uint16_t>(type)))) {
                ++failures;
            }
            if (type <= known && !std::dynamic_pointer_cast<Registered>(
                                     MessageTypes::create(Identifier(kCategory, static_cast<std::uint16_t>(type))))) {
                ++failures;
            }
            if (!std::dynamic_pointer_cast<const Forwarder::ServiceRankNotification>(
                    Kest::Net::decode(notificationBytes))) {
                ++failures;
            }
        }
    };

    std::vector<std::thread> readers;
    for (unsigned i = 0; i < 3; ++i) readers.emplace_back(reader, i + 1);
    for (int type = 1; type <= kTypes; ++type) {
        MessageTypes::add<Registered>(Identifier(kCategory, static_cast<std::uint16_t>(type)));
        added.store(type, std::memory_order_release);
    }
    done.store(true, std::memory_order_release);
    for (std::thread& t : readers) t.join();

    EXPECT_EQ(failures.load(), 0);
    for (int type = 1; type <= kTypes; ++type) {
        ASSERT_TRUE(MessageTypes::known(Identifier(kCategory, static_cast<std::uint16_t>(type))));
    }
}

}  // namespace
