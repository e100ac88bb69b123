// SPDX-License-Identifier: MIT
#include "server/raw_check.h"

#include <algorithm>
#include <stdexcept>
#include <string_view>
#include <vector>

#include <fmt/format.h>

namespace server {

namespace {

struct Mark {
    std::size_t offset;
    std::string_view bytes;
    const char* format;
    const char* driver;
};

constexpr std::size_t head_bytes = 1024;
constexpr std::size_t tail_bytes = 512;

using namespace std::string_view_literals;
constexpr Mark head_marks[] = {
    {0, "QFI\xfb"sv, "qcow2", "qcow2"},
    {0, "QED\0"sv, "QED", "qed"},
    {0, "KDMV"sv, "VMDK", "vmdk"},
    {0, "COWD"sv, "VMDK", "vmdk"},
    {0, "# Disk DescriptorFile"sv, "VMDK", "vmdk"},
    {0, "conectix"sv, "VHD", "vpc"},
    {0, "vhdxfile"sv, "VHDX", "vhdx"},
    {0x40, "\x7f\x10\xda\xbe"sv, "VDI", "vdi"},
    {0, "WithoutFreeSpace"sv, "Parallels", "parallels"},
    {0, "WithouFreSpacExt"sv, "Parallels", "parallels"},
};
constexpr Mark tail_marks[] = {{0, "conectix"sv, "VHD", "vpc"}, {0, "koly"sv, "DMG", "dmg"}};

const Mark* find(std::span<const Mark> marks, std::span<const std::uint8_t> bytes)
{
    for (const Mark& mark : marks) {
        if (mark.offset + mark.bytes.size() > bytes.size())
            continue;
        const auto there = bytes.subspan(mark.offset, mark.bytes.size());
        if (std::ranges::equal(there, mark.bytes, {}, {},
                               [](char c) { return static_cast<std::uint8_t>(c); }))
            return &mark;
    }
    return nullptr;
}

}  // namespace

void check_raw_disk(BlockStore& disk, const std::string& path)
{
    std::vector<std::uint8_t> head(
        static_cast<std::size_t>(std::min<std::uint64_t>(head_bytes, disk.size_bytes())));
    std::vector<std::uint8_t> tail(tail_bytes);
    if (!disk.read(0, head) || !disk.read(disk.size_bytes() - tail_bytes, tail))
        return;  // told when it is served
    const Mark* mark = find(head_marks, head);
    if (!mark)
        mark = find(tail_marks, tail);
    if (mark)
        throw std::runtime_error(fmt::format(
            "{0}: is no raw disk but {1}; serve it with: qemu-storage-daemon --blockdev "
            "driver={2},node-name=disk,file.driver=file,file.filename={0} --nbd-server "
            "addr.type=unix,addr.path=/run/disk.sock --export "
            "type=nbd,id=disk,node-name=disk,name=disk,writable=on "
            "and give \"nbd+unix:///disk?socket=/run/disk.sock\" as the path in a configuration file",
            path, mark->format, mark->driver));
}

}  // namespace server
