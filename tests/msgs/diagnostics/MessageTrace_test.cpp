// The one-line trace of a message on standard output.

#include <kest/model/Message.h>
#include <kest/msgs/diagnostics/MessageTrace.h>

#include <support/TestSupport.h>

#include <gtest/gtest.h>

#include <iostream>
#include <memory>
#include <sstream>
#include <string>

using namespace Kest::Msgs;
using namespace KestTest;

namespace {

std::string traceOf(const std::string& prefix, const Message& message) {
    CaptureStdout capture;
    handleMessageDirect(prefix, message);
    return capture.text();
}

// Counts the flushes of what is written to it.
class FlushCountingBuffer : public std::stringbuf {
public:
    int flushes = 0;

protected:
    int sync() override {
        ++flushes;
        return std::stringbuf::sync();
    }
};

}  // namespace

TEST(MessageTrace, WritesSenderDestinationCategoryAndType) {
    const Message message(Identifier(3, 17), {"nodeA"});
    EXPECT_EQ(traceOf("PLOX message is - ", message),
              "PLOX message is - : sender = [nodeA], dest = <None>, cat = 3, id = 17\n");
}

TEST(MessageTrace, EmptyPrefixStartsLineWithSender) {
    const Message message(Identifier(1, 2), {"a"}, {"b"});
    EXPECT_EQ(traceOf("", message), ": sender = [a], dest = [b], cat = 1, id = 2\n");
}

TEST(MessageTrace, UnsetAddressesPrintNone) {
    const Message message(Identifier(1, 2));
    EXPECT_EQ(traceOf("x", message), "x: sender = <None>, dest = <None>, cat = 1, id = 2\n");
}

TEST(MessageTrace, SetButEmptyAddressesPrintNothing) {
    const Message message(Identifier(1, 2), {}, {});
    EXPECT_EQ(traceOf("x", message), "x: sender = , dest = , cat = 1, id = 2\n");
}

TEST(MessageTrace, EmptyEntryPrintsEmptyBrackets) {
    const Message message(Identifier(1, 2), {"", "a"}, {""});
    EXPECT_EQ(traceOf("x", message), "x: sender = [][a], dest = [], cat = 1, id = 2\n");
}

TEST(MessageTrace, EntriesFollowEachOtherWithoutSeparator) {
    const Message message(Identifier(7, 8), {"plant", "line 2", "press"}, {"a", "b"});
    EXPECT_EQ(traceOf("p ", message),
              "p : sender = [plant][line 2][press], dest = [a][b], cat = 7, id = 8\n");
}

TEST(MessageTrace, LargestCategoryAndTypePrintAsUnsignedDecimal) {
    const Message message(Identifier(65535, 65535), {"a"});
    EXPECT_EQ(traceOf("x", message), "x: sender = [a], dest = <None>, cat = 65535, id = 65535\n");
}

TEST(MessageTrace, ZeroCategoryAndTypePrintAsZero) {
    const Message message(Identifier(0, 0));
    EXPECT_EQ(traceOf("x", message), "x: sender = <None>, dest = <None>, cat = 0, id = 0\n");
}

TEST(MessageTrace, LineIsFlushed) {
    FlushCountingBuffer buffer;
    std::streambuf* old = std::cout.rdbuf(&buffer);
    handleMessageDirect("x", Message(Identifier(1, 2)));
    std::cout.rdbuf(old);

    EXPECT_EQ(buffer.str(), "x: sender = <None>, dest = <None>, cat = 1, id = 2\n");
    EXPECT_GE(buffer.flushes, 1);
}
