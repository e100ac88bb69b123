// SPDX-License-Identifier: MIT
#include "machine/transport/packet_capture.h"

#include <time.h>

#include <cerrno>
#include <cstring>
#include <system_error>

namespace machine {
namespace {

using formats::ServerRecord;

// Blocks of the file are little-endian, as this processor is, and a multiple of 4 bytes long.
constexpr std::uint32_t section_block = 0x0A0D0D0A, interface_block = 1, packet_block = 6;
constexpr std::uint32_t byte_order = 0x1A2B3C4D;
constexpr std::uint16_t link_type_raw_ip = 101;
constexpr std::uint16_t option_time_resolution = 9;
constexpr std::uint8_t hundred_nanoseconds = 7;  // 10 to the minus 7

constexpr unsigned ip_bytes = 20, udp_bytes = 8;
constexpr std::uint8_t protocol_udp = 17;

struct PacketBlock {
    std::uint32_t type, block_bytes, interface, time_high, time_low, captured_bytes, original_bytes;
};

void put16(std::uint8_t* at, std::size_t value)
{
    at[0] = static_cast<std::uint8_t>(value >> 8);
    at[1] = static_cast<std::uint8_t>(value);
}

std::uint16_t checksum(const std::uint8_t* bytes, unsigned size)
{
    std::uint32_t sum = 0;
    for (unsigned i = 0; i < size; i += 2)
        sum += static_cast<std::uint32_t>(bytes[i] << 8 | bytes[i + 1]);
    sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<std::uint16_t>(~(sum + (sum >> 16)));
}

// UDP without a checksum: 0 means that there is none.
void set_headers(std::uint8_t (&headers)[ip_bytes + udp_bytes], const ServerRecord& from,
                 const ServerRecord& to, std::size_t payload_bytes)
{
    std::memset(headers, 0, sizeof headers);
    headers[0] = 0x45;
    put16(headers + 2, sizeof headers + payload_bytes);
    headers[8] = 64;
    headers[9] = protocol_udp;
    std::memcpy(headers + 12, from.Ip, sizeof from.Ip);
    std::memcpy(headers + 16, to.Ip, sizeof to.Ip);
    put16(headers + 10, checksum(headers, ip_bytes));
    put16(headers + ip_bytes, from.Port.get());
    put16(headers + ip_bytes + 2, to.Port.get());
    put16(headers + ip_bytes + 4, udp_bytes + payload_bytes);
}

}  // namespace

PacketCapture::PacketCapture(const std::string& path) : file_(std::fopen(path.c_str(), "wbe"))
{
    if (!file_)
        throw std::system_error(errno, std::generic_category(), path);
    const struct {
        std::uint32_t type = section_block, block_bytes = 28, magic = byte_order;
        std::uint16_t major = 1, minor = 0;
        std::uint32_t section_bytes[2] = {UINT32_MAX, UINT32_MAX};  // not told
        std::uint32_t end = 28;
    } section;
    const struct {
        std::uint32_t type = interface_block, block_bytes = 32;
        std::uint16_t link_type = link_type_raw_ip, reserved = 0;
        std::uint32_t packet_bytes_max = 0;
        std::uint16_t option = option_time_resolution, option_bytes = 1;
        std::uint8_t resolution = hundred_nanoseconds, padding[3] = {};
        std::uint32_t end_of_options = 0, end = 32;
    } interface;
    static_assert(sizeof section == 28 && sizeof interface == 32 && sizeof(PacketBlock) == 28);
    put(&section, sizeof section);
    put(&interface, sizeof interface);
    if (!flush())
        throw std::system_error(ENOSPC, std::generic_category(), path);
}

void PacketCapture::put(const void* bytes, std::size_t size)
{
    failed_ = failed_ || std::fwrite(bytes, 1, size, file_.get()) != size;
}

void PacketCapture::add(Ticks time, const ServerRecord& from, const ServerRecord& to,
                        std::span<const std::uint8_t> header, std::span<const std::uint8_t> data)
{
    std::uint8_t headers[ip_bytes + udp_bytes];
    set_headers(headers, from, to, header.size() + data.size());
    const std::size_t packet_bytes = sizeof headers + header.size() + data.size();
    const std::size_t padded_bytes = (packet_bytes + 3) / 4 * 4;
    const auto units = static_cast<std::uint64_t>(time);
    const PacketBlock block{packet_block,
                            static_cast<std::uint32_t>(sizeof(PacketBlock) + padded_bytes + 4),
                            0,
                            static_cast<std::uint32_t>(units >> 32),
                            static_cast<std::uint32_t>(units),
                            static_cast<std::uint32_t>(packet_bytes),
                            static_cast<std::uint32_t>(packet_bytes)};
    const std::lock_guard lock(lock_);
    put(&block, sizeof block);
    put(headers, sizeof headers);
    put(header.data(), header.size());
    put(data.data(), data.size());
    put("\0\0\0", padded_bytes - packet_bytes);
    put(&block.block_bytes, sizeof block.block_bytes);
}

bool PacketCapture::flush()
{
    const std::lock_guard lock(lock_);
    return std::fflush(file_.get()) == 0 && !failed_;
}

Ticks capture_time()
{
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return Ticks{now.tv_sec} * ticks_per_second + now.tv_nsec / 100;
}

}  // namespace machine
