#include <kest/metadata/Element.h>
#include <kest/model/Identifier.h>

namespace Kest::Msgs {

void Identifier::copyToMetaData(MetaData::Element& tree) const {
    MetaData::SetAs<unsigned long>(packed_, tree);
}

void Identifier::copyFromMetaData(const MetaData::Element& tree) {
    unsigned long value = 0;
    MetaData::GetAs<unsigned long>(tree, value);
    packed_ = value;
}

}  // namespace Kest::Msgs
