// SPDX-License-Identifier: MIT
#include "programs/version.h"

namespace programs {

std::string version_line(const std::string& program)
{
    return program + " " QRN_VERSION;
}

}  // namespace programs
