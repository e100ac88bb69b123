// SPDX-License-Identifier: MIT
// Packets in a file that network analysers read (pcapng), each as the IPv4 datagram that it is, or would be.
// From any thread.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <mutex>
#include <span>
#include <string>

#include "formats/boot_block.h"
#include "machine/scheduler/scheduler.h"

namespace machine {

class PacketCapture {
public:
    // Throws std::system_error when the file cannot be made.
    explicit PacketCapture(const std::string& path);

    // Of the two records the address and the port count; the time is since 1970.
    void add(Ticks time, const formats::ServerRecord& from, const formats::ServerRecord& to,
             std::span<const std::uint8_t> header, std::span<const std::uint8_t> data = {});
    // Hands what was added to those who read the file. False: not all of it could be written.
    bool flush();

private:
    struct Close {
        void operator()(std::FILE* file) const { std::fclose(file); }
    };

    void put(const void* bytes, std::size_t size);

    std::mutex lock_;
    std::unique_ptr<std::FILE, Close> file_;
    bool failed_ = false;
};

// Now, as add() wants it.
Ticks capture_time();

}  // namespace machine
