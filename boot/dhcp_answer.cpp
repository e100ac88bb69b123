// SPDX-License-Identifier: MIT
#include "boot/dhcp_answer.h"

namespace boot {

namespace {

// Fields of a DHCP packet, by their offsets.
constexpr unsigned own_address = 16, next_server = 20, hardware_address = 28, magic = 236, first_option = 240;
constexpr std::uint8_t magic_cookie[4] = {99, 130, 83, 99};
constexpr std::uint8_t option_pad = 0, option_mask = 1, option_router = 3, option_root_path = 17,
                       option_end = 255;

void take_address(std::uint8_t (&address)[4], const std::uint8_t* from)
{
    if (is_zero(address))
        for (unsigned i = 0; i < 4; ++i)
            address[i] = from[i];
}

// A number at `position`, which moves behind it. False: there is none, or it is above the limit.
bool parse_number(const std::uint8_t* text, unsigned size_bytes, unsigned& position, unsigned limit,
                  unsigned& number)
{
    const unsigned begin = position;
    number = 0;
    for (; position < size_bytes && text[position] >= '0' && text[position] <= '9'; ++position) {
        number = number * 10 + (text[position] - '0');
        if (number > limit)
            return false;
    }
    return position != begin;
}

bool begins_as_ours(const std::uint8_t* text, unsigned size_bytes)
{
    return size_bytes >= 4 && text[0] == 'q' && text[1] == 'r' && text[2] == 'n' && text[3] == ':';
}

}  // namespace

bool parse_root_path(const std::uint8_t* text, unsigned size_bytes, std::uint8_t (&server)[4],
                     std::uint16_t& port)
{
    if (!begins_as_ours(text, size_bytes))
        return false;
    std::uint8_t address[4];
    unsigned position = 4, number = 0;
    for (unsigned i = 0; i < 4; ++i) {
        if (i != 0 && (position >= size_bytes || text[position++] != '.'))
            return false;
        if (!parse_number(text, size_bytes, position, 255, number))
            return false;
        address[i] = static_cast<std::uint8_t>(number);
    }
    unsigned port_number = formats::server_port_default;
    if (position < size_bytes && text[position] == ':') {
        ++position;
        if (!parse_number(text, size_bytes, position, 65535, port_number) || port_number == 0)
            return false;
    }
    // Some DHCP servers end texts with a zero.
    if (position + 1 == size_bytes && text[position] == 0)
        ++position;
    if (position != size_bytes || is_zero(address))
        return false;
    for (unsigned i = 0; i < 4; ++i)
        server[i] = address[i];
    port = static_cast<std::uint16_t>(port_number);
    return true;
}

void take_dhcp_packet(NetworkPlace& place, const std::uint8_t* packet, unsigned size_bytes)
{
    if (size_bytes < first_option)
        return;
    take_address(place.ip, packet + own_address);
    bool hardware_known = false;
    for (const std::uint8_t byte : place.hardware)
        hardware_known = hardware_known || byte != 0;
    for (unsigned i = 0; i < 6 && !hardware_known; ++i)
        place.hardware[i] = packet[hardware_address + i];
    bool has_options = true;
    for (unsigned i = 0; i < 4; ++i)
        has_options = has_options && packet[magic + i] == magic_cookie[i];
    for (unsigned position = first_option; has_options && position < size_bytes;) {
        const std::uint8_t option = packet[position++];
        if (option == option_pad)
            continue;
        if (option == option_end || position >= size_bytes || packet[position] > size_bytes - position - 1)
            break;
        const unsigned length = packet[position++];
        const std::uint8_t* value = packet + position;
        if (option == option_mask && length == 4)
            take_address(place.mask, value);
        else if (option == option_router && length >= 4)
            take_address(place.gateway, value);
        else if (option == option_root_path && place.server_port == 0 && begins_as_ours(value, length))
            place.root_path_wrong = !parse_root_path(value, length, place.server, place.server_port);
        position += length;
    }
    // A port that is set says that the server is from a root path.
    if (place.server_port == 0)
        take_address(place.server, packet + next_server);
}

}  // namespace boot
