// SPDX-License-Identifier: MIT
#include "boot/screen.h"

#include "boot/pc.h"

namespace boot {

void print(const char* text)
{
    for (; *text != 0; ++text) {
        if (*text == '\n')
            put_char('\r');
        put_char(*text);
    }
}

void print_number(std::uint32_t number)
{
    char digits[11];
    unsigned at = sizeof digits - 1;
    digits[at] = 0;
    do {
        digits[--at] = static_cast<char>('0' + number % 10);
        number /= 10;
    } while (number != 0);
    print(digits + at);
}

void print_ip(const std::uint8_t (&ip)[4])
{
    for (unsigned i = 0; i < 4; ++i) {
        if (i != 0)
            put_char('.');
        print_number(ip[i]);
    }
}

void print_hardware(const std::uint8_t (&address)[6])
{
    constexpr char digits[] = "0123456789abcdef";
    for (unsigned i = 0; i < 6; ++i) {
        if (i != 0)
            put_char(':');
        put_char(digits[address[i] >> 4]);
        put_char(digits[address[i] & 15]);
    }
}

void print_place(const std::uint8_t (&ip)[4], std::uint16_t port)
{
    print_ip(ip);
    put_char(':');
    print_number(port);
}

}  // namespace boot
