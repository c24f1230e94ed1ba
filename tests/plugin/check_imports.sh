#!/usr/bin/env bash
# Checks what the plug-in imports from the framework's two libraries.
#
#   check_imports.sh <libKestMessageDispatcher> [--schedule-perturbation]
#
# The plug-in must load into a framework whose libKestCore and libKestMessages
# were built apart from ours, so every symbol it leaves undefined in the Kest
# namespaces must be one that those libraries promise to provide: the message
# model (messages, identifiers, keys, the two interfaces with their type-name
# constants, the forwarder records), the reflective metadata model, and the
# component interfaces. Anything else the plug-in needs of ours (the component
# bases, helpers of the message model) it must build into itself.
#
# Lists every undefined dynamic symbol (`nm -D --undefined-only`), demangles
# it, and fails on each one that names anything in the Kest namespaces and is
# not in ALLOWED below (written with std::string and std::vector<std::string>
# spelled short, [abi:cxx11] tags dropped). With --schedule-perturbation (a
# test-only build) the schedule point of the lock guard is allowed too.
# Prints every offending symbol and exits 1 on any failure.

set -u

if [ $# -lt 1 ] || [ $# -gt 2 ]; then
    echo "usage: $0 <libKestMessageDispatcher> [--schedule-perturbation]" >&2
    exit 2
fi
plugin=$1
perturbation=0
if [ $# -eq 2 ]; then
    case $2 in
        --schedule-perturbation) perturbation=1 ;;
        *) echo "unknown option: $2" >&2; exit 2 ;;
    esac
fi

S='std::string'
V='std::vector<std::string>'
MessageList='std::list<std::shared_ptr<Kest::Msgs::Message const>>'
QueuePtr='std::shared_ptr<Kest::Msgs::MessageQueueInterface>'

# The vtable, VTT and type information of a class the framework provides.
class_data() {
    local c
    for c in "$@"; do
        printf '%s\n' "vtable for $c" "VTT for $c" "typeinfo for $c" "typeinfo name for $c"
    done
}

ALLOWED=$(
    # ---- libKestMessages: the message model ----------------------------------
    class_data Kest::Msgs::Message \
        Kest::Msgs::MessageDispatcherInterface \
        Kest::Msgs::MessageQueueInterface \
        Kest::Msgs::FixedDepthMessageQueueInterface \
        Kest::Msgs::CallbackMessageQueueInterface \
        Kest::Msgs::ReflectedAddress \
        Kest::Msgs::Communications::CommunicationsMessage \
        Kest::Msgs::Communications::Forwarder::Base \
        Kest::Msgs::Communications::Forwarder::ServiceData \
        Kest::Msgs::Structs::MessageKeyData \
        "Kest::MetaData::ReflectorArray<$S>" \
        "Kest::MetaData::ReflectorNoWriteParend<unsigned long, true>" \
        "Kest::MetaData::Reflector<unsigned long, false, true>" \
        "Kest::MetaData::ReflectorNoWriteParend<Kest::Msgs::Identifier, true>" \
        "Kest::MetaData::Reflector<Kest::Msgs::Identifier, false, true>" \
        "Kest::MetaData::ReflectorNoWriteParend<Kest::Msgs::Structs::MessageKeyData, true>" \
        "Kest::MetaData::Reflector<Kest::Msgs::Structs::MessageKeyData, true, true>" \
        "Kest::MetaData::ReflectorNoWriteParend<Kest::Msgs::Communications::Forwarder::ServiceData, true>" \
        "Kest::MetaData::Reflector<Kest::Msgs::Communications::Forwarder::ServiceData, true, true>"
    for n in 5 6 9 10; do
        class_data "Kest::Msgs::PayloadMessageHelper<Kest::Msgs::Communications::Forwarder::Base, Kest::Msgs::Communications::Forwarder::ServiceData, (unsigned short)$n>"
    done
    cat <<EOF
Kest::Msgs::Message::~Message()
Kest::Msgs::Message::id() const
Kest::Msgs::Identifier::copyToMetaData(Kest::MetaData::Element&) const
Kest::Msgs::Identifier::copyFromMetaData(Kest::MetaData::Element const&)
Kest::Msgs::ReflectedAddress::operator()() const
Kest::Msgs::MessageKey::MessageKey(unsigned long, $V const&, $V const&, std::function<unsigned long (Kest::Msgs::MessageKey const&)>)
Kest::Msgs::MessageKey::MessageKey(Kest::Msgs::Message const&, std::function<unsigned long (Kest::Msgs::MessageKey const&)>)
Kest::Msgs::MessageKey::MessageKey(Kest::Msgs::MessageKey const&)
Kest::Msgs::MessageKey::~MessageKey()
Kest::Msgs::MessageKey::operator=(Kest::Msgs::MessageKey const&)
Kest::Msgs::MessageKey::operator==(Kest::Msgs::MessageKey const&) const
Kest::Msgs::MessageKey::covers(Kest::Msgs::MessageKey const&) const
Kest::Msgs::MessageKey::hashMessagesList(Kest::Msgs::MessageKey const&, Kest::Msgs::MessageKey::HashingGroup)
Kest::Msgs::MessageKey::Hasher::operator()(Kest::Msgs::MessageKey const&) const
Kest::Msgs::MessageKey::HasherWithSender::operator()(Kest::Msgs::MessageKey const&) const
Kest::Msgs::MessageKey::HasherWithDestination::operator()(Kest::Msgs::MessageKey const&) const
Kest::Msgs::MessageDispatcherInterface::MessageDispatcherInterface()
Kest::Msgs::MessageDispatcherInterface::disconnectQueue($QueuePtr)
Kest::Msgs::MessageDispatcherInterface::DispatcherType
Kest::Msgs::MessageDispatcherInterface::QueueType
Kest::Msgs::MessageDispatcherInterface::FixedDepthQueueType
Kest::Msgs::MessageDispatcherInterface::CallbackQueueType
Kest::Msgs::MessageQueueInterface::getMessage()
Kest::Msgs::MessageQueueInterface::takeAllAvailableMessages($MessageList&)
Kest::Msgs::Communications::CommunicationsMessage::~CommunicationsMessage()
Kest::Msgs::Communications::Forwarder::Base::Base(unsigned short, $V const&, $V const&)
Kest::Msgs::Communications::Forwarder::Base::~Base()
Kest::Msgs::Communications::Forwarder::ServiceData::ServiceData()
Kest::Msgs::Communications::Forwarder::ServiceData::ServiceData(Kest::Msgs::MessageKey const&, unsigned long, unsigned long)
Kest::Msgs::Communications::Forwarder::ServiceData::operator=(Kest::Msgs::Communications::Forwarder::ServiceData const&)
Kest::Msgs::Communications::Forwarder::ServiceData::~ServiceData()
Kest::Msgs::Structs::MessageKeyData::MessageKeyData()
Kest::Msgs::Structs::MessageKeyData::MessageKeyData(Kest::Msgs::Identifier const&, $V const&, $V const&)
Kest::Msgs::Structs::MessageKeyData::operator=(Kest::Msgs::Structs::MessageKeyData const&)
Kest::Msgs::Structs::MessageKeyData::~MessageKeyData()
EOF

    # ---- libKestCore: the metadata model and the component interfaces --------
    class_data Kest::MetaData::PartiallySerializableInterface \
        Kest::MetaData::ReflectorBase \
        Kest::MetaData::MirroredObject \
        Kest::ComponentInterface \
        Kest::ComponentFactoryInterface \
        Kest::LifeCycle::PassiveInterface
    cat <<EOF
Kest::MetaData::PartiallySerializableInterface::~PartiallySerializableInterface()
Kest::MetaData::ReflectorBase::ReflectorBase(Kest::MetaData::MirroredObject*, $S, bool)
Kest::MetaData::ReflectorBase::~ReflectorBase()
Kest::MetaData::ReflectorBase::operator=(Kest::MetaData::ReflectorBase const&)
Kest::MetaData::ReflectorBase::init()
Kest::MetaData::ReflectorBase::uninit()
Kest::MetaData::ReflectorBase::initialized() const
Kest::MetaData::ReflectorBase::isRequired() const
Kest::MetaData::ReflectorBase::name() const
Kest::MetaData::ReflectorBase::throwIfUninited($S const&) const
Kest::MetaData::MirroredObject::copyToMetaData(Kest::MetaData::Element&) const
Kest::MetaData::MirroredObject::copyFromMetaData(Kest::MetaData::Element const&)
Kest::MetaData::MirroredObject::operator=(Kest::MetaData::MirroredObject const&)
Kest::MetaData::MirroredObject::~MirroredObject()
Kest::MetaData::Element::operator[]($S const&)
Kest::MetaData::Element::operator[]($S const&) const
Kest::MetaData::Element::operator Kest::MetaData::Array&()
Kest::MetaData::Element::operator Kest::MetaData::Array const&() const
Kest::MetaData::Element::operator Kest::MetaData::Object const&() const
Kest::MetaData::Element::Element(Kest::MetaData::Object const&)
Kest::MetaData::Element::GetElementType() const
Kest::MetaData::Element::~Element()
Kest::MetaData::Array::begin() const
Kest::MetaData::Array::end() const
Kest::MetaData::Array::operator[](unsigned long)
Kest::MetaData::Array::resize(unsigned long)
Kest::MetaData::HasElement(Kest::MetaData::Element const&, $S const&)
void Kest::MetaData::GetAs<unsigned long>(Kest::MetaData::Element const&, unsigned long&)
void Kest::MetaData::GetAs<$S>(Kest::MetaData::Element const&, $S&)
void Kest::MetaData::SetAs<unsigned long>(unsigned long const&, Kest::MetaData::Element&)
void Kest::MetaData::SetAs<$S>($S const&, Kest::MetaData::Element&)
Kest::ComponentFactoryInterface::~ComponentFactoryInterface()
EOF
    if [ $perturbation = 1 ]; then
        echo "Kest::detail::schedulePoint()"
    fi
)

# A demangled name with the standard library's long spellings shortened and
# symbol versions dropped, so that it can be compared with ALLOWED.
normalise() {
    sed -E \
        -e 's/@.*$//' \
        -e 's/\[abi:cxx11\]//g' \
        -e 's/std::__cxx11::basic_string<char, std::char_traits<char>, std::allocator<char> >/std::string/g' \
        -e 's/std::vector<std::string, std::allocator<std::string > >/std::vector<std::string>/g' \
        -e 's/std::string >/std::string>/g' \
        -e 's/std::__cxx11::list<([^,]+), std::allocator<[^>]+> > >/std::list<\1>/g' \
        -e 's/> >/>>/g'
}

for tool in nm c++filt sed; do
    command -v "$tool" >/dev/null || { echo "FAIL: $tool not found"; exit 1; }
done
[ -f "$plugin" ] || { echo "FAIL: no such library: $plugin"; exit 1; }

undefined=$(nm -D --undefined-only "$plugin" | awk '{ print $NF }')
if [ -z "$undefined" ]; then
    echo "FAIL: nm found no undefined symbols in $plugin"
    exit 1
fi

failures=0
checked=0
while IFS= read -r symbol; do
    [ -n "$symbol" ] || continue
    name=$(printf '%s\n' "$symbol" | c++filt | normalise)
    case $name in
        *Kest::*) ;;
        *) continue ;;
    esac
    checked=$((checked + 1))
    if ! grep -qxF -- "$name" <<<"$ALLOWED"; then
        echo "FAIL: imported from the framework but not among its interfaces: $name  [$symbol]"
        failures=$((failures + 1))
    fi
done <<<"$undefined"

if [ $checked -eq 0 ]; then
    echo "FAIL: $plugin imports nothing from the Kest namespaces (wrong library?)"
    exit 1
fi
if [ $failures -ne 0 ]; then
    echo "$failures imported symbol(s) outside the framework's interfaces"
    exit 1
fi
echo "imports: all $checked symbols taken from the framework are among its interfaces"
