// Four threads posting through one dispatcher into queues of every kind, with
// an exact account of each message: every queue that accepted it received it
// once and in its poster's order, and every refusal was reported on standard
// output. The second test does the same while two more threads change the
// subscriptions and the ranked services, and checks each service request and
// each notification against a model of the tables at the moment of the post.
//
// The moment of a post is known through a callback queue subscribed to
// everything (the ledger): its callback runs inside the post, under the
// dispatcher's lock, and appends to one log into which the changing threads
// also write "begin" and "end" around each of their calls. A post logged
// between "end k" and "begin k+1" of a changer saw that changer's tables as
// they were after its change k; one logged between "begin k" and "end k" saw
// them before or after change k.

#include <kest/model/ForwarderNotifications.h>
#include <kest/model/Message.h>
#include <kest/msgs/MessageDispatcher.h>
#include <kest/msgs/queues/MessageCallback.h>
#include <kest/msgs/queues/MessageQueue.h>
#include <kest/msgs/queues/MessageQueue_FixedDepth.h>

#include <support/DispatcherTestSupport.h>
#include <support/StressTestSupport.h>
#include <support/TestSupport.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

using namespace Kest::Msgs;
using namespace KestTest;

namespace {

namespace Fwd = Communications::Forwarder;

const Identifier Reading(0x0200, 1);
const Identifier Request(0x0200, 2);
const Address ServiceAddress{"svc"};

constexpr int Posters = 4;
// The subscriber queues of fixed depth; an unbounded queue and the ledger
// (a callback queue) subscribe to the readings too.
constexpr std::array<unsigned int, 3> BoundedDepths{1, 8, 64};
constexpr int ReadingQueues = static_cast<int>(BoundedDepths.size()) + 2;
// Service queues S0..S3 for (Request, "svc"): three of fixed depth, one unbounded.
constexpr std::array<unsigned int, 3> ServiceDepths{1, 3, 8};
constexpr int ServiceQueues = 4;
// Watcher i is subscribed to poster i's readings on and off.
constexpr int Watchers = Posters;
// Posts between two changes of each changing thread.
constexpr long ChurnPace = 6;

constexpr std::chrono::milliseconds Immediately{0};

// Readings carry the sender {"P", poster, sequence}, requests {"R", poster, sequence}.
struct Origin {
    int poster = -1;
    int sequence = -1;
};

Origin originOf(const Address& sender) {
    if (sender.size() != 3) return {};
    return Origin{std::stoi(sender[1]), std::stoi(sender[2])};
}

Origin originOf(const Message& message) { return originOf(message.sender()); }

bool isNotice(const Message& message) { return message.id().category() == Fwd::Category; }

std::shared_ptr<const Message> makeReading(int poster, int sequence) {
    return makeMessage(Reading, {"P", std::to_string(poster), std::to_string(sequence)});
}

std::shared_ptr<const Message> makeRequest(int poster, int sequence) {
    return makeMessage(Request, {"R", std::to_string(poster), std::to_string(sequence)}, ServiceAddress);
}

// ---- The log of deliveries to the ledger and of table changes ----------------

enum class Changer { Subscriptions = 0, Services = 1 };

struct Event {
    enum class Kind { Delivered, Begin, End };
    Kind kind = Kind::Delivered;
    Changer changer = Changer::Subscriptions;
    int change = -1;
    std::shared_ptr<const Message> message;
};

class Ledger {
public:
    void delivered(const std::shared_ptr<const Message>& message) {
        append(Event{Event::Kind::Delivered, Changer::Subscriptions, -1, message});
    }
    void begin(Changer changer, int change) { append(Event{Event::Kind::Begin, changer, change, {}}); }
    void end(Changer changer, int change) { append(Event{Event::Kind::End, changer, change, {}}); }
    std::vector<Event> take() {
        std::lock_guard<std::mutex> lock(mutex_);
        return std::move(events_);
    }

private:
    void append(Event event) {
        std::lock_guard<std::mutex> lock(mutex_);
        events_.push_back(std::move(event));
    }
    std::mutex mutex_;
    std::vector<Event> events_;  // guarded by mutex_
};

// ---- Models of the two tables, kept by the only thread that changes each ------

// The expected notices of one change: kind and rank (the key is fixed per changer).
struct ExpectedNotice {
    unsigned short type = 0;
    Address keySender;
    unsigned long rank = 0;
    int changedQueue = -1;
};

// The services registered for (Request, "svc"), in delivery order: (rank, queue).
using ServiceState = std::vector<std::pair<unsigned long, int>>;

constexpr unsigned long ChangeRank = std::numeric_limits<unsigned long>::max();

// Follows registerService, unregisterService and unregisterAll on one key.
struct ServiceModel {
    ServiceState entries;

    bool registerService(int queue, unsigned long rank, std::vector<ExpectedNotice>& notices) {
        if (entries.empty()) {
            entries.emplace_back(rank, queue);
            notices.push_back({5, {}, rank, queue});
            return true;
        }
        if (entries.front().first == 0) return false;  // rank 0 is exclusive
        bool changed = rank < entries.front().first;
        for (auto it = entries.begin(); it != entries.end(); ++it) {
            if (it->second != queue) continue;
            if (it->first == rank) return true;
            entries.erase(it);
            changed = true;
            break;
        }
        // After the entries of equal rank, as a multimap inserts.
        auto at = std::upper_bound(entries.begin(), entries.end(), rank,
                                   [](unsigned long r, const auto& entry) { return r < entry.first; });
        entries.insert(at, {rank, queue});
        if (changed) {
            notices.push_back({5, {}, entries.front().first, queue});
            notices.push_back({6, {}, ChangeRank, queue});
        }
        return true;
    }

    void unregisterService(int queue, std::vector<ExpectedNotice>& notices) {
        auto it = std::find_if(entries.begin(), entries.end(),
                               [&](const auto& entry) { return entry.second == queue; });
        if (it == entries.end()) return;
        entries.erase(it);
        if (!entries.empty()) notices.push_back({5, {}, entries.front().first, queue});
        notices.push_back({6, {}, ChangeRank, queue});
    }
};

// What a changing thread did: the tables after each change (index 0: before
// the first), the notices the changes must have posted, in order, and the
// calls whose result differed from the model's.
template <class State>
struct ChangeRecord {
    std::vector<State> states;
    std::vector<ExpectedNotice> notices;
    int changes = 0;
    std::vector<std::string> wrongResults;
    bool timedOut = false;
};

// ---- Reading a fixed-depth queue while it is filled ---------------------------

struct ReaderRecord {
    std::vector<std::shared_ptr<const Message>> received;
    unsigned int mostPending = 0;  // the largest count seen before a burst of reads
    bool timedOut = false;
};

// Takes everything pending, then lets `pace` posts pass before the next
// burst, so that the queue fills, refuses and empties again and again. Ends
// with a last burst once `progress` has finished.
void readInBursts(MessageQueue_FixedDepth& queue, long pace, Progress& progress, ReaderRecord& record) {
    for (;;) {
        const bool last = progress.finished();  // before the burst: nothing arrives after it
        record.mostPending = std::max(record.mostPending, queue.getAvailableMessagesCount());
        while (std::shared_ptr<const Message> message = queue.getMessage(Immediately)) {
            record.received.push_back(std::move(message));
        }
        if (last) return;
        if (!progress.waitUntil(progress.value() + pace)) {
            record.timedOut = true;
            return;
        }
    }
}

std::vector<std::shared_ptr<const Message>> drainAll(MessageQueueInterface& queue) {
    std::vector<std::shared_ptr<const Message>> taken;
    while (std::shared_ptr<const Message> message = queue.getMessage(Immediately)) {
        taken.push_back(std::move(message));
    }
    return taken;
}

// ---- The posting setup ------------------------------------------------------------

struct PostingRun {
    explicit PostingRun(bool withChanges, int perPoster, std::uint64_t seed)
        : withChanges(withChanges), perPoster(perPoster), seed(seed) {}

    const bool withChanges;
    const int perPoster;
    const std::uint64_t seed;

    MessageDispatcher dispatcher;
    Ledger ledger;
    Progress progress;

    std::vector<std::shared_ptr<MessageQueue_FixedDepth>> bounded;
    std::shared_ptr<MessageQueue> unbounded = std::make_shared<MessageQueue>();
    std::shared_ptr<MessageCallback> ledgerQueue;
    std::vector<std::shared_ptr<MessageQueue_FixedDepth>> boundedServices;
    std::shared_ptr<MessageQueue> unboundedService = std::make_shared<MessageQueue>();
    std::vector<std::shared_ptr<MessageQueueInterface>> services;  // S0..S3
    std::vector<std::shared_ptr<MessageQueue>> watchers;

    // Written by poster p only, read after the posters have been joined.
    std::vector<std::vector<char>> readingPosted;
    std::vector<std::vector<char>> requestPosted;

    std::vector<ReaderRecord> boundedRecords;
    std::vector<ReaderRecord> serviceRecords;
    ChangeRecord<unsigned int> subscriptionChanges;  // bit i: watcher i subscribed
    ChangeRecord<ServiceState> serviceChanges;

    long postsPerPoster() const { return withChanges ? 2L * perPoster : perPoster; }
    long totalPosts() const { return Posters * postsPerPoster(); }

    void setUp() {
        ledgerQueue = std::make_shared<MessageCallback>(
            [this](const std::shared_ptr<const Message>& message) { ledger.delivered(message); });
        for (unsigned int depth : BoundedDepths) {
            bounded.push_back(std::make_shared<MessageQueue_FixedDepth>(depth));
            dispatcher.subscribe(bounded.back(), {}, Reading);
        }
        // Two keys that both cover every reading: the queue must still get each once.
        dispatcher.subscribe(unbounded, {}, Reading);
        dispatcher.subscribe(unbounded, {"P"}, Reading);
        dispatcher.subscribe(ledgerQueue, {}, Reading);
        if (withChanges) {
            dispatcher.subscribe(ledgerQueue, {}, Request);
            for (std::uint16_t type : {9, 10, 5, 6}) dispatcher.subscribe(ledgerQueue, {}, noticeId(type));
            // Deep enough for the set-up notices; made shallow before the run.
            for (std::size_t i = 0; i < ServiceDepths.size(); ++i) {
                boundedServices.push_back(std::make_shared<MessageQueue_FixedDepth>(1000));
                services.push_back(boundedServices.back());
            }
            services.push_back(unboundedService);
            for (const auto& service : services) {
                for (std::uint16_t type : {9, 10, 5, 6}) dispatcher.subscribe(service, {}, noticeId(type));
            }
            for (int i = 0; i < Watchers; ++i) {
                watchers.push_back(attachForwarder(dispatcher));
            }
            for (const auto& service : services) drainAll(*service);
            for (const auto& watcher : watchers) drainAll(*watcher);
            for (std::size_t i = 0; i < ServiceDepths.size(); ++i) {
                boundedServices[i]->setMaxDepth(ServiceDepths[i]);
            }
        }
        ledger.take();  // the set-up notices
        readingPosted.assign(Posters, std::vector<char>(static_cast<std::size_t>(perPoster), 0));
        requestPosted.assign(Posters, std::vector<char>(static_cast<std::size_t>(perPoster), 0));
        boundedRecords.resize(bounded.size());
        serviceRecords.resize(boundedServices.size());
        subscriptionChanges.states.push_back(0);
        serviceChanges.states.emplace_back();
    }

    void post(int poster) {
        for (int sequence = 0; sequence < perPoster; ++sequence) {
            readingPosted[poster][sequence] = dispatcher.postMessage(makeReading(poster, sequence), nullptr) ? 1 : 0;
            progress.advance();
            if (!withChanges) continue;
            requestPosted[poster][sequence] = dispatcher.postMessage(makeRequest(poster, sequence), nullptr) ? 1 : 0;
            progress.advance();
        }
    }

    // Waits for the next `ChurnPace` posts; false once every post is done.
    template <class State>
    bool nextChange(long& mark, ChangeRecord<State>& record) {
        mark = std::min(mark + ChurnPace, totalPosts());
        if (!progress.waitUntil(mark)) {
            record.timedOut = true;
            return false;
        }
        return progress.value() < totalPosts();
    }

    void changeSubscriptions() {
        std::mt19937_64 random(seed * 2 + 1);
        unsigned int subscribed = 0;
        long mark = 0;
        for (int change = 0; nextChange(mark, subscriptionChanges); ++change) {
            const int watcher = static_cast<int>(random() % Watchers);
            const bool subscribe = random() % 2 == 0;
            const Address address{"P", std::to_string(watcher)};
            const unsigned int bit = 1U << watcher;
            ledger.begin(Changer::Subscriptions, change);
            const bool result = subscribe ? dispatcher.subscribe(watchers[watcher], address, Reading)
                                          : dispatcher.unsubscribe(watchers[watcher], address, Reading);
            ledger.end(Changer::Subscriptions, change);
            if (!result) {
                subscriptionChanges.wrongResults.push_back("change " + std::to_string(change) +
                                                           ": subscription call returned false");
            }
            if (subscribe && (subscribed & bit) == 0) {
                subscriptionChanges.notices.push_back({9, address, 0, watcher});
            } else if (!subscribe && (subscribed & bit) != 0) {
                subscriptionChanges.notices.push_back({10, address, 0, watcher});
            }
            subscribed = subscribe ? (subscribed | bit) : (subscribed & ~bit);
            subscriptionChanges.states.push_back(subscribed);
            subscriptionChanges.changes = change + 1;
        }
    }

    void changeServices() {
        std::mt19937_64 random(seed * 2 + 2);
        ServiceModel model;
        long mark = 0;
        for (int change = 0; nextChange(mark, serviceChanges); ++change) {
            const int queue = static_cast<int>(random() % ServiceQueues);
            const unsigned int action = static_cast<unsigned int>(random() % 20);
            bool result = true;
            bool expected = true;
            std::string call;
            ledger.begin(Changer::Services, change);
            if (action < 9) {
                const unsigned long rank = 1 + random() % 3;
                call = "registerService(S" + std::to_string(queue) + ", rank " + std::to_string(rank) + ")";
                result = dispatcher.registerService(services[queue], ServiceAddress, Request, rank);
                expected = model.registerService(queue, rank, serviceChanges.notices);
            } else if (action < 10) {
                call = "registerService(S" + std::to_string(queue) + ", rank 0)";
                result = dispatcher.registerService(services[queue], ServiceAddress, Request, 0);
                expected = model.registerService(queue, 0, serviceChanges.notices);
            } else if (action < 17) {
                call = "unregisterService(S" + std::to_string(queue) + ")";
                result = dispatcher.unregisterService(services[queue], ServiceAddress, Request);
                model.unregisterService(queue, serviceChanges.notices);
            } else {
                call = "unregisterAll(S" + std::to_string(queue) + ")";
                result = dispatcher.unregisterAll(services[queue]);
                model.unregisterService(queue, serviceChanges.notices);
            }
            ledger.end(Changer::Services, change);
            if (result != expected) {
                serviceChanges.wrongResults.push_back("change " + std::to_string(change) + ": " + call +
                                                      " returned " + (result ? "true" : "false"));
            }
            serviceChanges.states.push_back(model.entries);
            serviceChanges.changes = change + 1;
        }
    }

    // Runs posters, readers and (with changes) the two changing threads to the end.
    void run() {
        std::vector<std::thread> readers;
        for (std::size_t i = 0; i < bounded.size(); ++i) {
            // Enough posts that the queue fills and refuses before its next burst.
            const long pace = 2L * BoundedDepths[i] + 2;
            readers.emplace_back(readInBursts, std::ref(*bounded[i]), withChanges ? 2 * pace : pace,
                                 std::ref(progress), std::ref(boundedRecords[i]));
        }
        for (std::size_t i = 0; i < boundedServices.size(); ++i) {
            readers.emplace_back(readInBursts, std::ref(*boundedServices[i]), 4L * ServiceDepths[i] + 4,
                                 std::ref(progress), std::ref(serviceRecords[i]));
        }
        std::vector<std::thread> changers;
        if (withChanges) {
            changers.emplace_back([this] { changeSubscriptions(); });
            changers.emplace_back([this] { changeServices(); });
        }
        std::vector<std::thread> posters;
        for (int p = 0; p < Posters; ++p) posters.emplace_back([this, p] { post(p); });
        for (auto& thread : posters) thread.join();
        for (auto& thread : changers) thread.join();
        progress.finish();  // after the last change: the readers' last burst sees everything
        for (auto& thread : readers) thread.join();
    }
};

// ---- Checks -------------------------------------------------------------------

// Collects the first few complaints of one kind and how many there were.
class Complaints {
public:
    explicit Complaints(std::string what) : what_(std::move(what)) {}
    void add(const std::string& text) {
        if (count_++ < 5) examples_ << "\n  " << text;
    }
    void expectNone() const {
        if (count_ != 0) ADD_FAILURE() << count_ << " " << what_ << ", for instance:" << examples_.str();
    }

private:
    std::string what_;
    long count_ = 0;
    std::ostringstream examples_;
};

std::string originText(Origin origin) {
    return "(" + std::to_string(origin.poster) + ", " + std::to_string(origin.sequence) + ")";
}

// Each poster's messages in `received` (of the kind `id`): strictly rising
// sequence numbers, and with `complete` exactly 0..perPoster-1.
void expectPerPosterOrder(const std::vector<std::shared_ptr<const Message>>& received, Identifier id,
                          int perPoster, bool complete, const std::string& queueName) {
    std::vector<std::vector<int>> sequences(Posters);
    Complaints order(queueName + ": messages out of their poster's order or repeated");
    for (const auto& message : received) {
        if (message->id() != id) continue;
        const Origin origin = originOf(*message);
        ASSERT_TRUE(origin.poster >= 0 && origin.poster < Posters) << queueName;
        auto& seen = sequences[static_cast<std::size_t>(origin.poster)];
        if (!seen.empty() && seen.back() >= origin.sequence) {
            order.add(originText(origin) + " after sequence " + std::to_string(seen.back()));
        }
        seen.push_back(origin.sequence);
    }
    order.expectNone();
    if (!complete) return;
    for (int p = 0; p < Posters; ++p) {
        EXPECT_EQ(sequences[static_cast<std::size_t>(p)].size(), static_cast<std::size_t>(perPoster))
            << queueName << " did not receive every message of poster " << p;
    }
}

struct DropReport {
    long warnings = 0;
    long traces = 0;
    std::vector<std::vector<int>> readingRefusals;  // [poster][sequence]
    std::vector<std::vector<int>> requestRefusals;
    std::map<unsigned long, long> noticeRefusals;  // by notification type
};

DropReport readDropReport(const std::vector<std::string>& lines, int perPoster) {
    DropReport report;
    report.readingRefusals.assign(Posters, std::vector<int>(static_cast<std::size_t>(perPoster), 0));
    report.requestRefusals.assign(Posters, std::vector<int>(static_cast<std::size_t>(perPoster), 0));
    Complaints strange("lines on standard output that are neither a drop warning nor a drop trace");
    for (const std::string& line : lines) {
        if (line == DropWarningLine) {
            ++report.warnings;
            continue;
        }
        TraceLine trace;
        if (!parseTraceLine(line, trace)) {
            strange.add(line);
            continue;
        }
        ++report.traces;
        const unsigned long id = (trace.category << 16) | trace.type;
        if (trace.category == Fwd::Category && trace.senderSet && trace.sender.empty()) {
            ++report.noticeRefusals[trace.type];
            continue;
        }
        const Origin origin = originOf(trace.sender);
        const bool known = origin.poster >= 0 && origin.poster < Posters && origin.sequence >= 0 &&
                           origin.sequence < perPoster;
        if (known && id == static_cast<unsigned long>(Reading) && trace.sender[0] == "P" &&
            !trace.destinationSet) {
            ++report.readingRefusals[origin.poster][origin.sequence];
        } else if (known && id == static_cast<unsigned long>(Request) && trace.sender[0] == "R" &&
                   trace.destination == ServiceAddress) {
            ++report.requestRefusals[origin.poster][origin.sequence];
        } else {
            strange.add(line);
        }
    }
    strange.expectNone();
    return report;
}

// The readings: every queue got what it accepted once and in order, the
// ledger and the unbounded queue got everything, and every message that a
// bounded queue lacks was reported once as dropped.
void checkReadings(PostingRun& run, const std::vector<std::shared_ptr<const Message>>& ledgerMessages,
                   const std::vector<std::shared_ptr<const Message>>& unboundedMessages,
                   const DropReport& report) {
    const int perPoster = run.perPoster;
    const long posted = static_cast<long>(Posters) * perPoster;

    long refusedPosts = 0;
    for (const auto& results : run.readingPosted) refusedPosts += std::count(results.begin(), results.end(), 0);
    EXPECT_EQ(refusedPosts, 0) << "posts of readings (no destination) must return true";

    expectPerPosterOrder(ledgerMessages, Reading, perPoster, true, "callback queue");
    expectPerPosterOrder(unboundedMessages, Reading, perPoster, true,
                         "unbounded queue (subscribed under two covering keys)");
    EXPECT_EQ(std::count_if(unboundedMessages.begin(), unboundedMessages.end(),
                            [](const auto& m) { return m->id() == Reading; }),
              posted)
        << "the unbounded queue must receive each reading exactly once";

    std::vector<std::vector<int>> acceptedBy(Posters, std::vector<int>(static_cast<std::size_t>(perPoster), 0));
    long accepted = posted * 2;  // the callback queue and the unbounded queue
    for (std::size_t q = 0; q < run.bounded.size(); ++q) {
        const ReaderRecord& record = run.boundedRecords[q];
        const std::string name = "queue of depth " + std::to_string(BoundedDepths[q]);
        EXPECT_FALSE(record.timedOut) << name << ": its reader waited too long for the posters";
        EXPECT_LE(record.mostPending, BoundedDepths[q]) << name << " held more messages than its depth";
        expectPerPosterOrder(record.received, Reading, perPoster, false, name);
        EXPECT_LT(static_cast<long>(record.received.size()), posted)
            << name << " never refused a message: its reader did not let it fill";
        for (const auto& message : record.received) {
            const Origin origin = originOf(*message);
            ++acceptedBy[origin.poster][origin.sequence];
        }
        accepted += static_cast<long>(record.received.size());
    }

    long refused = 0;
    Complaints mismatch("readings whose drop reports do not match the bounded queues that lack them");
    for (int p = 0; p < Posters; ++p) {
        for (int s = 0; s < perPoster; ++s) {
            const int lacking = static_cast<int>(BoundedDepths.size()) - acceptedBy[p][s];
            refused += report.readingRefusals[p][s];
            if (report.readingRefusals[p][s] != lacking) {
                mismatch.add(originText({p, s}) + ": " + std::to_string(report.readingRefusals[p][s]) +
                             " reported, " + std::to_string(lacking) + " bounded queues lack it");
            }
        }
    }
    mismatch.expectNone();
    std::printf("readings: %ld posted to %d queues, %ld accepted, %ld refused (depths 1/8/64 took %zu/%zu/%zu)\n",
                posted, ReadingQueues, accepted, refused, run.boundedRecords[0].received.size(),
                run.boundedRecords[1].received.size(), run.boundedRecords[2].received.size());
    EXPECT_EQ(accepted + refused, posted * ReadingQueues)
        << "accepted " << accepted << " + refused " << refused << " != posted " << posted << " x "
        << ReadingQueues << " matching queues";
}

// Where the run's ledger shows the changers at each delivered message: the
// index of the state after the last finished change, and the next one when a
// change was under way.
struct Moment {
    std::size_t state = 0;
    bool during = false;
};

template <class State>
std::vector<State> statesAt(const ChangeRecord<State>& record, Moment moment) {
    std::vector<State> states{record.states.at(moment.state)};
    if (moment.during) states.push_back(record.states.at(moment.state + 1));
    return states;
}

void checkChanges(PostingRun& run, const std::vector<Event>& events,
                  const std::vector<std::shared_ptr<const Message>>& unboundedServiceReceived,
                  const std::vector<int>& serviceOf, const DropReport& report) {
    const int perPoster = run.perPoster;
    auto& subs = run.subscriptionChanges;
    auto& svcs = run.serviceChanges;
    EXPECT_FALSE(subs.timedOut || svcs.timedOut) << "a changing thread waited too long for the posters";
    EXPECT_GT(subs.changes, 0);
    EXPECT_GT(svcs.changes, 0);
    for (const auto& text : subs.wrongResults) ADD_FAILURE() << text;
    for (const auto& text : svcs.wrongResults) ADD_FAILURE() << text;

    // Notices, in the dispatcher's order, as the ledger got them; each mapped
    // to the queue whose change it announces (watchers 0..3, services 4..7).
    std::vector<std::shared_ptr<const Message>> notices;
    std::unordered_map<const Message*, int> changedQueueOf;
    std::size_t subNotice = 0;
    std::size_t svcNotice = 0;
    Complaints unexpected("notices that differ from the model of the changes");
    // The moment of every request and reading, from the changers' begin/end marks.
    Moment subNow;
    Moment svcNow;
    std::vector<std::vector<Moment>> readingMoment(Posters, std::vector<Moment>(static_cast<std::size_t>(perPoster)));
    std::vector<std::vector<Moment>> requestMoment(Posters, std::vector<Moment>(static_cast<std::size_t>(perPoster)));
    for (const Event& event : events) {
        Moment& now = event.changer == Changer::Subscriptions ? subNow : svcNow;
        if (event.kind == Event::Kind::Begin) {
            now.during = true;
            continue;
        }
        if (event.kind == Event::Kind::End) {
            now.during = false;
            now.state = static_cast<std::size_t>(event.change) + 1;
            continue;
        }
        const Message& message = *event.message;
        if (message.id() == Reading) {
            const Origin o = originOf(message);
            readingMoment[o.poster][o.sequence] = subNow;
            continue;
        }
        if (message.id() == Request) {
            const Origin o = originOf(message);
            requestMoment[o.poster][o.sequence] = svcNow;
            continue;
        }
        ASSERT_TRUE(isNotice(message)) << "the ledger got a message of another kind";
        const Notice got = readNotice(message);
        const bool fromSubscriptions = got.type == 9 || got.type == 10;
        auto& expectedList = fromSubscriptions ? subs.notices : svcs.notices;
        std::size_t& next = fromSubscriptions ? subNotice : svcNotice;
        if (next >= expectedList.size()) {
            unexpected.add("an extra notice " + ::testing::PrintToString(got));
            continue;
        }
        const ExpectedNotice& e = expectedList[next++];
        const Notice want = fromSubscriptions ? notice(e.type, Reading, e.keySender, {}, e.rank)
                                              : notice(e.type, Request, {}, ServiceAddress, e.rank);
        if (!(got == want)) {
            unexpected.add("got " + ::testing::PrintToString(got) + ", expected " + ::testing::PrintToString(want));
        }
        changedQueueOf[event.message.get()] = fromSubscriptions ? e.changedQueue : Watchers + e.changedQueue;
        notices.push_back(event.message);
    }
    unexpected.expectNone();
    EXPECT_EQ(subNotice, subs.notices.size()) << "subscription notices missing from the ledger";
    EXPECT_EQ(svcNotice, svcs.notices.size()) << "service notices missing from the ledger";

    // Every request reached exactly one service queue, the first accepting one
    // in rank order, after a refusal by each one before it; or it reached none,
    // was refused by every registered one, and the post returned false.
    Complaints wrongRoute("service requests not routed to the lowest accepting rank");
    long servedRequests = 0;
    for (int p = 0; p < Posters; ++p) {
        for (int s = 0; s < perPoster; ++s) {
            const std::size_t index = static_cast<std::size_t>(p) * perPoster + s;
            const int acceptor = serviceOf[index];
            if (acceptor == -2) {
                wrongRoute.add(originText({p, s}) + " reached two service queues");
                continue;
            }
            const bool posted = run.requestPosted[p][s] != 0;
            const int refusals = report.requestRefusals[p][s];
            servedRequests += acceptor >= 0 ? 1 : 0;
            bool consistent = false;
            for (const ServiceState& state : statesAt(svcs, requestMoment[p][s])) {
                if (posted) {
                    auto at = std::find_if(state.begin(), state.end(),
                                           [&](const auto& entry) { return entry.second == acceptor; });
                    consistent = consistent || (acceptor >= 0 && at != state.end() &&
                                                refusals == static_cast<int>(at - state.begin()));
                } else {
                    consistent = consistent || (acceptor < 0 && refusals == static_cast<int>(state.size()));
                }
            }
            if (!consistent) {
                std::ostringstream text;
                text << originText({p, s}) << ": post returned " << posted << ", reached S" << acceptor
                     << " after " << refusals << " refusals; registered (rank, S):";
                for (const ServiceState& state : statesAt(svcs, requestMoment[p][s])) {
                    text << " {";
                    for (const auto& entry : state) text << " (" << entry.first << ", S" << entry.second << ")";
                    text << " }";
                }
                wrongRoute.add(text.str());
            }
        }
    }
    wrongRoute.expectNone();
    EXPECT_GT(servedRequests, 0);
    long refusedRequests = 0;
    for (const auto& results : run.requestPosted) refusedRequests += std::count(results.begin(), results.end(), 0);
    std::printf("requests: %ld served, %ld refused; %d subscription and %d service changes; %zu notices\n",
                servedRequests, refusedRequests, subs.changes, svcs.changes, notices.size());

    // Watcher i got poster i's readings exactly while it was subscribed, and
    // every notice but those of its own changes, in order.
    for (int w = 0; w < Watchers; ++w) {
        const auto received = drainAll(*run.watchers[w]);
        std::vector<const Message*> gotNotices;
        std::vector<char> gotReading(static_cast<std::size_t>(perPoster), 0);
        Complaints strayReadings("watcher " + std::to_string(w) + ": readings it must not get");
        for (const auto& message : received) {
            if (isNotice(*message)) {
                gotNotices.push_back(message.get());
                continue;
            }
            const Origin o = originOf(*message);
            if (message->id() != Reading || o.poster != w) {
                strayReadings.add("a message from poster " + std::to_string(o.poster));
            } else {
                ++gotReading[o.sequence];
            }
        }
        strayReadings.expectNone();
        expectPerPosterOrder(received, Reading, perPoster, false, "watcher " + std::to_string(w));
        Complaints wrongReading("watcher " + std::to_string(w) +
                                ": readings not matching its subscription at the time");
        for (int s = 0; s < perPoster; ++s) {
            bool consistent = false;
            for (unsigned int state : statesAt(subs, readingMoment[w][s])) {
                consistent = consistent || (gotReading[s] == (((state >> w) & 1U) != 0 ? 1 : 0));
            }
            if (!consistent) wrongReading.add("reading " + std::to_string(s) + " received " +
                                              std::to_string(gotReading[s]) + " times");
        }
        wrongReading.expectNone();
        std::vector<const Message*> wantNotices;
        for (const auto& n : notices) {
            if (changedQueueOf.at(n.get()) != w) wantNotices.push_back(n.get());
        }
        const long own = std::count_if(gotNotices.begin(), gotNotices.end(), [&](const Message* n) {
            auto it = changedQueueOf.find(n);
            return it != changedQueueOf.end() && it->second == w;
        });
        EXPECT_EQ(own, 0) << "watcher " << w << " received notices of its own subscription changes";
        EXPECT_TRUE(gotNotices == wantNotices)
            << "watcher " << w << " got " << gotNotices.size() << " notices, expected every one of "
            << notices.size() << " but the " << notices.size() - wantNotices.size() << " of its own changes";
    }

    // Services got every notice but those of their own registrations, except
    // what a full queue refused (and reported).
    long offered = 0;
    long received = 0;
    for (const auto& n : notices) {
        const int changed = changedQueueOf.at(n.get());
        offered += ServiceQueues - ((changed >= Watchers) ? 1 : 0);
    }
    long own = 0;
    for (std::size_t q = 0; q < run.services.size(); ++q) {
        const auto& list = q < run.serviceRecords.size() ? run.serviceRecords[q].received : unboundedServiceReceived;
        for (const auto& message : list) {
            if (!isNotice(*message)) continue;
            ++received;
            auto it = changedQueueOf.find(message.get());
            if (it == changedQueueOf.end() || it->second == Watchers + static_cast<int>(q)) ++own;
        }
    }
    EXPECT_EQ(own, 0) << "service queues received notices of their own registration changes, or unknown ones";
    long noticeRefusals = 0;
    for (const auto& entry : report.noticeRefusals) noticeRefusals += entry.second;
    EXPECT_EQ(received + noticeRefusals, offered)
        << "notices received by the service queues + notices they refused != notices offered to them";
}

void runPosting(bool withChanges, int perPoster, std::uint64_t seed) {
    PostingRun run(withChanges, perPoster, seed);
    run.setUp();
    std::vector<std::string> lines;
    {
        SynchronizedCapture capture;
        run.run();
        lines = capture.lines();
    }
    const std::vector<Event> events = run.ledger.take();
    std::vector<std::shared_ptr<const Message>> ledgerMessages;
    for (const Event& event : events) {
        if (event.kind == Event::Kind::Delivered) ledgerMessages.push_back(event.message);
    }
    const auto unboundedMessages = drainAll(*run.unbounded);
    const DropReport report = readDropReport(lines, perPoster);
    EXPECT_EQ(report.warnings, report.traces) << "each drop warning is followed by one trace line";

    checkReadings(run, ledgerMessages, unboundedMessages, report);
    if (!withChanges) return;

    // Which service queue got each request: -1 none, -2 more than one.
    std::vector<int> serviceOf(static_cast<std::size_t>(Posters) * perPoster, -1);
    const auto unboundedServiceMessages = drainAll(*run.unboundedService);
    for (std::size_t q = 0; q < run.services.size(); ++q) {
        const auto& list = q < run.serviceRecords.size() ? run.serviceRecords[q].received : unboundedServiceMessages;
        if (q < run.serviceRecords.size()) {
            EXPECT_FALSE(run.serviceRecords[q].timedOut) << "S" << q << ": its reader waited too long";
            EXPECT_LE(run.serviceRecords[q].mostPending, ServiceDepths[q]) << "S" << q << " held more than its depth";
        }
        expectPerPosterOrder(list, Request, perPoster, false, "S" + std::to_string(q));
        for (const auto& message : list) {
            if (message->id() != Request) continue;
            const Origin o = originOf(*message);
            int& at = serviceOf[static_cast<std::size_t>(o.poster) * perPoster + o.sequence];
            at = at == -1 ? static_cast<int>(q) : -2;
        }
    }
    expectPerPosterOrder(ledgerMessages, Request, perPoster, true, "callback queue (requests)");
    checkChanges(run, events, unboundedServiceMessages, serviceOf, report);

    // The tables end as the models say.
    MessageDispatcherInterface::ServicesTable servicesTable;
    run.dispatcher.getServicesTable(servicesTable);
    const ServiceState& last = run.serviceChanges.states.back();
    const MessageKey serviceKey(static_cast<unsigned long>(Request), {}, ServiceAddress, MessageKey::HashFunction());
    if (last.empty()) {
        EXPECT_EQ(servicesTable.count(serviceKey), 0U);
    } else if (servicesTable.count(serviceKey) == 1) {
        EXPECT_EQ(servicesTable.at(serviceKey).queueCount, last.size());
        EXPECT_EQ(servicesTable.at(serviceKey).lowestRank, last.front().first);
    } else {
        ADD_FAILURE() << "the services table lost the service key";
    }
}

}  // namespace

TEST(PostingStress, EveryQueueKindAccountsForEveryMessageOfFourPosters) {
    const int perPoster = scaledCount(5000, 100, 5);
    forEachScheduleSeed([&](std::uint64_t seed) { runPosting(false, perPoster, seed); });
}

TEST(PostingStress, ServicesAndNoticesStayExactWhileTwoThreadsChangeTheTables) {
    const int perPoster = scaledCount(2500, 100, 5);
    forEachScheduleSeed([&](std::uint64_t seed) { runPosting(true, perPoster, seed); });
}

// Enough receivers per post that the set of queues already served outgrows
// any small inline storage: 64 queues, each under two keys that both cover
// every reading. Poster p posts as queue p, which must get none of its own.
TEST(PostingStress, SixtyFourQueuesUnderTwoCoveringKeysGetEachMessageOnce) {
    constexpr int Queues = 64;
    const int perPoster = scaledCount(1500, 50, 5);
    forEachScheduleSeed([&](std::uint64_t /*seed*/) {
        MessageDispatcher dispatcher;
        std::vector<std::shared_ptr<MessageQueue>> queues;
        for (int q = 0; q < Queues; ++q) {
            queues.push_back(std::make_shared<MessageQueue>());
            ASSERT_TRUE(dispatcher.subscribe(queues.back(), {}, Reading));
            ASSERT_TRUE(dispatcher.subscribe(queues.back(), {"P"}, Reading));
        }
        std::atomic<int> refusedPosts{0};
        std::vector<std::thread> posters;
        for (int p = 0; p < Posters; ++p) {
            posters.emplace_back([&, p] {
                const std::shared_ptr<MessageQueueInterface> self = queues[p];
                for (int s = 0; s < perPoster; ++s) {
                    if (!dispatcher.postMessage(makeReading(p, s), self)) ++refusedPosts;
                }
            });
        }
        for (auto& thread : posters) thread.join();
        EXPECT_EQ(refusedPosts, 0);

        for (int q = 0; q < Queues; ++q) {
            const auto received = drainAll(*queues[q]);
            const std::string name = "queue " + std::to_string(q);
            std::vector<int> fromPoster(Posters, 0);
            for (const auto& message : received) ++fromPoster[originOf(*message).poster];
            for (int p = 0; p < Posters; ++p) {
                EXPECT_EQ(fromPoster[p], p == q ? 0 : perPoster) << name << ", messages of poster " << p;
            }
            expectPerPosterOrder(received, Reading, perPoster, false, name);
        }
    });
}
