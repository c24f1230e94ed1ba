// The handled-message history and the diagnostic lines when memory runs out.
//
// MessagesHandled gives the strong guarantee: after a failure it remembers
// the same identities and forgets them in the same order. (The history's
// own test, MessagesHandled_alloc_test, checks eviction over a whole turn of
// the ring; here each operation is run through the harness.)
//
// The diagnostic lines (the message trace, the metadata reader's lines)
// allocate nothing of their own: written to a stream that never allocates
// they cannot fail. Written to a stream whose buffer must grow (a
// std::ostringstream a host put in place), a line may be cut short when
// memory runs out; the stream swallows the failure, and the library then
// ends the cut line and leaves std::cout good, so that the next line is
// written whole.

#include "AllocHarness.h"

#include <kest/metadata/Element.h>
#include <kest/model/Message.h>
#include <kest/model/Reflector.h>
#include <kest/msgs/diagnostics/MessageTrace.h>
#include <kest/msgs/diagnostics/MessagesHandled.h>

#include <gtest/gtest.h>

#include <iostream>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

using namespace KestAlloc;
using Kest::Msgs::Identifier;
using Kest::Msgs::Message;
using Kest::Msgs::MessagesHandled;

namespace {

constexpr std::size_t kLength = MessagesHandled::DefaultHistoryLength;
const std::string kLong = "an-identity-beyond-the-inline-buffer-of-a-string-";

std::string shortId(std::size_t n) { return "s" + std::to_string(n); }
std::string longId(std::size_t n) { return kLong + std::to_string(1000000 + n); }

struct Histories {
    MessagesHandled history;
    MessagesHandled other;
    std::vector<std::string> known;  // every identity the test has offered, oldest first
    std::optional<MessagesHandled> made;
    std::string id = longId(999999);
    bool answer = false;
};

// Which known identities `history` remembers, and, fed fresh identities on a
// copy, which of them it forgets first, in order. Every identity a history
// here holds is a known one, so the count remembered is its size: that many
// fresh ones fill it without forgetting anything, and each one after that
// forgets the oldest.
std::string describeHistory(const MessagesHandled& history, const std::vector<std::string>& known) {
    static const std::vector<std::string> fresh = [] {
        std::vector<std::string> ids;
        for (std::size_t n = 0; n < kLength + 3; ++n) ids.push_back("f" + std::to_string(n));
        return ids;
    }();
    MessagesHandled copy(history);
    std::string text = "remembers";
    std::vector<std::size_t> remembered;
    for (std::size_t i = 0; i < known.size(); ++i) {
        if (!copy.isMessageHandled(known[i])) continue;
        remembered.push_back(i);
        text += " " + known[i];
    }
    std::size_t next = 0;
    for (; next < kLength - remembered.size(); ++next) copy.handleMessage(fresh[next]);
    for (std::size_t i : remembered) {
        if (!copy.isMessageHandled(known[i])) text += "; forgot " + known[i] + " too early";
    }
    text += "; then forgets";
    for (int k = 0; k < 3 && !remembered.empty(); ++k) {
        copy.handleMessage(fresh[next++]);
        for (auto it = remembered.begin(); it != remembered.end(); ++it) {
            if (copy.isMessageHandled(known[*it])) continue;
            text += " " + known[*it];
            remembered.erase(it);
            break;
        }
    }
    return text;
}

std::string describeHistories(Histories& s) {
    std::vector<std::string> known = s.known;
    known.push_back(s.id);
    return "history " + describeHistory(s.history, known) + " other " + describeHistory(s.other, known) + " made " +
           (s.made ? describeHistory(*s.made, known) : "-") + " answer " + std::to_string(s.answer);
}

// A history of `count` identities made by `make`; `other` holds a few long ones.
template <std::size_t count, std::string (*make)(std::size_t)>
std::shared_ptr<Histories> histories() {
    auto s = std::make_shared<Histories>();
    for (std::size_t n = 0; n < count; ++n) {
        s->known.push_back(make(n));
        s->history.handleMessage(s->known.back());
    }
    for (std::size_t n = 0; n < 5; ++n) {
        s->known.push_back(longId(500000 + n));
        s->other.handleMessage(s->known.back());
    }
    return s;
}

template <class Op>
void history(const std::string& name, std::shared_ptr<Histories> (*setup)(), Op op) {
    coverStrong<Histories>(name, setup, op, describeHistories);
}

struct Trace {
    std::shared_ptr<Message> message;
    std::string prefix = "PLOX message is - ";
    std::unique_ptr<GrowingOutput> growing;
    Kest::MetaData::Element corrupt;
    Kest::Msgs::ReflectedAddress address{nullptr, "Sender"};
};

// A message whose trace line is some thousand characters long.
std::shared_ptr<Trace> trace() {
    auto s = std::make_shared<Trace>();
    const std::vector<std::string> sender(6, std::string(120, 's'));
    const std::vector<std::string> destination(3, std::string(100, 'd'));
    s->message = std::make_shared<Message>(Identifier(65535, 17), sender, destination);
    s->address.assign(std::vector<std::string>{"kept"});
    Kest::MetaData::Array& array = s->corrupt["Sender"];
    array.push_back(Kest::MetaData::Element(std::string(600, 'x')));
    array.push_back(Kest::MetaData::Element(5ul));
    return s;
}

std::shared_ptr<Trace> traceIntoGrowingOutput() {
    auto s = trace();
    s->growing = std::make_unique<GrowingOutput>();
    return s;
}

// The line the trace of `message` writes.
std::string traceLine(const Trace& s) {
    std::string line = s.prefix + ": sender = ";
    for (const std::string& part : s.message->sender.values()) line += "[" + part + "]";
    line += ", dest = ";
    for (const std::string& part : s.message->destination.values()) line += "[" + part + "]";
    return line + ", cat = 65535, id = 17\n";
}

const std::string kCorruptLine = "Exception MetaDat::ReflectorArray MetaData Array corrupt for Sender\n";

// After a failed write into a growing stream: the text is `line` whole or a
// part of it ended by a newline, std::cout is good, and the next line written
// appears whole after it.
template <class Write>
void checkCutLineAndNextWhole(Trace& s, const std::string& line, Write write) {
    const std::string text = s.growing->stream->str();
    check(std::cout.good(), "std::cout was left failed: every later diagnostic line would be lost");
    const bool whole = text == line;
    const bool cut = !text.empty() && text.size() <= line.size() && text.back() == '\n' &&
                     line.compare(0, text.size() - 1, text, 0, text.size() - 1) == 0;
    check(whole || cut, "the output is neither the line nor a part of it ended by a newline: " + text);
    write(s);
    checkEqual(s.growing->stream->str(), text + line, "the next line was not written whole on a line of its own");
}

}  // namespace

class HistoryAndTraceAllocation : public AllocTest {};

TEST_F(HistoryAndTraceAllocation, HistoryGivesTheStrongGuarantee) {
    history("MessagesHandled::handleMessage, the first (reserves the history)", histories<0, shortId>,
            [](Histories& s) { s.answer = s.history.handleMessage(s.id); });
    history("MessagesHandled::handleMessage, a long identity", histories<100, shortId>,
            [](Histories& s) { s.answer = s.history.handleMessage(s.id); });
    history("MessagesHandled::handleMessage, a long identity into a full history", histories<kLength, shortId>,
            [](Histories& s) { s.answer = s.history.handleMessage(s.id); });
    history("MessagesHandled::MessagesHandled(const MessagesHandled&)", histories<20, longId>,
            [](Histories& s) { s.made.emplace(s.history); });
    history("MessagesHandled::operator=(const MessagesHandled&)", histories<20, longId>,
            [](Histories& s) { s.other = s.history; });
}

TEST_F(HistoryAndTraceAllocation, HistoryLookupsRepeatsAndMovesAllocateNothing) {
    coverNoAllocation<Histories>("MessagesHandled::isMessageHandled, const and not", histories<100, longId>,
                                 [](Histories& s) {
                                     s.answer = s.history.isMessageHandled(s.known[3]) &&
                                                static_cast<const MessagesHandled&>(s.history).isMessageHandled(s.id);
                                 });
    coverNoAllocation<Histories>("MessagesHandled::handleMessage of a repeat", histories<100, longId>,
                                 [](Histories& s) { s.answer = s.history.handleMessage(s.known[7]); });
    coverNoAllocation<Histories>("MessagesHandled::handleMessage of a short identity into a full history",
                                 histories<kLength, shortId>,
                                 [](Histories& s) { s.answer = s.history.handleMessage(s.known[0] + "x"); });
    coverNoAllocation<Histories>("MessagesHandled(), moves", histories<100, longId>, [](Histories& s) {
        s.made.emplace();
        s.made.emplace(std::move(s.history));
        s.other = std::move(*s.made);
    });
}

TEST_F(HistoryAndTraceAllocation, TraceAllocatesNothingOfItsOwn) {
    // Addresses are read in place: nothing to fail but the stream's buffer.
    coverNoAllocation<Trace>("handleMessageDirect", trace,
                             [](Trace& s) { Kest::Msgs::handleMessageDirect(s.prefix, *s.message); });
}

TEST_F(HistoryAndTraceAllocation, TraceCutShortByAFullStreamLeavesStdoutUsable) {
    Options absorbing;
    absorbing.mayAbsorb = true;
    const auto write = [](Trace& s) { Kest::Msgs::handleMessageDirect(s.prefix, *s.message); };
    const Coverage coverage = cover<Trace>(
        "handleMessageDirect into a growing std::ostringstream", traceIntoGrowingOutput, write,
        [write](Trace& s, std::size_t, bool threw) {
            check(!threw, "std::bad_alloc left the trace");
            checkCutLineAndNextWhole(s, traceLine(s), write);
        },
        [](Trace& s) { checkEqual(s.growing->stream->str(), traceLine(s), "the trace line"); }, absorbing);
    EXPECT_GE(coverage.swallowed, 2u) << "the line did not grow the stream's buffer";
}

TEST_F(HistoryAndTraceAllocation, MetadataLinesCutShortByAFullStreamLeaveStdoutUsable) {
    Options absorbing;
    absorbing.mayAbsorb = true;
    // The corrupt array's entries are read into a vector aside first; a
    // failure there is a failed read too: the same line, the field unchanged.
    // A failure in the stream's buffer cuts the line short.
    const auto read = [](Trace& s) { s.address.copyFromMetaData(s.corrupt); };
    const Coverage coverage = cover<Trace>(
        "ReflectorArray: the \"MetaData Array corrupt\" line into a growing std::ostringstream",
        traceIntoGrowingOutput, read,
        [read](Trace& s, std::size_t, bool threw) {
            check(!threw, "std::bad_alloc left a read from a tree");
            checkEqual(s.address.values(), std::vector<std::string>{"kept"}, "the address changed");
            checkCutLineAndNextWhole(s, kCorruptLine, read);
        },
        [](Trace& s) { checkEqual(s.growing->stream->str(), kCorruptLine, "the corrupt line"); }, absorbing);
    EXPECT_GE(coverage.swallowed, 1u) << "the line did not grow the stream's buffer";
}
