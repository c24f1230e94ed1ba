#include <kest/internal/DiagnosticLine.h>
#include <kest/model/Reflector.h>

#include <iostream>

namespace Kest::MetaData::detail {

void reportArrayExpected() {
    Kest::detail::DiagnosticLine line;
    std::cout << "Exception MetaDat::ReflectorArray Should have gotten an Array, but didn't"
              << std::endl;
}

void reportArrayCorrupt(const std::string& fieldName) {
    Kest::detail::DiagnosticLine line;
    std::cout << "Exception MetaDat::ReflectorArray MetaData Array corrupt for " << fieldName
              << std::endl;
}

}  // namespace Kest::MetaData::detail

namespace Kest::Msgs {

std::vector<std::string> ReflectedAddress::operator()() const { return values(); }

}  // namespace Kest::Msgs
