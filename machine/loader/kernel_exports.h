// SPDX-License-Identifier: MIT
// The kernel routines and variables that a driver file may import, by the module that exports them on
// Windows. Nothing else of this program can be bound to.
#pragma once

#include <string>

namespace machine {

// Null when the module does not export the name. Case counts in names of routines, not of modules.
void* kernel_export(const std::string& module, const std::string& name);

}  // namespace machine
