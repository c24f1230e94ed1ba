#include <kest/components/ComponentFactory_Base.h>

#include "ComponentTestTypes.h"

#include <support/StressTestSupport.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using Kest::ComponentInterface;
using KestComponentsTest::madeBy;
using KestComponentsTest::TestFactory;
using KestComponentsTest::Widget;

// Four threads create components through one factory, by a name that stays
// registered and by one that a fifth thread keeps adding and removing. Every
// creation by the stable name succeeds, the other either succeeds or finds no
// creator, and no two creators ever run at the same time.
void createWhileTheTableChanges() {
    constexpr int kCreators = 4;
    const int perThread = KestTest::scaledCount(4000, 100, 10);
    const int toggles = KestTest::scaledCount(4000, 100, 10);

    TestFactory factory;
    std::atomic<int> inside{0};    // creators running right now
    std::atomic<int> overlaps{0};  // times a creator started while another ran
    std::atomic<int> flakyRuns{0};
    auto guarded = [&](const std::string& tag) {
        return [&, tag](const std::vector<std::string>&) -> std::shared_ptr<ComponentInterface> {
            if (inside.fetch_add(1) != 0) overlaps.fetch_add(1);
            auto widget = std::make_shared<Widget>(tag);
            if (tag == "flaky") flakyRuns.fetch_add(1);
            inside.fetch_sub(1);
            return widget;
        };
    };
    factory.addComponentCreator("Widget", guarded("widget"));

    KestTest::Rendezvous start(kCreators + 1);
    std::atomic<int> lateStarts{0};
    std::atomic<int> widgets{0};
    std::atomic<int> flakyMade{0};
    std::atomic<int> flakyMissing{0};
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kCreators; ++t) {
        threads.emplace_back([&] {
            if (!start.arrive()) ++lateStarts;
            for (int i = 0; i < perThread; ++i) {
                if (madeBy(factory.createComponent("Widget", {})) == "widget") {
                    ++widgets;
                } else {
                    ++wrong;
                }
                auto flaky = factory.createComponent("Flaky", {});
                if (!flaky) {
                    ++flakyMissing;
                } else if (madeBy(flaky) == "flaky") {
                    ++flakyMade;
                } else {
                    ++wrong;
                }
            }
        });
    }
    threads.emplace_back([&] {
        if (!start.arrive()) ++lateStarts;
        for (int i = 0; i < toggles; ++i) {
            factory.addComponentCreator("Flaky", guarded("flaky"));
            factory.removeComponentCreator("Flaky");
        }
    });
    for (auto& thread : threads) thread.join();

    EXPECT_EQ(lateStarts.load(), 0);
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_EQ(overlaps.load(), 0) << "two creators ran at the same time";
    EXPECT_EQ(widgets.load(), kCreators * perThread);
    EXPECT_EQ(flakyMade.load() + flakyMissing.load(), kCreators * perThread);
    EXPECT_EQ(flakyRuns.load(), flakyMade.load());
    EXPECT_EQ(factory.names(), std::vector<std::string>{"Widget"});
}

TEST(ComponentFactory_Base, ThreadsCreateWhileAnotherAddsAndRemovesACreator) {
    KestTest::forEachScheduleSeed([](std::uint64_t) { createWhileTheTableChanges(); });
}

}  // namespace
