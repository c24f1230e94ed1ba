// The dispatcher's counters: accepted posts (notifications included),
// repeats, empty messages, service refusals and drops, each against what a
// client sees of the same posts (results, warning lines).

#include <kest/msgs/MessageDispatcher.h>
#include <kest/msgs/queues/MessageCallback.h>
#include <kest/msgs/queues/MessageQueue.h>
#include <kest/msgs/queues/MessageQueue_FixedDepth.h>

#include <support/DispatcherTestSupport.h>
#include <support/TestSupport.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

using namespace Kest::Msgs;
using namespace KestTest;

namespace Kest::Msgs {
// Counters compared as a whole, printed by field when they differ.
bool operator==(const MessageDispatcher::Counters& a, const MessageDispatcher::Counters& b) {
    return a.posts == b.posts && a.repeats == b.repeats && a.emptyMessages == b.emptyMessages &&
           a.serviceRefusals == b.serviceRefusals && a.drops == b.drops;
}
void PrintTo(const MessageDispatcher::Counters& c, std::ostream* out) {
    *out << "{posts " << c.posts << ", repeats " << c.repeats << ", empty " << c.emptyMessages
         << ", serviceRefusals " << c.serviceRefusals << ", drops " << c.drops << '}';
}
}  // namespace Kest::Msgs

namespace {

const Identifier Reading(0x0100, 1);
const Identifier Request(0x0100, 2);

const std::string Warning = "PLOX!!!! Warning ---- dropping msg";

MessageDispatcher::Counters counts(std::uint64_t posts, std::uint64_t repeats, std::uint64_t empty,
                                   std::uint64_t serviceRefusals, std::uint64_t drops) {
    MessageDispatcher::Counters c;
    c.posts = posts;
    c.repeats = repeats;
    c.emptyMessages = empty;
    c.serviceRefusals = serviceRefusals;
    c.drops = drops;
    return c;
}

std::size_t warnings(const CaptureStdout& output) {
    const auto lines = output.lines();
    return static_cast<std::size_t>(std::count(lines.begin(), lines.end(), Warning));
}

// A fixed-depth queue of depth 1 that already holds one message, so it refuses the next.
std::shared_ptr<MessageQueue_FixedDepth> fullQueue() {
    auto queue = std::make_shared<MessageQueue_FixedDepth>(1u);
    EXPECT_TRUE(queue->putMessage(makeMessage(Identifier(0x7777, 1))));
    return queue;
}

}  // namespace

TEST(MessageDispatcherCounters, NewDispatcherHasCountedNothing) {
    MessageDispatcher dispatcher;
    EXPECT_EQ(dispatcher.counters(), counts(0, 0, 0, 0, 0));
}

TEST(MessageDispatcherCounters, AcceptedPostsAreCountedWithTheNotifications) {
    MessageDispatcher dispatcher;
    auto queue = std::make_shared<MessageQueue>();
    ASSERT_TRUE(dispatcher.subscribe(queue, {}, Reading));
    // The subscription's notification is a post; its service half, which no
    // service covers, is no service refusal.
    EXPECT_EQ(dispatcher.counters(), counts(1, 0, 0, 0, 0));
    for (int i = 0; i < 3; ++i) ASSERT_TRUE(dispatcher.postMessage(makeMessage(Reading, {"a"}), nullptr));
    // A post that reaches nobody is still accepted.
    ASSERT_TRUE(dispatcher.postMessage(makeMessage(Request, {"a"}), nullptr));
    EXPECT_EQ(dispatcher.counters(), counts(5, 0, 0, 0, 0));
    EXPECT_EQ(queue->getAvailableMessagesCount(), 3u);
}

TEST(MessageDispatcherCounters, RepeatsAndEmptyMessagesAreCountedAndNotAsPosts) {
    MessageDispatcher dispatcher;
    auto message = makeMessage(Reading, {"a"});
    ASSERT_TRUE(dispatcher.postMessage(message, nullptr));
    EXPECT_FALSE(dispatcher.postMessage(message, nullptr));
    EXPECT_FALSE(dispatcher.postMessage(message, nullptr));
    EXPECT_FALSE(dispatcher.postMessage(nullptr, nullptr));
    EXPECT_EQ(dispatcher.counters(), counts(1, 2, 1, 0, 0));
}

TEST(MessageDispatcherCounters, ServiceRefusalsCountThePostsThatReturnedFalseForTheirServices) {
    CaptureStdout output;
    MessageDispatcher dispatcher;
    auto service = std::make_shared<MessageQueue>();
    ASSERT_TRUE(dispatcher.registerService(service, {"svc"}, Request, 1));
    ASSERT_TRUE(dispatcher.registerService(fullQueue(), {"full"}, Request, 1));
    const auto base = dispatcher.counters();
    ASSERT_EQ(base.posts, 2u);  // the two registrations' notifications

    // Served, and no destination at all: no refusal.
    EXPECT_TRUE(dispatcher.postMessage(makeMessage(Request, {"c"}, {"svc", "x"}), nullptr));
    EXPECT_TRUE(dispatcher.postMessage(makeMessage(Request, {"c"}), nullptr));
    EXPECT_EQ(dispatcher.counters(), counts(4, 0, 0, 0, 0));
    // No service covers the destination.
    EXPECT_FALSE(dispatcher.postMessage(makeMessage(Request, {"c"}, {"nowhere"}), nullptr));
    EXPECT_EQ(dispatcher.counters(), counts(5, 0, 0, 1, 0));
    // The covering entry's only queue refuses: a drop and a refusal.
    EXPECT_FALSE(dispatcher.postMessage(makeMessage(Request, {"c"}, {"full"}), nullptr));
    EXPECT_EQ(dispatcher.counters(), counts(6, 0, 0, 2, 1));
    EXPECT_EQ(warnings(output), 1u);
    EXPECT_EQ(service->getAvailableMessagesCount(), 1u);
}

TEST(MessageDispatcherCounters, DropsCountEveryWarningPrinted) {
    CaptureStdout output;
    MessageDispatcher dispatcher;
    auto full = fullQueue();
    auto taker = std::make_shared<MessageQueue>();
    // The full queue stands under two keys that cover the message: tried, and
    // refused, under each.
    ASSERT_TRUE(dispatcher.subscribe(full, {"plant"}, Reading));
    ASSERT_TRUE(dispatcher.subscribe(full, {"plant", "line"}, Reading));
    ASSERT_TRUE(dispatcher.subscribe(taker, {}, Reading));
    // Ranked services: rank 1 refuses, rank 2 takes it; the post succeeds.
    ASSERT_TRUE(dispatcher.registerService(full, {"svc"}, Request, 1));
    ASSERT_TRUE(dispatcher.registerService(taker, {"svc"}, Request, 2));
    // An empty service pointer is a refusal too.
    ASSERT_TRUE(dispatcher.registerService(nullptr, {"none"}, Request, 1));
    const auto before = dispatcher.counters();
    ASSERT_EQ(before.drops, 0u);

    EXPECT_TRUE(dispatcher.postMessage(makeMessage(Reading, {"plant", "line", "press"}), nullptr));
    EXPECT_EQ(dispatcher.counters().drops, 2u);
    EXPECT_TRUE(dispatcher.postMessage(makeMessage(Request, {"c"}, {"svc"}), nullptr));
    EXPECT_EQ(dispatcher.counters().drops, 3u);
    // (With an empty sender the empty service pointer would count as served.)
    EXPECT_FALSE(dispatcher.postMessage(makeMessage(Request, {"c"}, {"none"}), std::make_shared<MessageQueue>()));

    const auto after = dispatcher.counters();
    EXPECT_EQ(after.drops, 4u);
    EXPECT_EQ(after.drops, warnings(output));
    EXPECT_EQ(after.posts, before.posts + 3);
    EXPECT_EQ(after.serviceRefusals, 1u);
    EXPECT_EQ(full->refusedPuts(), 3u);
    EXPECT_EQ(taker->getAvailableMessagesCount(), 2u);
}

TEST(MessageDispatcherCounters, DroppedNotificationIsCountedAsADrop) {
    CaptureStdout output;
    MessageDispatcher dispatcher;
    auto forwarder = std::make_shared<MessageQueue_FixedDepth>(1u);
    for (std::uint16_t type : {9, 10}) ASSERT_TRUE(dispatcher.subscribe(forwarder, {}, noticeId(type)));
    ASSERT_TRUE(dispatcher.subscribe(std::make_shared<MessageQueue>(), {"a"}, Reading));  // the forwarder takes it
    ASSERT_TRUE(dispatcher.subscribe(std::make_shared<MessageQueue>(), {"b"}, Reading));  // full: dropped
    EXPECT_EQ(dispatcher.counters(), counts(4, 0, 0, 0, 1));
    EXPECT_EQ(warnings(output), 1u);
    EXPECT_EQ(forwarder->refusedPuts(), 1u);
}

TEST(MessageDispatcherCounters, RefusedCallsFromInsideADeliveryCountNothing) {
    auto dispatcher = std::make_shared<MessageDispatcher>();
    MessageDispatcher::Counters seenInside;
    auto callback = std::make_shared<MessageCallback>([&](const std::shared_ptr<const Message>&) {
        // Counters take no lock: readable from inside a delivery.
        seenInside = dispatcher->counters();
        try {
            dispatcher->postMessage(makeMessage(Reading, {"inside"}), nullptr);
        } catch (const std::system_error&) {
        }
    });
    ASSERT_TRUE(dispatcher->subscribe(callback, {}, Request));
    ASSERT_TRUE(dispatcher->postMessage(makeMessage(Request, {"outside"}), nullptr));
    EXPECT_EQ(seenInside, counts(2, 0, 0, 0, 0));
    EXPECT_EQ(dispatcher->counters(), counts(2, 0, 0, 0, 0));
}

TEST(MessageDispatcherCounters, DropWarningLinesAreUnchangedByCounting) {
    // The drop's two lines, exactly as they were.
    CaptureStdout output;
    MessageDispatcher dispatcher;
    ASSERT_TRUE(dispatcher.subscribe(fullQueue(), {}, Reading));
    ASSERT_TRUE(dispatcher.postMessage(makeMessage(Identifier(3, 17), {"nodeA"}), nullptr));  // nobody
    ASSERT_TRUE(dispatcher.postMessage(makeMessage(Reading, {"nodeA"}), nullptr));
    EXPECT_EQ(output.lines(), (std::vector<std::string>{
                                  Warning, "PLOX message is - : sender = [nodeA], dest = <None>, cat = 256, id = 1"}));
}
