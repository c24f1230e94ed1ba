// MessagesHandled against a plain model (a set and a queue of strings) over
// long random sequences, so that its index is grown, filled, wrapped and
// emptied in every pattern the history goes through.

#include <kest/msgs/diagnostics/MessagesHandled.h>

#include <gtest/gtest.h>

#include <deque>
#include <random>
#include <set>
#include <string>

namespace {

class HistoryModel {
public:
    bool handle(const std::string& id) {
        if (remembered_.count(id) != 0) return false;
        remembered_.insert(id);
        order_.push_back(id);
        if (order_.size() > Kest::Msgs::MessagesHandled::DefaultHistoryLength) {
            remembered_.erase(order_.front());
            order_.pop_front();
        }
        return true;
    }
    bool contains(const std::string& id) const { return remembered_.count(id) != 0; }

private:
    std::set<std::string> remembered_;
    std::deque<std::string> order_;
};

// Ids drawn from a pool a little larger than the history, so that repeats,
// evictions and returns of evicted ids all happen often.
void runAgainstModel(std::uint32_t seed, std::size_t pool, std::size_t steps) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    std::uniform_int_distribution<std::size_t> pick(0, pool - 1);
    Kest::Msgs::MessagesHandled history;
    HistoryModel model;
    for (std::size_t step = 0; step < steps; ++step) {
        // Short ids stay inside the string's own buffer, long ones do not.
        const std::size_t n = pick(random);
        const std::string id = (n % 3 == 0 ? std::string(40, 'L') : std::string()) + std::to_string(n);
        ASSERT_EQ(history.handleMessage(id), model.handle(id)) << "step " << step << ", id " << id;
        const std::string probe = std::to_string(pick(random));
        ASSERT_EQ(history.isMessageHandled(probe), model.contains(probe)) << "step " << step;
    }
}

TEST(MessagesHandledModel, AgreesWithASetAndQueueOverRandomIdsNearTheHistoryLength) {
    for (std::uint32_t seed : {1u, 2u, 3u}) runAgainstModel(seed, 12000, 60000);
}

TEST(MessagesHandledModel, AgreesWithASetAndQueueWhenMostIdsRepeat) {
    runAgainstModel(7, 600, 30000);
}

TEST(MessagesHandledModel, AgreesWithASetAndQueueWhenIdsRarelyRepeat) {
    runAgainstModel(11, 200000, 60000);
}

}  // namespace
