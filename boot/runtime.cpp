// SPDX-License-Identifier: MIT
// What the compiler calls without being asked to.
#include <cstddef>

extern "C" {

void* memcpy(void* to, const void* from, std::size_t size)
{
    for (std::size_t i = 0; i < size; ++i)
        static_cast<char*>(to)[i] = static_cast<const char*>(from)[i];
    return to;
}

void* memset(void* to, int value, std::size_t size)
{
    for (std::size_t i = 0; i < size; ++i)
        static_cast<char*>(to)[i] = static_cast<char>(value);
    return to;
}
}
