// Compiled by check_field_types.py, never linked. Without a case macro it
// uses every supported value type and must compile cleanly; with one of
// FIELD, ARRAY, GET, SET or ELEMENT defined it tries that one unsupported use,
// which must stop the build with a single readable error.

#include <kest/metadata/Element.h>
#include <kest/metadata/MirroredObject.h>
#include <kest/model/Identifier.h>
#include <kest/model/Reflector.h>

#include <string>

namespace {

using Kest::MetaData::Element;
using Kest::MetaData::MirroredObject;
using Kest::MetaData::Reflector;
using Kest::MetaData::ReflectorArray;

#if defined(FIELD) || defined(ARRAY) || defined(GET) || defined(SET) || defined(ELEMENT)

struct Probe : MirroredObject {
#if defined(FIELD)
    Reflector<FIELD, false, true> field{this, "F", false};
#elif defined(ARRAY)
    ReflectorArray<ARRAY> field{this, "F", false};
#endif
};

void use() {
    Element tree;
    Probe probe;
    probe.copyToMetaData(tree);
    probe.copyFromMetaData(tree);
#if defined(GET)
    GET value{};
    Kest::MetaData::GetAs(tree, value);
#elif defined(SET)
    SET value{};
    Kest::MetaData::SetAs(value, tree);
#elif defined(ELEMENT)
    Element element(ELEMENT);
    (void)element;
#endif
}

#else

template <class T>
struct Fields : MirroredObject {
    Reflector<T, false, true> one{this, "One", false};
    ReflectorArray<T> many{this, "Many", false};
};

template <class T>
void use(const T& value) {
    Fields<T> fields;
    fields.one.assign(value);
    fields.many.assign({value, value});
    Element tree;
    fields.copyToMetaData(tree);
    fields.copyFromMetaData(tree);
    T back{};
    Kest::MetaData::SetAs(value, tree);
    Kest::MetaData::GetAs(tree, back);
}

struct Identified : MirroredObject {
    Reflector<Kest::Msgs::Identifier, false, true> id{this, "Id", false};
};

void use() {
    use(1UL);
    use(1U);
    use(1L);
    use(1);
    use(1.0);
    use(1.0F);
    use(true);
    use(std::string("x"));
    Identified identified;
    Element tree;
    identified.copyToMetaData(tree);
    identified.copyFromMetaData(tree);
}

#endif

}  // namespace

int main() {
    use();
    return 0;
}
