#include "device/walk_errors.h"

#include <algorithm>
#include <array>

namespace qm {

void passOverOrThrow(const std::error_code& error) {
    constexpr std::array kPassedOver{
        std::errc::permission_denied, std::errc::operation_not_permitted,       std::errc::no_such_file_or_directory,
        std::errc::not_a_directory,   std::errc::too_many_symbolic_link_levels, std::errc::cross_device_link,
        std::errc::filename_too_long};
    const auto isIt = [&error](std::errc known) { return error == known; };
    if (std::any_of(kPassedOver.begin(), kPassedOver.end(), isIt)) return;
    throw std::system_error(error, "cannot read a directory of the workspace");
}

}  // namespace qm
