// SPDX-License-Identifier: MIT
// Real UDP sockets. Packets of one thread are gathered and leave in one system call (segmentation
// offload) when the thread blocks or the batch is full; received packets come in batches and are
// handed out one at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "machine/transport/link.h"

namespace machine {

class PacketCapture;
class Scheduler;

class UdpLink : public Link {
public:
    // Binds to an ephemeral port of the given local IPv4 address ("0.0.0.0": any). Throws
    // std::system_error when that fails.
    UdpLink(Scheduler& scheduler, const std::string& local_address);
    ~UdpLink() override;

    // From now on every packet is added there, as one between this address and a server. Before the first
    // packet.
    void capture(std::shared_ptr<PacketCapture> capture, const formats::ServerRecord& own_address);
    LinkCounters counters() const;
    // The UDP port that answers come to.
    std::uint16_t port() const;

    void send(const formats::ServerRecord& to, std::span<const std::uint8_t> header,
              std::span<const std::uint8_t> data) override;
    std::uint32_t receive(void** packet) override;
    void release(void* packet) override;

private:
    struct Parts;
    std::unique_ptr<Parts> parts_;
};

}  // namespace machine
