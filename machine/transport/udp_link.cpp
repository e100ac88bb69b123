// SPDX-License-Identifier: MIT
#include "machine/transport/udp_link.h"

#include <arpa/inet.h>

#include <cstring>

#include <nt.h>

#include "machine/scheduler/scheduler.h"
#include "machine/transport/packet_capture.h"
#include "machine/transport/udp_receiver.h"
#include "machine/transport/udp_sender.h"
#include "machine/transport/udp_socket.h"

namespace machine {
namespace {

// How long the receiving thread stays in the system when nothing arrives. In between it calls the
// kernel, where the threads of a machine that was switched off stay.
constexpr std::chrono::milliseconds receive_timeout{20};

formats::ServerRecord record_of(const sockaddr_in& address)
{
    formats::ServerRecord record{};
    std::memcpy(record.Ip, &address.sin_addr, sizeof record.Ip);
    record.Port.set(ntohs(address.sin_port));
    return record;
}

}  // namespace

struct UdpLink::Parts {
    Parts(Scheduler& scheduler, const std::string& local_address)
        : socket(std::make_shared<UdpSocket>(local_address, receive_timeout)),
          sender(std::make_shared<UdpSender>(socket)),
          receiver(std::make_shared<UdpReceiver>(scheduler, socket))
    {
    }

    std::shared_ptr<UdpSocket> socket;
    std::shared_ptr<UdpSender> sender;
    std::shared_ptr<UdpReceiver> receiver;
    std::shared_ptr<PacketCapture> capture;
    formats::ServerRecord own_address{};
};

UdpLink::UdpLink(Scheduler& scheduler, const std::string& local_address)
    : parts_(std::make_unique<Parts>(scheduler, local_address))
{
    scheduler.add_block_hook([sender = parts_->sender] { sender->flush(); });
}

UdpLink::~UdpLink()
{
    parts_->sender->stop();
    parts_->receiver->stop();
    parts_->socket->shut_down();
}

void UdpLink::capture(std::shared_ptr<PacketCapture> capture, const formats::ServerRecord& own_address)
{
    parts_->capture = std::move(capture);
    parts_->own_address = own_address;
}

LinkCounters UdpLink::counters() const
{
    LinkCounters counters;
    parts_->sender->add_counters(counters);
    parts_->receiver->add_counters(counters);
    return counters;
}

std::uint16_t UdpLink::port() const
{
    return parts_->socket->port();
}

void UdpLink::send(const formats::ServerRecord& to, std::span<const std::uint8_t> header,
                   std::span<const std::uint8_t> data)
{
    if (parts_->capture != nullptr)
        parts_->capture->add(capture_time(), parts_->own_address, to, header, data);
    parts_->sender->send(to, header, data);
}

std::uint32_t UdpLink::receive(void** packet)
{
    // What stands here holds the halves of the link for itself: the link may go meanwhile.
    const auto receiver = parts_->receiver;
    const auto sender = parts_->sender;
    const auto capture = parts_->capture;
    const formats::ServerRecord own_address = parts_->own_address;
    const auto next = [&] {
        const std::uint32_t bytes = receiver->next(packet);
        if (capture != nullptr && bytes != 0)
            capture->add(capture_time(), record_of(receiver->sender()), own_address,
                         {static_cast<const std::uint8_t*>(*packet), bytes});
        return bytes;
    };
    if (const std::uint32_t bytes = next())
        return bytes;
    for (;;) {
        sender->flush();
        if (!receiver->wait())
            break;
        if (const std::uint32_t bytes = next())
            return bytes;
        KeGetCurrentIrql();  // for its check of the machine alone
    }
    *packet = nullptr;
    return 0;
}

void UdpLink::release(void* packet)
{
    parts_->receiver->release(packet);
}

}  // namespace machine
