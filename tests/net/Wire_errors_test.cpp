// Bytes that decode() must refuse with WireError, and messages that encode()
// cannot write: truncated, oversized, too deep, too many items, wrong kinds,
// unknown versions, garbage, trailing bytes.

#include <kest/metadata/Element.h>
#include <kest/model/ForwarderNotifications.h>
#include <kest/model/Message.h>
#include <kest/model/Reflector.h>
#include <kest/net.h>

#include <support/TestSupport.h>
#include <support/TreeSupport.h>

#include "WireTestSupport.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

namespace {

using Kest::MetaData::Array;
using Kest::MetaData::Element;
using Kest::MetaData::Object;
using Kest::Msgs::Identifier;
using Kest::Msgs::Message;
using Kest::Net::decode;
using Kest::Net::encode;
using Kest::Net::Envelope;
using Kest::Net::GenericMessage;
using Kest::Net::Limits;
using Kest::Net::WireError;
using KestTest::goodEnvelope;
using KestTest::goodTree;
using KestTest::goodVersion;
using KestTest::packed;
using KestTest::Packer;
using KestTest::packString;
using KestTest::treeWith;
using KestTest::wireBytes;

using Address = std::vector<std::string>;
namespace Forwarder = Kest::Msgs::Communications::Forwarder;

static_assert(std::is_base_of_v<std::runtime_error, WireError>);

// decode(bytes, limits) throws WireError whose text holds every one of `parts`.
void expectRefused(const std::string& bytes, std::initializer_list<const char*> parts,
                   const Limits& limits = Limits()) {
    try {
        decode(bytes, limits);
        ADD_FAILURE() << "decoded, but should have been refused for: " << *parts.begin();
    } catch (const WireError& error) {
        const std::string what = error.what();
        for (const char* part : parts) EXPECT_NE(what.find(part), std::string::npos) << what;
    }
}

std::string sampleBytes() {
    Element payload(Object{});
    payload["list"] = Element(Array{});
    static_cast<Array&>(payload["list"]).push_back(Element(-1000l));
    static_cast<Array&>(payload["list"]).push_back(Element("text"));
    payload["x"] = Element(2.5);
    payload["y"] = Element(true);
    GenericMessage message(Identifier(9, 9), Address{"a", "b"}, Address{"c"}, payload);
    Envelope envelope;
    envelope.origin = "here";
    envelope.epoch = 70000;
    return encode(message, envelope);
}

TEST(WireErrors, EveryTruncationOfAValidMessageIsRefused) {
    const std::string bytes = sampleBytes();
    ASSERT_NO_THROW(decode(bytes));
    for (std::size_t length = 0; length < bytes.size(); ++length) {
        EXPECT_THROW(decode(bytes.substr(0, length)), WireError) << "truncated to " << length << " bytes";
    }
}

TEST(WireErrors, TruncationSaysTheInputEndedInsideAnItem) {
    const std::string bytes = sampleBytes();
    expectRefused(bytes.substr(0, bytes.size() - 1), {"Kest::Net::decode", "truncated"});
    expectRefused("", {"truncated"});
}

TEST(WireErrors, InputBeyondTheSizeLimitIsRefusedBeforeReading) {
    Limits limits;
    limits.maxBytes = 10;
    expectRefused(sampleBytes(), {"more than the limit of 10"}, limits);
}

TEST(WireErrors, DefaultSizeLimitIsSixteenMebibytes) {
    EXPECT_EQ(Limits().maxBytes, std::size_t{16} << 20);
    // Not even read: 0xc1 is never valid MessagePack.
    const std::string huge((std::size_t{16} << 20) + 1, '\xc1');
    expectRefused(huge, {"more than the limit of 16777216"});
}

// A tree whose payload nests `levels` levels below the top map (which is 1).
std::string nestedBytes(int levels, bool maps) {
    return wireBytes(goodVersion, goodEnvelope, treeWith("Deep", [levels, maps](Packer& p) {
        for (int i = 0; i < levels; ++i) {
            if (maps) {
                p.pack_map(1);
                packString(p, "k");
            } else {
                p.pack_array(1);
            }
        }
        p.pack_nil();
    }));
}

TEST(WireErrors, TreeDeeperThanTheLimitIsRefusedAndOneAtTheLimitIsRead) {
    // The top map is level 1: 63 more levels make 64, the limit.
    EXPECT_NO_THROW(decode(nestedBytes(63, false)));
    EXPECT_NO_THROW(decode(nestedBytes(63, true)));
    expectRefused(nestedBytes(64, false), {"nesting deeper than 64 levels", "at byte"});
    expectRefused(nestedBytes(64, true), {"nesting deeper than 64 levels"});
    Limits limits;
    limits.maxDepth = 3;
    EXPECT_NO_THROW(decode(nestedBytes(2, true), limits));
    expectRefused(nestedBytes(3, true), {"deeper than 3"}, limits);
}

TEST(WireErrors, MillionsOfNestedArraysAreRefusedWithoutRecursion) {
    // 0x91 is an array of one: a megabyte of them nests a million deep.
    std::string bytes = packed([](Packer& p) {
        p.pack_array(3);
        goodVersion(p);
        goodEnvelope(p);
        p.pack_map(3);
        packString(p, "Id");
        p.pack_uint64(1);
        packString(p, "Identity");
        packString(p, "i");
        packString(p, "Deep");
    });
    bytes += std::string(1 << 20, '\x91');
    expectRefused(bytes, {"nesting deeper"});
}

std::string arrayBytes(std::uint32_t count) {
    return wireBytes(goodVersion, goodEnvelope, treeWith("List", [count](Packer& p) {
        p.pack_array(count);
        for (std::uint32_t i = 0; i < count; ++i) p.pack_nil();
    }));
}

std::string mapBytes(std::uint32_t count) {
    return wireBytes(goodVersion, goodEnvelope, treeWith("Map", [count](Packer& p) {
        p.pack_map(count);
        for (std::uint32_t i = 0; i < count; ++i) {
            packString(p, std::to_string(i));
            p.pack_nil();
        }
    }));
}

TEST(WireErrors, ArrayWithMoreElementsThanTheLimitIsRefused) {
    Limits limits;
    limits.maxElementsPerArray = 100;
    EXPECT_NO_THROW(decode(arrayBytes(100), limits));
    expectRefused(arrayBytes(101), {"an array of 101 elements (the limit is 100)"}, limits);
    EXPECT_EQ(Limits().maxElementsPerArray, 1u << 20);
    expectRefused(arrayBytes((1u << 20) + 1), {"the limit is 1048576"});
}

TEST(WireErrors, ObjectWithMoreMembersThanTheLimitIsRefused) {
    Limits limits;
    limits.maxMembersPerObject = 100;
    EXPECT_NO_THROW(decode(mapBytes(100), limits));
    expectRefused(mapBytes(101), {"an object of 101 members (the limit is 100)"}, limits);
    EXPECT_EQ(Limits().maxMembersPerObject, 1u << 16);
}

TEST(WireErrors, CountsBeyondWhatTheBytesCouldHoldAreRefusedBeforeAllocating) {
    // A header announcing four billion items, with nothing after it.
    Limits limits;
    limits.maxElementsPerArray = 0xffffffff;
    limits.maxMembersPerObject = 0xffffffff;
    const std::string array = wireBytes(goodVersion, goodEnvelope, treeWith("A", [](Packer& p) { p.pack_array(0xffffffff); }));
    expectRefused(array, {"than the", "bytes could hold"}, limits);
    const std::string map = wireBytes(goodVersion, goodEnvelope, treeWith("M", [](Packer& p) { p.pack_map(0xffffffff); }));
    expectRefused(map, {"bytes could hold"}, limits);
}

TEST(WireErrors, UnknownMajorVersionIsRefused) {
    auto version = [](std::uint64_t major, std::uint64_t minor) {
        return [major, minor](Packer& p) {
            p.pack_array(2);
            p.pack_uint64(major);
            p.pack_uint64(minor);
        };
    };
    expectRefused(wireBytes(version(2, 0)), {"format version 2.0", "cannot read"});
    expectRefused(wireBytes(version(0, 9)), {"format version 0.9"});
    // A newer major version is refused whatever follows its version.
    expectRefused(packed([&](Packer& p) {
                      p.pack_array(3);
                      version(2, 0)(p);
                      p.pack_bin(1);
                      p.pack_bin_body("x", 1);
                      p.pack_nil();
                  }),
                  {"format version 2.0"});
    EXPECT_NO_THROW(decode(wireBytes(version(1, 0))));
    EXPECT_NO_THROW(decode(wireBytes(version(1, 1))));
}

TEST(WireErrors, MalformedVersionIsRefused) {
    expectRefused(wireBytes([](Packer& p) { p.pack_uint64(1); }), {"format version"});
    expectRefused(wireBytes([](Packer& p) {
                      p.pack_array(3);
                      p.pack_uint64(1);
                      p.pack_uint64(0);
                      p.pack_uint64(0);
                  }),
                  {"a version of 3 items"});
    expectRefused(wireBytes([](Packer& p) {
                      p.pack_array(2);
                      p.pack_fix_int8(1);
                      p.pack_uint64(0);
                  }),
                  {"a signed integer as the format version"});
}

TEST(WireErrors, OuterItemThatIsNotAnArrayOfThreeIsRefused) {
    expectRefused(packed([](Packer& p) { p.pack_map(0); }), {"a map as the outer item"});
    expectRefused(packed([](Packer& p) { p.pack_uint64(3); }), {"an unsigned integer as the outer item"});
    expectRefused(packed([](Packer& p) {
                      p.pack_array(2);
                      goodVersion(p);
                      goodEnvelope(p);
                  }),
                  {"an outer array of 2 items"});
    expectRefused(packed([](Packer& p) {
                      p.pack_array(4);
                      goodVersion(p);
                      goodEnvelope(p);
                      goodTree(p);
                      p.pack_nil();
                  }),
                  {"an outer array of 4 items in format 1.0"});
}

// An envelope with item `index` replaced by `value`.
std::string envelopeWith(int index, const KestTest::Piece& value) {
    return wireBytes(goodVersion, [index, value](Packer& p) {
        p.pack_array(5);
        if (index == 0) value(p); else packString(p, "origin");
        if (index == 1) value(p); else p.pack_uint64(1);
        if (index == 2) value(p); else p.pack_uint64(1);
        if (index == 3) value(p); else p.pack_uint64(3);
        if (index == 4) value(p); else p.pack_uint64(1);
    });
}

TEST(WireErrors, EnvelopeItemsOfTheWrongKindAreRefused) {
    expectRefused(envelopeWith(0, [](Packer& p) { p.pack_uint64(5); }), {"the envelope's origin"});
    expectRefused(envelopeWith(1, [](Packer& p) { packString(p, "1"); }), {"a string as the envelope's epoch"});
    expectRefused(envelopeWith(1, [](Packer& p) { p.pack_fix_int8(-1); }), {"the envelope's epoch"});
    expectRefused(envelopeWith(2, [](Packer& p) { p.pack_double(1.5); }), {"the envelope's hop count"});
    expectRefused(envelopeWith(2, [](Packer& p) { p.pack_uint64(1ull << 32); }), {"a hop count of 4294967296"});
    expectRefused(envelopeWith(3, [](Packer& p) { p.pack_uint64(0); }), {"a scope of 0"});
    expectRefused(envelopeWith(3, [](Packer& p) { p.pack_uint64(4); }), {"a scope of 4"});
    expectRefused(envelopeWith(3, [](Packer& p) { p.pack_true(); }), {"the envelope's scope"});
    expectRefused(envelopeWith(4, [](Packer& p) { p.pack_nil(); }), {"nil as the envelope's sequence number"});
    expectRefused(envelopeWith(4, [](Packer& p) { p.pack_array(0); }), {"an array as the envelope's sequence number"});
    expectRefused(wireBytes(goodVersion, [](Packer& p) { p.pack_map(0); }), {"a map as the envelope"});
    expectRefused(wireBytes(goodVersion, [](Packer& p) {
                      p.pack_array(4);
                      packString(p, "o");
                      p.pack_uint64(1);
                      p.pack_uint64(1);
                      p.pack_uint64(1);
                  }),
                  {"an envelope of 4 items"});
    expectRefused(wireBytes(goodVersion, [](Packer& p) {
                      p.pack_array(6);
                      packString(p, "o");
                      for (int i = 0; i < 5; ++i) p.pack_uint64(1);
                  }),
                  {"an envelope of 6 items in format 1.0"});
}

TEST(WireErrors, TreeThatIsNotAMapIsRefused) {
    expectRefused(wireBytes(goodVersion, goodEnvelope, [](Packer& p) { p.pack_array(0); }),
                  {"an array as the message's tree"});
    expectRefused(wireBytes(goodVersion, goodEnvelope, [](Packer& p) { p.pack_nil(); }),
                  {"nil as the message's tree"});
}

// A tree {"Identity": "i"} plus the given members.
KestTest::Piece treeOf(int members, const KestTest::Piece& rest, bool withId = true, bool withIdentity = true) {
    return [=](Packer& p) {
        p.pack_map(static_cast<std::uint32_t>(members + (withId ? 1 : 0) + (withIdentity ? 1 : 0)));
        if (withId) {
            packString(p, "Id");
            p.pack_uint64(1);
        }
        if (withIdentity) {
            packString(p, "Identity");
            packString(p, "i");
        }
        rest(p);
    };
}

TEST(WireErrors, TreeWithoutAnUnsignedIdIsRefused) {
    expectRefused(wireBytes(goodVersion, goodEnvelope, treeOf(0, [](Packer&) {}, false)), {"no \"Id\""});
    expectRefused(wireBytes(goodVersion, goodEnvelope, treeOf(1, [](Packer& p) {
                                packString(p, "Id");
                                p.pack_fix_int8(1);
                            }, false)),
                  {"a signed integer as the message's \"Id\""});
    expectRefused(wireBytes(goodVersion, goodEnvelope, treeOf(1, [](Packer& p) {
                                packString(p, "Id");
                                packString(p, "1");
                            }, false)),
                  {"a string as the message's \"Id\""});
    expectRefused(wireBytes(goodVersion, goodEnvelope, treeOf(1, [](Packer& p) {
                                packString(p, "Id");
                                p.pack_double(1.5);  // (the packer writes a whole double as an integer)
                            }, false)),
                  {"a floating-point number as the message's \"Id\""});
}

TEST(WireErrors, TreeWithoutAStringIdentityIsRefused) {
    expectRefused(wireBytes(goodVersion, goodEnvelope, treeOf(0, [](Packer&) {}, true, false)),
                  {"no \"Identity\""});
    expectRefused(wireBytes(goodVersion, goodEnvelope, treeOf(1, [](Packer& p) {
                                packString(p, "Identity");
                                p.pack_uint64(1);
                            }, true, false)),
                  {"an unsigned integer as the message's \"Identity\""});
}

TEST(WireErrors, AddressThatIsNotAnArrayOfStringsIsRefused) {
    for (const char* name : {"Sender", "Destination"}) {
        expectRefused(wireBytes(goodVersion, goodEnvelope, treeWith(name, [](Packer& p) { packString(p, "a"); })),
                      {"a string as the message's", name});
        expectRefused(wireBytes(goodVersion, goodEnvelope, treeWith(name, [](Packer& p) { p.pack_uint64(5); })),
                      {"an unsigned integer as the message's", name});
        expectRefused(wireBytes(goodVersion, goodEnvelope, treeWith(name, [](Packer& p) { p.pack_map(0); })),
                      {"a map as the message's", name});
        expectRefused(wireBytes(goodVersion, goodEnvelope, treeWith(name, [](Packer& p) {
                                    p.pack_array(2);
                                    packString(p, "a");
                                    p.pack_uint64(1);
                                })),
                      {"an unsigned integer as a part of the message's", name});
        expectRefused(wireBytes(goodVersion, goodEnvelope, treeWith(name, [](Packer& p) {
                                    p.pack_array(1);
                                    p.pack_array(0);
                                })),
                      {"an array as a part of the message's"});
    }
}

TEST(WireErrors, MapKeysThatAreNotStringsAreRefused) {
    expectRefused(wireBytes(goodVersion, goodEnvelope, treeOf(1, [](Packer& p) {
                                p.pack_uint64(5);
                                p.pack_nil();
                            })),
                  {"an unsigned integer as a member name"});
    expectRefused(wireBytes(goodVersion, goodEnvelope, treeWith("M", [](Packer& p) {
                                p.pack_map(1);
                                p.pack_array(0);
                                p.pack_nil();
                            })),
                  {"an array as a member name"});
}

TEST(WireErrors, MemberNameTwiceInOneMapIsRefused) {
    expectRefused(wireBytes(goodVersion, goodEnvelope, treeOf(2, [](Packer& p) {
                                packString(p, "x");
                                p.pack_nil();
                                packString(p, "x");
                                p.pack_uint64(1);
                            })),
                  {"the member name \"x\" twice"});
    expectRefused(wireBytes(goodVersion, goodEnvelope, treeOf(1, [](Packer& p) {
                                packString(p, "Id");
                                p.pack_uint64(2);
                            })),
                  {"the member name \"Id\" twice"});
    expectRefused(wireBytes(goodVersion, goodEnvelope, treeWith("M", [](Packer& p) {
                                p.pack_map(2);
                                packString(p, "k");
                                p.pack_map(0);
                                packString(p, "k");
                                p.pack_map(0);
                            })),
                  {"the member name \"k\" twice"});
}

TEST(WireErrors, BinAndExtValuesAreRefused) {
    expectRefused(wireBytes(goodVersion, goodEnvelope, treeWith("B", [](Packer& p) {
                                p.pack_bin(2);
                                p.pack_bin_body("ab", 2);
                            })),
                  {"a bin value"});
    expectRefused(wireBytes(goodVersion, goodEnvelope, treeWith("E", [](Packer& p) {
                                p.pack_ext(1, 3);
                                p.pack_ext_body("a", 1);
                            })),
                  {"an ext value"});
}

TEST(WireErrors, TrailingBytesAfterTheMessageAreRefused) {
    expectRefused(sampleBytes() + '\xc0', {"1 bytes after the message"});
    expectRefused(sampleBytes() + sampleBytes(), {"bytes after the message"});
}

TEST(WireErrors, GarbageIsRefused) {
    expectRefused(std::string("\xc1", 1), {"malformed MessagePack at byte"});
    expectRefused("hello, world", {"Kest::Net::decode"});
    expectRefused(std::string("\x93\xc1\xc1\xc1", 4), {"malformed MessagePack at byte 1"});
    // Seeded random bytes, and random bytes after a valid beginning: each is
    // refused or read, never anything else.
    std::mt19937_64 random(20240611);
    const std::string head = sampleBytes().substr(0, 12);
    int refused = 0;
    for (int i = 0; i < 2000; ++i) {
        std::string bytes = (i % 2 == 0) ? std::string() : head;
        const int length = static_cast<int>(random() % 64);
        for (int k = 0; k < length; ++k) bytes.push_back(static_cast<char>(random()));
        try {
            decode(bytes);
        } catch (const WireError&) {
            ++refused;
        }
    }
    EXPECT_GT(refused, 1900);
}

// A forwarder notification, type 5, whose "Data" is `data`.
std::string notificationBytes(const KestTest::Piece& data) {
    return wireBytes(goodVersion, goodEnvelope, [data](Packer& p) {
        p.pack_map(5);
        packString(p, "Data");
        data(p);
        packString(p, "Destination");
        p.pack_array(0);
        packString(p, "Id");
        p.pack_uint64(0x0F0D0005);
        packString(p, "Identity");
        packString(p, "n-1");
        packString(p, "Sender");
        p.pack_array(0);
    });
}

void packKey(Packer& p) {
    p.pack_map(3);
    packString(p, "Destination");
    p.pack_array(1);
    packString(p, "svc");
    packString(p, "Id");
    p.pack_uint64(7);
    packString(p, "Sender");
    p.pack_array(0);
}

TEST(WireErrors, RegisteredTypeWithoutItsRequiredFieldIsRefused) {
    const std::string bytes = wireBytes(goodVersion, goodEnvelope, [](Packer& p) {
        p.pack_map(2);
        packString(p, "Id");
        p.pack_uint64(0x0F0D0005);
        packString(p, "Identity");
        packString(p, "n-1");
    });
    expectRefused(bytes, {"lacks \"Data\"", "identifier 252510213 requires"});
}

TEST(WireErrors, RegisteredTypeWhoseRecordFieldCannotHoldTheTreeIsRefused) {
    const KestTest::Piece goodData = [](Packer& p) {
        p.pack_map(3);
        packString(p, "Count");
        p.pack_uint64(1);
        packString(p, "Key");
        packKey(p);
        packString(p, "Rank");
        p.pack_uint64(2);
    };
    EXPECT_NO_THROW(decode(notificationBytes(goodData)));
    // A rank of -1 fits no unsigned field: inside the record it is dropped
    // like a member the record does not know.
    auto dropped = std::dynamic_pointer_cast<const Forwarder::ServiceRankNotification>(
        decode(notificationBytes([](Packer& p) {
            p.pack_map(3);
            packString(p, "Count");
            p.pack_uint64(1);
            packString(p, "Key");
            packKey(p);
            packString(p, "Rank");
            p.pack_fix_int8(-1);
        })));
    ASSERT_TRUE(dropped);
    EXPECT_FALSE(dropped->payload().rank.initialized());
    // "Data" that is not a record: the field cannot read it.
    expectRefused(notificationBytes([](Packer& p) { p.pack_uint64(5); }), {"the tree's member /Data", "can hold"});
    // A key whose address is not an array: the record would keep its default.
    KestTest::CaptureStdout output;
    expectRefused(notificationBytes([](Packer& p) {
                      p.pack_map(1);
                      packString(p, "Key");
                      p.pack_map(1);
                      packString(p, "Sender");
                      p.pack_uint64(5);
                  }),
                  {"the tree's member /Data"});
    EXPECT_NE(output.text().find("Should have gotten an Array"), std::string::npos);
}

class Gauge : public Kest::Msgs::Message {
public:
    Gauge() : Message(Identifier(0x0E00, 1)), level(this, "Level", false) {}
    Kest::MetaData::Reflector<int, false, true> level;
};

TEST(WireErrors, RegisteredTypeWhoseOptionalFieldCannotReadItsMemberIsRefused) {
    Kest::Net::MessageTypes::add<Gauge>(Identifier(0x0E00, 1));
    const auto gauge = [](const KestTest::Piece& level) {
        return wireBytes(goodVersion, goodEnvelope, [level](Packer& p) {
            p.pack_map(3);
            packString(p, "Id");
            p.pack_uint64(0x0E000001);
            packString(p, "Identity");
            packString(p, "g-1");
            packString(p, "Level");
            level(p);
        });
    };
    auto received = std::dynamic_pointer_cast<const Gauge>(decode(gauge([](Packer& p) { p.pack_fix_int8(-7); })));
    ASSERT_TRUE(received);
    EXPECT_EQ(received->level(), -7);
    expectRefused(gauge([](Packer& p) { packString(p, "high"); }), {"the tree's member /Level", "can hold"});
    expectRefused(gauge([](Packer& p) { p.pack_uint64(1ull << 40); }), {"/Level"});
}

TEST(WireErrors, RegisteredTypeTakesNumbersOfAnotherKindAndDropsMembersItDoesNotKnow) {
    // A signed 2 for the unsigned rank, and a member the record does not have.
    const std::string bytes = notificationBytes([](Packer& p) {
        p.pack_map(4);
        packString(p, "Count");
        p.pack_uint64(1);
        packString(p, "Key");
        packKey(p);
        packString(p, "Later");
        p.pack_true();
        packString(p, "Rank");
        p.pack_fix_int8(2);
    });
    auto received = std::dynamic_pointer_cast<const Forwarder::ServiceRankNotification>(decode(bytes));
    ASSERT_TRUE(received);
    EXPECT_EQ(received->payload().rank(), 2ul);
    const Element tree = KestTest::treeOf(*received);
    EXPECT_FALSE(Kest::MetaData::HasElement(tree["Data"], "Later"));
}

TEST(WireErrors, EncodeRefusesAMessageWithoutIdentity) {
    // Reading a tree without "Identity" leaves the field unset.
    Message message(Identifier(1, 1));
    Element tree;
    tree["Id"] = Element(1ul);
    message.copyFromMetaData(tree);
    ASSERT_FALSE(message.identity.initialized());
    try {
        encode(message);
        ADD_FAILURE() << "encoded a message without identity";
    } catch (const WireError& error) {
        EXPECT_NE(std::string(error.what()).find("no identity"), std::string::npos) << error.what();
    }
}

TEST(WireErrors, EncodeRefusesAMessageWithoutIdentifier) {
    Message message(Identifier(1, 1));
    Element tree;
    tree["Identity"] = Element("i");
    message.copyFromMetaData(tree);
    try {
        encode(message);
        ADD_FAILURE() << "encoded a message without identifier";
    } catch (const WireError& error) {
        EXPECT_NE(std::string(error.what()).find("no identifier"), std::string::npos) << error.what();
    }
}

class Unidentified : public Message {
public:
    Unidentified() : Message(Identifier(1, 2)) {
        Element tree;
        tree["Id"] = Element(2ul);
        copyFromMetaData(tree);  // leaves the identity unset
    }
};

TEST(WireErrors, EncodeRefusesAnyTypeOfMessageWithoutIdentity) {
    EXPECT_THROW(encode(Unidentified()), WireError);
}

TEST(WireErrors, EncodeRefusesAScopeOutsideTheThreeKinds) {
    Envelope envelope;
    envelope.scope = static_cast<Kest::Net::Scope>(7);
    EXPECT_THROW(encode(Message(Identifier(1, 1)), envelope), WireError);
}

TEST(WireErrors, ErrorsSayWhereInTheInput) {
    const std::string bytes = envelopeWith(3, [](Packer& p) { p.pack_uint64(9); });
    try {
        decode(bytes);
        FAIL() << "not refused";
    } catch (const WireError& error) {
        const std::string what = error.what();
        // 0x93, then the version 0x92 0x01 0x00, the envelope's header 0x95,
        // "origin" in 7 bytes, the epoch and hop count in one byte each: the
        // scope is byte 14.
        EXPECT_NE(what.find("a scope of 9 (expected 1, 2 or 3) at byte 14"), std::string::npos) << what;
    }
}

}  // namespace
