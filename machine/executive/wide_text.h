// SPDX-License-Identifier: MIT
// The kernel's counted wide strings and this side's string types.
#pragma once

#include <string>

#include <nt.h>

namespace machine {

std::u16string text_of(const UNICODE_STRING& string);
std::u16string text_of(PCWSTR string);

// Names are compared without regard to case.
std::u16string folded(std::u16string name);

// For messages: characters beyond ASCII become UTF-8.
std::string narrow(const std::u16string& text);
std::u16string widened(const std::string& ascii);
void append_utf8(std::string& text, char32_t character);

}  // namespace machine
