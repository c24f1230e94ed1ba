#include <kest/msgs/internal/OwnedLock.h>

#include <string>
#include <system_error>

namespace Kest::Msgs::detail {

void throwReentry(const char* operation, const char* where) {
    throw std::system_error(std::make_error_code(std::errc::resource_deadlock_would_occur),
                            std::string(operation) + ": called from inside " + where);
}

}  // namespace Kest::Msgs::detail
