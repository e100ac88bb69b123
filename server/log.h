// SPDX-License-Identifier: MIT
// What the server tells its administrator. Any thread.
#pragma once

#include "programs/log.h"

namespace server {

using programs::log;
using programs::LogLevel;

}  // namespace server
