// SPDX-License-Identifier: MIT
#include "server/boot_service.h"

#include <algorithm>
#include <cstring>

namespace server {

using formats::BootAnswer;
using formats::BootRequest;

bool BootService::receive(const Peer& from, std::span<const std::uint8_t> packet)
{
    if (packet.size() < sizeof formats::boot_mark ||
        std::memcmp(packet.data(), formats::boot_mark, sizeof formats::boot_mark) != 0)
        return false;
    if (packet.size() < sizeof(BootRequest))
        return true;
    BootRequest request;
    std::memcpy(&request, packet.data(), sizeof request);
    if (request.Kind != formats::boot_kind_request || request.Length.get() != packet.size())
        return true;
    if (request.Version != formats::boot_version)
        answer(from, request, {{}, "this server speaks version 1 of the boot request"});
    else
        answer(from, request, decide_(request));
    return true;
}

void BootService::answer(const Peer& to, const BootRequest& request, const BootDecision& decision)
{
    BootAnswer answer{};
    std::memcpy(answer.Mark, formats::boot_mark, sizeof answer.Mark);
    answer.Version = formats::boot_version;
    answer.Kind = decision.block ? formats::boot_kind_answer : formats::boot_kind_refusal;
    answer.Length.set(sizeof answer);
    answer.Cookie = request.Cookie;
    std::memcpy(answer.Hardware, request.Hardware, sizeof answer.Hardware);
    if (decision.block) {
        answer.Rack_Level.set(decision.block->Rack_Level.get());
        answer.Param = *decision.block;
    }
    const std::size_t length = std::min(decision.text.size(), sizeof answer.Text - 1);
    std::copy_n(decision.text.begin(), length, answer.Text);
    // A sink has room for a header of the block protocol and for data.
    const std::span<const std::uint8_t> bytes{reinterpret_cast<const std::uint8_t*>(&answer), sizeof answer};
    constexpr std::size_t head_bytes = offsetof(BootAnswer, Text);
    static_assert(head_bytes <= formats::header_bytes);
    const auto rest = sink_.data_buffer().first(bytes.size() - head_bytes);
    std::ranges::copy(bytes.subspan(head_bytes), rest.begin());
    sink_.send(to, bytes.first(head_bytes), rest);
}

}  // namespace server
