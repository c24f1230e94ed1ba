// Posting PayloadMessages: the sender-only form goes to subscribers only and
// is accepted without any service; the destination form is a service request,
// refused when no service covers its destination, even an empty one.

#include <kest/metadata/MirroredObject.h>
#include <kest/model/PayloadMessage.h>
#include <kest/model/Reflector.h>
#include <kest/msgs/MessageDispatcher.h>
#include <kest/msgs/queues/MessageQueue.h>

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

using namespace Kest::Msgs;

namespace {

using Address = std::vector<std::string>;

class Level : public Kest::MetaData::MirroredObject {
public:
    Level() = default;
    explicit Level(double v) : Level() { value.assign(v); }
    Level(const Level& other) : MirroredObject(other), value(this, other.value) {}
    Level& operator=(const Level& other) {
        value = other.value;
        return *this;
    }

    Kest::MetaData::Reflector<double, false, true> value{this, "Value", true};
};

using LevelReading = PayloadMessage<0x0200, 1, Level>;
using LevelRequest = PayloadMessage<0x0200, 2, Level>;

// The next message waiting in `queue` as an M; null when there is none or it
// is of another type.
template <class M>
std::shared_ptr<const M> next(MessageQueue& queue) {
    return std::dynamic_pointer_cast<const M>(queue.getMessage(std::chrono::milliseconds(0)));
}

}  // namespace

TEST(PayloadMessagePosting, SenderOnlyFormReachesSubscribersUnderThePrefixAndIsAcceptedWithoutServices) {
    MessageDispatcher dispatcher;
    auto monitor = std::make_shared<MessageQueue>();
    ASSERT_TRUE(dispatcher.subscribe(monitor, {"plant"}, LevelReading::Id));

    EXPECT_TRUE(dispatcher.postMessage(
        std::make_shared<LevelReading>(Level(-3.25), Address{"plant", "line1", "tank"}), nullptr));
    EXPECT_TRUE(dispatcher.postMessage(
        std::make_shared<LevelReading>(Level(4.5), Address{"yard", "tank"}), nullptr));

    auto received = next<LevelReading>(*monitor);
    ASSERT_NE(received, nullptr);
    EXPECT_EQ(received->payload().value(), -3.25);
    EXPECT_EQ(received->sender(), (Address{"plant", "line1", "tank"}));
    EXPECT_EQ(monitor->getAvailableMessagesCount(), 0u);  // the /yard reading is not under /plant
}

TEST(PayloadMessagePosting, EmptyDestinationMakesEveryPostAServiceRequestThatFailsWithoutAService) {
    MessageDispatcher dispatcher;
    auto monitor = std::make_shared<MessageQueue>();
    ASSERT_TRUE(dispatcher.subscribe(monitor, {}, LevelReading::Id));

    for (int i = 0; i < 3; ++i) {
        EXPECT_FALSE(dispatcher.postMessage(
            std::make_shared<LevelReading>(Level(i), Address{"plant"}, Address{}), nullptr));
    }
    // The subscriber got every one of them all the same.
    EXPECT_EQ(monitor->getAvailableMessagesCount(), 3u);

    // A service registered with an empty destination covers them.
    auto anyDestination = std::make_shared<MessageQueue>();
    ASSERT_TRUE(dispatcher.registerService(anyDestination, {}, LevelReading::Id, 1));
    EXPECT_TRUE(dispatcher.postMessage(
        std::make_shared<LevelReading>(Level(7.0), Address{"plant"}, Address{}), nullptr));
    EXPECT_EQ(anyDestination->getAvailableMessagesCount(), 1u);
}

TEST(PayloadMessagePosting, RequestGoesToTheLowestRankedServiceAndFailsWhereNoneCovers) {
    MessageDispatcher dispatcher;
    auto preferred = std::make_shared<MessageQueue>();
    auto spare = std::make_shared<MessageQueue>();
    ASSERT_TRUE(dispatcher.registerService(spare, {"plant", "lab"}, LevelRequest::Id, 5));
    ASSERT_TRUE(dispatcher.registerService(preferred, {"plant", "lab"}, LevelRequest::Id, 1));

    EXPECT_TRUE(dispatcher.postMessage(
        std::make_shared<LevelRequest>(Level(-0.5), Address{"hmi"}, Address{"plant", "lab", "bench"}),
        nullptr));
    auto request = next<LevelRequest>(*preferred);
    ASSERT_NE(request, nullptr);
    EXPECT_EQ(request->payload().value(), -0.5);
    EXPECT_EQ(spare->getAvailableMessagesCount(), 0u);

    EXPECT_FALSE(dispatcher.postMessage(
        std::make_shared<LevelRequest>(Level(1.0), Address{"hmi"}, Address{"plant", "office"}), nullptr));
    // A sender-only message of the request type is no request at all.
    EXPECT_TRUE(dispatcher.postMessage(std::make_shared<LevelRequest>(Level(1.0), Address{"hmi"}), nullptr));
    EXPECT_EQ(preferred->getAvailableMessagesCount(), 0u);
    EXPECT_EQ(spare->getAvailableMessagesCount(), 0u);
}
