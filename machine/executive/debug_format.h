// SPDX-License-Identifier: MIT
// The format of DbgPrint.
#pragma once

#include <cstdarg>
#include <string>

namespace machine {

// %d %i %u %x %X %o %c %C %s %S %p %%, %Z and %wZ for counted strings, with flags, width, precision and
// the sizes h, l, ll, I32, I64, w. %p is eight upper-case digits; a null string reads "(null)"; anything
// else is copied as it stands. At most 512 bytes, like the kernel's buffer.
std::string format_debug_text(const char* format, std::va_list arguments);

}  // namespace machine
