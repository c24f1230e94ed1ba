// Inputs far larger than usual: long addresses, long address parts, long
// identities. The dispatcher must route, refuse repeats and trace them as it
// does small ones.

#include <kest/messaging.h>

#include <support/DispatcherTestSupport.h>
#include <support/TestSupport.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace {

using namespace Kest::Msgs;
using KestTest::Address;

const Identifier kReading(7, 1);

// `parts` parts of `width` characters each, all distinct.
Address longAddress(std::size_t parts, std::size_t width) {
    Address address;
    address.reserve(parts);
    for (std::size_t i = 0; i < parts; ++i) {
        std::string part = std::to_string(i);
        part.resize(width, 'x');
        address.push_back(std::move(part));
    }
    return address;
}

// Subscribes `queue` at the first half of `address`, plus `extraKeys` keys that
// do not match, so that the table is scanned (12 keys or fewer) or probed.
void subscribeAtHalf(MessageDispatcher& dispatcher, const std::shared_ptr<MessageQueue>& queue,
                     const Address& address, int extraKeys) {
    ASSERT_TRUE(dispatcher.subscribe(queue, Address(address.begin(), address.begin() + address.size() / 2),
                                     kReading));
    for (int i = 0; i < extraKeys; ++i) {
        ASSERT_TRUE(dispatcher.subscribe(queue, {"elsewhere", std::to_string(i)}, kReading));
    }
}

TEST(MessageDispatcherLargeInput, LongSenderAddressIsRoutedByPrefixWhenTheTableIsScanned) {
    MessageDispatcher dispatcher;
    auto queue = std::make_shared<MessageQueue>();
    const Address sender = longAddress(2000, 200);
    subscribeAtHalf(dispatcher, queue, sender, 5);

    auto message = KestTest::makeMessage(kReading, sender);
    EXPECT_TRUE(dispatcher.postMessage(message, nullptr));
    EXPECT_EQ(queue->getMessage(std::chrono::milliseconds(0)), message);
    EXPECT_FALSE(dispatcher.postMessage(message, nullptr));  // still a repeat
}

TEST(MessageDispatcherLargeInput, LongSenderAddressIsRoutedByPrefixWhenTheTableIsProbed) {
    MessageDispatcher dispatcher;
    auto queue = std::make_shared<MessageQueue>();
    const Address sender = longAddress(2000, 200);
    subscribeAtHalf(dispatcher, queue, sender, 20);

    auto message = KestTest::makeMessage(kReading, sender);
    EXPECT_TRUE(dispatcher.postMessage(message, nullptr));
    EXPECT_EQ(queue->getMessage(std::chrono::milliseconds(0)), message);

    // A sibling that shares all but the last part of the subscribed prefix is not covered.
    Address sibling(sender.begin(), sender.begin() + sender.size() / 2);
    sibling.back() += "-other";
    EXPECT_TRUE(dispatcher.postMessage(KestTest::makeMessage(kReading, sibling), nullptr));
    EXPECT_EQ(queue->getAvailableMessagesCount(), 0u);
}

TEST(MessageDispatcherLargeInput, LongDestinationReachesTheServiceOfItsPrefix) {
    MessageDispatcher dispatcher;
    auto service = std::make_shared<MessageQueue>();
    const Address destination = longAddress(1000, 100);
    ASSERT_TRUE(dispatcher.registerService(service, Address(destination.begin(), destination.begin() + 10),
                                           kReading, 3));
    for (int i = 0; i < 20; ++i) {
        ASSERT_TRUE(dispatcher.registerService(service, {"elsewhere", std::to_string(i)}, kReading, 3));
    }
    auto request = KestTest::makeMessage(kReading, {"caller"}, destination);
    EXPECT_TRUE(dispatcher.postMessage(request, nullptr));
    EXPECT_EQ(service->getMessage(std::chrono::milliseconds(0)), request);
}

TEST(MessageDispatcherLargeInput, LongIdentityIsRememberedAndRefusedWhenRepeated) {
    MessageDispatcher dispatcher;
    auto queue = std::make_shared<MessageQueue>();
    ASSERT_TRUE(dispatcher.subscribe(queue, {}, kReading));
    auto message = std::make_shared<Message>(kReading);
    message->identity.assign(std::string(1 << 20, 'i'));  // one megabyte
    EXPECT_TRUE(dispatcher.postMessage(message, nullptr));
    EXPECT_FALSE(dispatcher.postMessage(message, nullptr));
    EXPECT_EQ(queue->getAvailableMessagesCount(), 1u);
}

TEST(MessageDispatcherLargeInput, RefusedMessageWithLongAddressIsTracedWhole) {
    MessageDispatcher dispatcher;
    auto full = std::make_shared<MessageQueue_FixedDepth>(0u);
    ASSERT_TRUE(dispatcher.subscribe(full, {}, kReading));
    const Address sender = longAddress(500, 50);
    KestTest::CaptureStdout capture;
    dispatcher.postMessage(KestTest::makeMessage(kReading, sender), nullptr);

    std::string expected = "PLOX message is - : sender = ";
    for (const std::string& part : sender) expected += "[" + part + "]";
    expected += ", dest = <None>, cat = 7, id = 1";
    const auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], "PLOX!!!! Warning ---- dropping msg");
    EXPECT_EQ(lines[1], expected);
}

}  // namespace
