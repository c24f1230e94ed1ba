// The message model when memory runs out: Identifier, MessageKey, Message and
// its constructors, PayloadMessage, the four notifications, the records
// MessageKeyData and ServiceData, and the reflector fields.
//
// Constructors make nothing when they fail; assignments of keys, records and
// fields give the strong guarantee; reading a record from a tree stops
// between two fields (each field whole, the earlier ones read); writing one
// into a tree stops at a field (the record unchanged).

#include "AllocHarness.h"
#include "Describe.h"
#include "RecordChecks.h"

#include <kest/metadata/Element.h>
#include <kest/model/ForwarderNotifications.h>
#include <kest/model/Identifier.h>
#include <kest/model/Message.h>
#include <kest/model/MessageKey.h>
#include <kest/model/MessageKeyData.h>
#include <kest/model/PayloadMessage.h>
#include <kest/model/Reflector.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

using namespace KestAlloc;
using Kest::MetaData::Element;
using Kest::MetaData::MetaDataException;
using Kest::Msgs::Identifier;
using Kest::Msgs::Message;
using Kest::Msgs::MessageKey;
using Kest::Msgs::ReflectedAddress;
using Kest::Msgs::Structs::MessageKeyData;
namespace Fwd = Kest::Msgs::Communications::Forwarder;
template <class T>
using Field = Kest::MetaData::Reflector<T, std::is_base_of_v<Kest::MetaData::MirroredObject, T>, true>;
using Address = std::vector<std::string>;

namespace {

const std::string kLong = "a text well beyond the inline buffer of a std::string";
const std::string kLongName = "a-field-name-beyond-the-inline-buffer";
const Address kSender = {"plant", kLong, "press"};
const Address kDestination = {kLong, "line"};
const Address kOtherAddress = {kLong + "-other", "x", kLong};
const Identifier kId(0x0100, 7);

// ---- Identifier and MessageKey -------------------------------------------

struct Keys {
    Address sender = kSender;
    Address destination = kDestination;
    std::shared_ptr<Message> message = std::make_shared<Message>(kId, kSender, kDestination);
    MessageKey key{kId, kSender, {}, MessageKey::HasherWithSender()};
    MessageKey other{static_cast<unsigned long>(kId) + 1, kOtherAddress, kDestination, {}};
    std::optional<MessageKey> made;
    std::unordered_set<MessageKey, MessageKey::Hasher> candidates;
    Identifier identifier{kId};
    Element tree;
    unsigned long number = 0;
    std::string thrown;
};

std::string describeKeys(Keys& s) {
    std::vector<std::string> candidates;
    for (const MessageKey& k : s.candidates) candidates.push_back(describe(k));
    std::sort(candidates.begin(), candidates.end());
    std::string text = describe(s.key) + " " + describe(s.other) + " made " + (s.made ? describe(*s.made) : "-") +
                       " candidates";
    for (const std::string& c : candidates) text += " " + c;
    return text + " identifier " + std::to_string(static_cast<unsigned long>(s.identifier)) + " tree " +
           describe(s.tree) + " number " + std::to_string(s.number) + " thrown " + s.thrown;
}

std::shared_ptr<Keys> keys() { return std::make_shared<Keys>(); }

// ---- Messages ------------------------------------------------------------

using Reading = Kest::Msgs::PayloadMessage<0x0100, 2, MessageKeyData>;

struct Messages {
    Address sender = kSender;
    Address destination = kDestination;
    MessageKeyData payload{kId, kSender, kDestination};
    Fwd::ServiceData serviceData{MessageKey(kId, {}, kDestination, {}), 1, 5};
    std::optional<Message> message;
    std::optional<Reading> reading;
    std::optional<Fwd::ServiceRankNotification> rank;
    std::optional<Fwd::ServiceChangeNotification> change;
    std::optional<Fwd::SubscriptionAddedNotification> added;
    std::optional<Fwd::SubscriptionRemovedNotification> removed;
    std::string text;
    unsigned long number = 0;
};

// Messages are described without their identity: each one made has a fresh one.
std::string describeMessages(Messages& s) {
    const auto one = [](const auto& m) { return m ? describeRecord(*m, "Identity") : std::string("-"); };
    return one(s.message) + one(s.reading) + one(s.rank) + one(s.change) + one(s.added) + one(s.removed) + " " +
           s.text + " " + std::to_string(s.number);
}

std::shared_ptr<Messages> messages() { return std::make_shared<Messages>(); }

template <class Op>
void constructs(const std::string& name, Op op) {
    coverStrong<Messages>(name, messages, op, describeMessages);
}

// A message to read and the tree of another one to read it from; both have
// fixed identities, so that runs compare.
template <class M>
struct ReadMessage {
    std::unique_ptr<M> target;
    Element tree;
    Element written;
};

template <class M, class MakeTarget, class MakeSource>
std::shared_ptr<ReadMessage<M>> readMessage(MakeTarget makeTarget, MakeSource makeSource) {
    auto s = std::make_shared<ReadMessage<M>>();
    s->target = makeTarget();
    s->target->identity.assign(kLong + "-target");
    auto source = makeSource();
    source->identity.assign(kLong + "-source");
    source->copyToMetaData(s->tree);
    return s;
}

// ---- Records -------------------------------------------------------------

struct Records {
    MessageKeyData key{kId, kSender, kDestination};
    MessageKeyData otherKey{Identifier(9), kOtherAddress, {}};
    MessageKeyData unsetKey;  // identifier unset (and required), addresses unset
    Fwd::ServiceData data{MessageKey(kId, {}, kDestination, {}), 1, 5};
    Fwd::ServiceData otherData{MessageKey(Identifier(9), kOtherAddress, kOtherAddress, {}), 1, 2};
    std::optional<MessageKeyData> madeKey;
    std::optional<Fwd::ServiceData> madeData;
    MessageKey messageKey{kId, kOtherAddress, kDestination, {}};
    Element tree;
    Element otherTree;
};

std::string describeRecords(Records& s) {
    return describeRecord(s.key) + describeRecord(s.otherKey) + describeRecord(s.unsetKey) + describeRecord(s.data) +
           describeRecord(s.otherData) + (s.madeKey ? describeRecord(*s.madeKey) : "-") +
           (s.madeData ? describeRecord(*s.madeData) : "-") + " tree " + describe(s.tree);
}

std::shared_ptr<Records> records() {
    auto s = std::make_shared<Records>();
    s->otherKey.copyToMetaData(s->otherTree);
    return s;
}

// ---- Fields --------------------------------------------------------------

// A record with a field of every kind the library uses.
class Fields : public Kest::MetaData::MirroredObject {
public:
    Fields() = default;
    Fields(const Fields& other)
        : MirroredObject(other),
          number(this, other.number),
          text(this, other.text),
          id(this, other.id),
          key(this, other.key),
          address(this, other.address),
          list(this, other.list) {}

    Field<unsigned long> number{this, kLongName, false};
    Field<std::string> text{this, "text", true};
    Field<Identifier> id{this, "id", false};
    Field<MessageKeyData> key{this, "key", true};
    ReflectedAddress address{this, "address"};
    Kest::MetaData::ReflectorArray<std::string> list{this, "list", false, true};
};

void fill(Fields& f, unsigned long n, const Address& address) {
    f.number.assign(n);
    f.text.assign(kLong + std::to_string(n));
    f.id.assign(Identifier(n));
    f.key.assign(MessageKeyData(Identifier(n), address, address));
    f.address.assign(address);
    f.list.assign(address);
}

struct FieldState {
    Fields one;
    Fields two;
    // Fields of no record, with names and values of their own.
    Field<unsigned long> looseNumber{nullptr, kLongName + "-loose", true};
    Field<std::string> looseText{nullptr, kLongName + "-text", false};
    ReflectedAddress looseAddress{nullptr, kLongName + "-address", true};
    Field<MessageKeyData> looseKey{nullptr, kLongName + "-key", false};
    Field<Fwd::ServiceData> data{nullptr, "Data", true};
    Field<Fwd::ServiceData> looseData{nullptr, kLongName + "-data", false};
    std::optional<Field<unsigned long>> madeNumber;
    std::optional<Field<std::string>> madeText;
    std::optional<ReflectedAddress> madeAddress;
    Address copied;
    Field<unsigned long> unsetNumber{nullptr, kLongName + "-unset", true};
    Element tree;       // one's fields written
    Element written;    // empty, for writing into
    Element wrong;      // every name holding the wrong kind
    Element corrupt;    // address and list holding a number among strings
    std::string name = kLongName + "-made";
    std::string value = kLong + "-value";
    Address values = kOtherAddress;
    std::string thrown;
    unsigned long number = 0;
};

std::string describeFieldState(FieldState& s) {
    std::string text = describeRecord(s.one) + describeRecord(s.two) + describeField(s.looseNumber) +
                       describeField(s.looseText) + describeField(s.looseAddress) + describeField(s.looseKey) +
                       describeField(s.data) + describeField(s.looseData);
    text += s.madeNumber ? describeField(*s.madeNumber) : "-";
    text += s.madeText ? describeField(*s.madeText) : "-";
    text += s.madeAddress ? describeField(*s.madeAddress) : "-";
    return text + " copied " + describe(s.copied) + " tree " + describe(s.tree) + " thrown " + s.thrown +
           " number " + std::to_string(s.number) + " output " + output();
}

std::shared_ptr<FieldState> fieldState() {
    auto s = std::make_shared<FieldState>();
    fill(s->one, 1, kSender);
    fill(s->two, 2, kOtherAddress);
    s->looseNumber.assign(3);
    s->looseText.assign(kLong + "-loose");
    s->looseAddress.assign(kDestination);
    s->data.assign(Fwd::ServiceData(MessageKey(kId, kSender, kDestination, {}), 1, 4));
    s->one.copyToMetaData(s->tree);
    s->one.forEachField([&s](const Kest::MetaData::ReflectorBase& f) { s->wrong[f.name()] = Element(true); });
    s->corrupt = s->tree;
    for (const char* name : {"address", "list"}) {
        static_cast<Kest::MetaData::Array&>(s->corrupt[name]).push_back(Element(5ul));
    }
    return s;
}

template <class Op>
void field(const std::string& name, Op op) {
    coverStrong<FieldState>(name, fieldState, op, describeFieldState);
}

// A field read from a tree with each allocation failing. A read never
// throws: after a failure the state is what `fallBack` makes of a fresh one
// (a scalar field reset; an array field unchanged, its line printed), and
// the read made again reads the tree.
template <class Op, class FallBack>
void fieldRead(const std::string& name, Op op, FallBack fallBack) {
    struct Reference {
        bool known = false;
        std::string failed;
        std::string after;
    };
    auto reference = std::make_shared<Reference>();
    auto setup = [op, fallBack, reference] {
        if (!reference->known) {
            auto model = fieldState();
            Output::instance().clear();
            fallBack(*model);
            reference->failed = describeFieldState(*model);
            model = fieldState();
            Output::instance().clear();
            op(*model);
            reference->after = describeFieldState(*model);
            reference->known = true;
        }
        return fieldState();
    };
    Options options;
    options.mayAbsorb = true;  // it must, in fact: checked below
    cover<FieldState>(
        name, setup, op,
        [op, reference](FieldState& s, std::size_t, bool threw) {
            check(!threw, "std::bad_alloc left a read from a tree");
            checkEqual(describeFieldState(s), reference->failed, "the field did not fall back as on a failed read");
            Output::instance().clear();
            op(s);
            checkEqual(describeFieldState(s), reference->after, "the read made after the failure did not read the tree");
        },
        [reference](FieldState& s) {
            checkEqual(describeFieldState(s), reference->after, "the result differs from a run without failures");
        },
        options);
}

void printArrayCorrupt(const std::string& name) { std::cout << arrayCorruptLine(name) << std::flush; }

template <class Op>
void noFieldAllocation(const std::string& name, Op op) {
    coverNoAllocation<FieldState>(name, fieldState, op);
}

}  // namespace

class ModelAllocation : public AllocTest {};

TEST_F(ModelAllocation, IdentifierAllocatesNothing) {
    coverNoAllocation<Keys>("Identifier constructors, conversions, category, type", keys, [](Keys& s) {
        s.identifier = Identifier(0x00020003ul);
        s.identifier = Identifier(std::uint16_t{4}, std::uint16_t{5});
        s.number = s.identifier.category() + s.identifier.type() + static_cast<unsigned long>(s.identifier);
    });
    coverNoAllocation<Keys>("Identifier::copyToMetaData", keys, [](Keys& s) { s.identifier.copyToMetaData(s.tree); });
    coverNoAllocation<Keys>("Identifier::copyFromMetaData", [] {
        auto s = keys();
        s->tree = Element(0x00050006ul);
        return s;
    }, [](Keys& s) { s.identifier.copyFromMetaData(s.tree); });
    // The error's text allocates: std::bad_alloc instead, the identifier unchanged.
    coverStrong<Keys>("Identifier::copyFromMetaData of a string", [] {
        auto s = keys();
        s->tree = Element(kLong);
        return s;
    }, [](Keys& s) {
        try {
            s.identifier.copyFromMetaData(s.tree);
        } catch (const MetaDataException&) {
            s.thrown = "MetaDataException";
        }
    }, describeKeys);
}

TEST_F(ModelAllocation, MessageKeysAreMadeWholeOrNotAtAll) {
    coverStrong<Keys>("MessageKey(id, sender, destination, hasher)", keys, [](Keys& s) {
        s.made.emplace(static_cast<unsigned long>(kId), s.sender, s.destination, MessageKey::HasherWithSender());
    }, describeKeys);
    coverStrong<Keys>("MessageKey(const Message&, hasher)", keys,
                      [](Keys& s) { s.made.emplace(*s.message, MessageKey::HashFunction()); }, describeKeys);
    coverStrong<Keys>("MessageKey(const MessageKey&)", keys, [](Keys& s) { s.made.emplace(s.key); }, describeKeys);
    // Member by member, a failure could leave a key with the new sender and the old destination.
    coverStrong<Keys>("MessageKey::operator=(const MessageKey&)", keys, [](Keys& s) { s.key = s.other; },
                      describeKeys);
    coverStrong<Keys>("MessageKey::hashMessagesList, sender side", keys, [](Keys& s) {
        s.candidates = MessageKey::hashMessagesList(MessageKey(*s.message, {}), MessageKey::HashingGroup::Sender);
    }, describeKeys);
    coverStrong<Keys>("MessageKey::hashMessagesList, destination side", keys, [](Keys& s) {
        s.candidates = MessageKey::hashMessagesList(s.other, MessageKey::HashingGroup::Destination);
    }, describeKeys);
    coverStrong<Keys>("MessageKey::visitCandidates", keys, [](Keys& s) {
        unsigned long seen = 0;
        MessageKey::visitCandidates(static_cast<unsigned long>(kId), s.sender, MessageKey::HashingGroup::Sender,
                                    [&seen](const MessageKey& candidate) {
                                        seen += candidate.sender().size() + 1;
                                        return true;
                                    });
        s.number = seen;
    }, describeKeys);
}

TEST_F(ModelAllocation, MessageKeyComparisonsHashesAndMovesAllocateNothing) {
    coverNoAllocation<Keys>("MessageKey::operator==, covers, accessors", keys, [](Keys& s) {
        s.number = (s.key == s.other) + s.key.covers(s.other) + s.key.id() + s.key.sender().size() +
                   s.key.destination().size() + static_cast<bool>(s.key.hashFunction());
    });
    coverNoAllocation<Keys>("MessageKey::HasherWithSender, HasherWithDestination, Hasher", keys, [](Keys& s) {
        s.number = MessageKey::HasherWithSender()(s.key) ^ MessageKey::HasherWithDestination()(s.key) ^
                   MessageKey::Hasher()(s.key);
    });
    coverNoAllocation<Keys>("MessageKey(MessageKey&&), operator=(MessageKey&&)", keys, [](Keys& s) {
        s.made.emplace(std::move(s.key));
        s.other = std::move(*s.made);
    });
}

TEST_F(ModelAllocation, MessagesAreMadeWholeOrNotAtAll) {
    constructs("Message(Identifier)", [](Messages& s) { s.message.emplace(kId); });
    constructs("Message(Identifier, sender)", [](Messages& s) { s.message.emplace(kId, s.sender); });
    constructs("Message(Identifier, sender, destination)",
               [](Messages& s) { s.message.emplace(kId, s.sender, s.destination); });
    constructs("PayloadMessage()", [](Messages& s) { s.reading.emplace(); });
    constructs("PayloadMessage(payload, sender)", [](Messages& s) { s.reading.emplace(s.payload, s.sender); });
    constructs("PayloadMessage(payload, sender, destination)",
               [](Messages& s) { s.reading.emplace(s.payload, s.sender, s.destination); });
    constructs("PayloadMessageHelper() (ServiceRankNotification)", [](Messages& s) { s.rank.emplace(); });
    constructs("ServiceRankNotification(ServiceData)", [](Messages& s) { s.rank.emplace(s.serviceData); });
    constructs("ServiceChangeNotification(ServiceData)", [](Messages& s) { s.change.emplace(s.serviceData); });
    constructs("SubscriptionAddedNotification(ServiceData)", [](Messages& s) { s.added.emplace(s.serviceData); });
    constructs("SubscriptionRemovedNotification(ServiceData)",
               [](Messages& s) { s.removed.emplace(s.serviceData); });
    constructs("PayloadMessageHelper(ServiceData, sender, destination)",
               [](Messages& s) { s.rank.emplace(s.serviceData, s.sender, s.destination); });
    coverNoAllocation<Messages>("Message::makeIdentity, Message::id", messages, [](Messages& s) {
        s.text = Message::makeIdentity();
        s.number = static_cast<unsigned long>(Message(kId).id());
    });
    coverNoAllocation<Messages>("PayloadAccessorIf::payload, notificationPayload", [] {
        auto s = messages();
        s->rank.emplace(s->serviceData);
        s->reading.emplace(s->payload, s->sender);
        return s;
    }, [](Messages& s) {
        s.number = s.rank->payload().rank() + s.reading->payload().id() +
                   (Fwd::notificationPayload(*s.rank) != nullptr) + (Fwd::notificationPayload(*s.reading) == nullptr);
    });
}

TEST_F(ModelAllocation, MessagesReadFromATreeNeverThrowAndFallBackFieldByField) {
    using PlainRead = ReadMessage<Message>;
    coverRead<PlainRead>(
        "Message::copyFromMetaData",
        [] {
            return readMessage<Message>([] { return std::make_unique<Message>(Identifier(9), kOtherAddress); },
                                        [] { return std::make_unique<Message>(kId, kSender, kDestination); });
        },
        [](PlainRead& s) { s.target->copyFromMetaData(s.tree); }, [](PlainRead& s) -> Message& { return *s.target; });
    using ReadingRead = ReadMessage<Reading>;
    coverRead<ReadingRead>(
        "PayloadMessage::copyFromMetaData",
        [] {
            return readMessage<Reading>(
                [] { return std::make_unique<Reading>(MessageKeyData(Identifier(9), kOtherAddress, {}), kOtherAddress); },
                [] { return std::make_unique<Reading>(MessageKeyData(kId, kSender, kDestination), kSender, kDestination); });
        },
        [](ReadingRead& s) { s.target->copyFromMetaData(s.tree); }, [](ReadingRead& s) -> Reading& { return *s.target; });
    using NoticeRead = ReadMessage<Fwd::ServiceChangeNotification>;
    coverRead<NoticeRead>(
        "ServiceChangeNotification::copyFromMetaData",
        [] {
            return readMessage<Fwd::ServiceChangeNotification>(
                [] { return std::make_unique<Fwd::ServiceChangeNotification>(); },
                [] {
                    return std::make_unique<Fwd::ServiceChangeNotification>(
                        Fwd::ServiceData(MessageKey(kId, kSender, kDestination, {}), 1, 7), kSender, kDestination);
                });
        },
        [](NoticeRead& s) { s.target->copyFromMetaData(s.tree); },
        [](NoticeRead& s) -> Fwd::ServiceChangeNotification& { return *s.target; });
}

TEST_F(ModelAllocation, MessagesWrittenToATreeStopAtAField) {
    using PlainWrite = ReadMessage<Message>;
    coverWrite<PlainWrite>(
        "Message::copyToMetaData",
        [] {
            return readMessage<Message>([] { return std::make_unique<Message>(kId, kSender, kDestination); },
                                        [] { return std::make_unique<Message>(kId); });
        },
        [](PlainWrite& s) -> Message& { return *s.target; }, [](PlainWrite& s) -> Element& { return s.written; });
    using NoticeWrite = ReadMessage<Fwd::ServiceRankNotification>;
    coverWrite<NoticeWrite>(
        "ServiceRankNotification::copyToMetaData",
        [] {
            return readMessage<Fwd::ServiceRankNotification>(
                [] {
                    return std::make_unique<Fwd::ServiceRankNotification>(
                        Fwd::ServiceData(MessageKey(kId, kSender, kDestination, {}), 1, 7), kSender, kDestination);
                },
                [] { return std::make_unique<Fwd::ServiceRankNotification>(); });
        },
        [](NoticeWrite& s) -> Fwd::ServiceRankNotification& { return *s.target; },
        [](NoticeWrite& s) -> Element& { return s.written; });
}

TEST_F(ModelAllocation, RecordsAreCopiedAndAssignedWholeOrNotAtAll) {
    const auto strongRecords = [](const std::string& name, auto op) {
        coverStrong<Records>(name, records, op, describeRecords);
    };
    strongRecords("MessageKeyData(id, sender, destination)",
                  [](Records& s) { s.madeKey.emplace(kId, kSender, kOtherAddress); });
    strongRecords("MessageKeyData(const MessageKeyData&)", [](Records& s) { s.madeKey.emplace(s.key); });
    strongRecords("MessageKeyData::operator=", [](Records& s) { s.key = s.otherKey; });
    strongRecords("MessageKeyData::operator= from a key with its identifier unset",
                  [](Records& s) { s.key = s.unsetKey; });
    strongRecords("ServiceData(const MessageKey&, count, rank)",
                  [](Records& s) { s.madeData.emplace(s.messageKey, 1, 3); });
    strongRecords("ServiceData(const ServiceData&)", [](Records& s) { s.madeData.emplace(s.data); });
    strongRecords("ServiceData::operator=", [](Records& s) { s.data = s.otherData; });
    coverNoAllocation<Records>("MessageKeyData(), ServiceData(), swap", records, [](Records& s) {
        s.madeKey.emplace();
        s.madeData.emplace();
        s.key.swap(s.otherKey);
        s.data.swap(s.otherData);
    });
}

TEST_F(ModelAllocation, RecordsReadFallBackAndRecordsWrittenStopAtAField) {
    coverRead<Records>("MessageKeyData::copyFromMetaData", records,
                       [](Records& s) { s.key.copyFromMetaData(s.otherTree); },
                       [](Records& s) -> MessageKeyData& { return s.key; });
    coverRead<Records>("ServiceData::copyFromMetaData", [] {
        auto s = records();
        s->otherTree = Element();
        s->otherData.copyToMetaData(s->otherTree);
        return s;
    }, [](Records& s) { s.data.copyFromMetaData(s.otherTree); }, [](Records& s) -> Fwd::ServiceData& { return s.data; });
    coverWrite<Records>("MessageKeyData::copyToMetaData", records, [](Records& s) -> MessageKeyData& { return s.key; },
                        [](Records& s) -> Element& { return s.tree; });
    coverWrite<Records>("ServiceData::copyToMetaData", records, [](Records& s) -> Fwd::ServiceData& { return s.data; },
                        [](Records& s) -> Element& { return s.tree; });
}

TEST_F(ModelAllocation, FieldsAreMadeAndAssignedWholeOrNotAtAll) {
    field("Reflector(parent, name, required)", [](FieldState& s) { s.madeNumber.emplace(nullptr, s.name, true); });
    field("Reflector(parent, const Reflector&)", [](FieldState& s) { s.madeText.emplace(nullptr, s.one.text); });
    field("ReflectedAddress(parent, name)", [](FieldState& s) { s.madeAddress.emplace(nullptr, s.name); });
    field("ReflectedAddress(parent, const ReflectedAddress&)",
          [](FieldState& s) { s.madeAddress.emplace(nullptr, s.one.address); });
    field("Reflector<unsigned long>::operator=", [](FieldState& s) { s.looseNumber = s.one.number; });
    field("Reflector<std::string>::operator=", [](FieldState& s) { s.looseText = s.one.text; });
    field("Reflector<Identifier>::operator=", [](FieldState& s) { s.one.id = s.two.id; });
    field("Reflector<MessageKeyData>::operator=", [](FieldState& s) { s.one.key = s.two.key; });
    // Fields of another name: the name is copied too.
    field("Reflector<MessageKeyData>::operator= from a field of another name",
          [](FieldState& s) { s.looseKey = s.one.key; });
    field("Reflector<ServiceData>::operator= from a field of another name",
          [](FieldState& s) { s.looseData = s.data; });
    field("ReflectedAddress::operator=", [](FieldState& s) { s.looseAddress = s.one.address; });
    field("ReflectorArray::operator=", [](FieldState& s) { s.one.list = s.two.list; });
    field("Reflector<std::string>::assign(const T&)", [](FieldState& s) { s.one.text.assign(s.value); });
    field("Reflector<MessageKeyData>::assign(const T&)", [](FieldState& s) { s.one.key.assign(s.two.key()); });
    field("ReflectorArray::assign(const std::vector&)", [](FieldState& s) { s.one.address.assign(s.values); });
    field("ReflectedAddress::operator()", [](FieldState& s) { s.copied = s.one.address(); });
    field("Reflector::operator() of an unset field", [](FieldState& s) {
        try {
            (void)s.unsetNumber();
        } catch (const MetaDataException&) {
            s.thrown = "MetaDataException";
        }
    });
    noFieldAllocation("Reflector::assign(const T&) of a number, reset, operator(), values, option, swap",
                      [](FieldState& s) {
                          s.one.number.assign(9);
                          s.two.text.reset();
                          s.two.key.reset();
                          s.number = s.one.number() + s.one.id() + s.one.address.values().size() + s.one.list.option();
                          s.one.text.swap(s.two.text);
                          s.one.key.swap(s.two.key);
                          s.one.address.swap(s.two.address);
                      });
}

TEST_F(ModelAllocation, FieldsReadFromATreeFallBackWhenMemoryRunsOut) {
    // A read that runs out of memory is a failed read: a scalar field is
    // reset, an array field keeps its value and prints its line. Reading a
    // field of the wrong kind resets it whether or not the error's text could
    // be built.
    fieldRead("Reflector<unsigned long>::copyFromMetaData of the wrong kind",
              [](FieldState& s) { s.one.number.copyFromMetaData(s.wrong); }, [](FieldState& s) { s.one.number.reset(); });
    fieldRead("Reflector<std::string>::copyFromMetaData", [](FieldState& s) { s.two.text.copyFromMetaData(s.tree); },
              [](FieldState& s) { s.two.text.reset(); });
    fieldRead("Reflector<std::string>::copyFromMetaData of the wrong kind",
              [](FieldState& s) { s.one.text.copyFromMetaData(s.wrong); }, [](FieldState& s) { s.one.text.reset(); });
    fieldRead("Reflector<Identifier>::copyFromMetaData", [](FieldState& s) { s.two.id.copyFromMetaData(s.tree); },
              [](FieldState& s) { s.two.id.reset(); });
    fieldRead("ReflectedAddress::copyFromMetaData", [](FieldState& s) { s.two.address.copyFromMetaData(s.tree); },
              [](FieldState&) { printArrayCorrupt("address"); });
    fieldRead("ReflectorArray::copyFromMetaData", [](FieldState& s) { s.two.list.copyFromMetaData(s.tree); },
              [](FieldState&) { printArrayCorrupt("list"); });
    // An array holding a number among its strings prints the corrupt line and
    // keeps the field, whether or not memory ran out on the way.
    fieldRead("ReflectedAddress::copyFromMetaData of a corrupt array",
              [](FieldState& s) { s.two.address.copyFromMetaData(s.corrupt); },
              [](FieldState&) { printArrayCorrupt("address"); });
    field("ReflectedAddress::copyFromMetaData of an element that is not an array",
          [](FieldState& s) { s.two.address.copyFromMetaData(s.wrong); });
    coverNoAllocation<FieldState>("Reflector<unsigned long>::copyFromMetaData", fieldState,
                                  [](FieldState& s) { s.two.number.copyFromMetaData(s.tree); });
    // A record field reads its record field by field.
    coverRead<FieldState>("Reflector<MessageKeyData>::copyFromMetaData", fieldState,
                          [](FieldState& s) { s.two.key.copyFromMetaData(s.tree); },
                          [](FieldState& s) -> Fields& { return s.two; });
    coverRead<FieldState>("Fields (a record of every field kind)::copyFromMetaData", fieldState,
                          [](FieldState& s) { s.two.copyFromMetaData(s.tree); },
                          [](FieldState& s) -> Fields& { return s.two; });
    coverWrite<FieldState>("Fields (a record of every field kind)::copyToMetaData", fieldState,
                           [](FieldState& s) -> Fields& { return s.two; },
                           [](FieldState& s) -> Element& { return s.written; });
}
