// SPDX-License-Identifier: MIT
#include "machine/transport/udp_link.h"

#include <nt.h>

#include "machine/scheduler/scheduler.h"
#include "machine/transport/udp_receiver.h"
#include "machine/transport/udp_sender.h"
#include "machine/transport/udp_socket.h"

namespace machine {
namespace {

// How long the receiving thread stays in the system when nothing arrives. In between it calls the
// kernel, where the threads of a machine that was switched off stay.
constexpr std::chrono::milliseconds receive_timeout{20};

}  // namespace

struct UdpLink::Parts {
    explicit Parts(const std::string& local_address)
        : socket(std::make_shared<UdpSocket>(local_address, receive_timeout)),
          sender(std::make_shared<UdpSender>(socket)), receiver(std::make_shared<UdpReceiver>(socket))
    {
    }

    std::shared_ptr<UdpSocket> socket;
    std::shared_ptr<UdpSender> sender;
    std::shared_ptr<UdpReceiver> receiver;
};

UdpLink::UdpLink(Scheduler& scheduler, const std::string& local_address)
    : parts_(std::make_unique<Parts>(local_address))
{
    scheduler.add_block_hook([sender = parts_->sender] { sender->flush(); });
}

UdpLink::~UdpLink()
{
    parts_->sender->stop();
    parts_->receiver->stop();
    parts_->socket->shut_down();
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
    parts_->sender->send(to, header, data);
}

std::uint32_t UdpLink::receive(void** packet)
{
    if (const std::uint32_t bytes = parts_->receiver->next(packet))
        return bytes;
    // What stands here holds the halves of the link for itself: the link may go meanwhile.
    const auto receiver = parts_->receiver;
    const auto sender = parts_->sender;
    for (;;) {
        sender->flush();
        if (!receiver->wait())
            break;
        if (const std::uint32_t bytes = receiver->next(packet))
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
