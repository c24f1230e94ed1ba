// One started factory creating components for four threads at once.
// Compiled into both the linked and the dlopen executable.

#include "PluginFixture.h"

#include <kest/model/Identifier.h>
#include <kest/model/Message.h>

#include <support/TestSupport.h>

#include <support/StressTestSupport.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace KestPluginTest {
namespace {

using Kest::ComponentInterface;
using Kest::Msgs::CallbackMessageQueueInterface;
using Kest::Msgs::FixedDepthMessageQueueInterface;
using Kest::Msgs::Identifier;
using Kest::Msgs::Message;
using Kest::Msgs::MessageDispatcherInterface;
using Kest::Msgs::MessageQueueInterface;
using KestTest::makeMessage;
using std::chrono::milliseconds;

using MessagePtr = std::shared_ptr<const Message>;

const Identifier kWork(0x0502, 7);

// Puts the component of type `type` to one use of its kind; true when that
// worked. A dispatcher is given a queue from `factory` to deliver to.
bool useOnce(Kest::ComponentFactoryInterface& factory, const std::string& type,
             const std::shared_ptr<ComponentInterface>& component) {
    const MessagePtr message = makeMessage(kWork);
    if (type == MessageDispatcherInterface::DispatcherType) {
        auto dispatcher = std::dynamic_pointer_cast<MessageDispatcherInterface>(component);
        auto queue = std::dynamic_pointer_cast<MessageQueueInterface>(
            factory.createComponent(MessageDispatcherInterface::QueueType, {}));
        return dispatcher && queue && dispatcher->subscribe(queue, {}, kWork) &&
               dispatcher->postMessage(message, nullptr) && queue->getMessage(milliseconds(0)) == message;
    }
    if (type == MessageDispatcherInterface::QueueType) {
        auto queue = std::dynamic_pointer_cast<MessageQueueInterface>(component);
        return queue && !std::dynamic_pointer_cast<FixedDepthMessageQueueInterface>(component) &&
               queue->putMessage(message) && queue->getMessage(milliseconds(0)) == message;
    }
    if (type == MessageDispatcherInterface::FixedDepthQueueType) {
        auto queue = std::dynamic_pointer_cast<FixedDepthMessageQueueInterface>(component);
        return queue && queue->getMaxDepth() == 100u && queue->putMessage(message) &&
               queue->getMessage(milliseconds(0)) == message;
    }
    if (type == MessageDispatcherInterface::CallbackQueueType) {
        auto callback = std::dynamic_pointer_cast<CallbackMessageQueueInterface>(component);
        if (!callback) return false;
        MessagePtr seen;
        callback->setCallback([&seen](const MessagePtr& m) { seen = m; });
        return callback->putMessage(message) && seen == message;
    }
    return false;
}

TEST_P(PluginFactory, FourThreadsCreateDistinctUsableComponentsAtOnce) {
    life_->startLifeCycle();
    constexpr int kThreads = 4;
    const int perThread = KestTest::scaledCount(100, 8);
    const auto types = fourTypeNames();

    struct Made {
        std::vector<std::shared_ptr<ComponentInterface>> components;  // kept alive until checked
        int usable = 0;
    };
    std::vector<Made> made(kThreads);

    // All four threads start creating together, once every one is ready.
    std::mutex gateMutex;
    std::condition_variable gate;
    int ready = 0;

    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            {
                std::unique_lock<std::mutex> lock(gateMutex);
                ++ready;
                gate.notify_all();
                gate.wait(lock, [&] { return ready == kThreads; });
            }
            for (int i = 0; i < perThread; ++i) {
                const std::string& type = types[static_cast<std::size_t>(i + t) % types.size()];
                auto component = factory_->createComponent(type, {std::to_string(t), std::to_string(i)});
                if (component && useOnce(*factory_, type, component)) ++made[t].usable;
                made[t].components.push_back(std::move(component));
            }
        });
    }
    for (auto& thread : threads) thread.join();

    std::set<const ComponentInterface*> distinct;
    std::size_t missing = 0;
    for (int t = 0; t < kThreads; ++t) {
        EXPECT_EQ(made[t].usable, perThread) << "thread " << t;
        for (const auto& component : made[t].components) {
            if (component) {
                distinct.insert(component.get());
            } else {
                ++missing;
            }
        }
    }
    EXPECT_EQ(missing, 0u);
    EXPECT_EQ(distinct.size(), static_cast<std::size_t>(kThreads * perThread));
}

}  // namespace
}  // namespace KestPluginTest
