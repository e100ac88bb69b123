// SPDX-License-Identifier: MIT
// What the transport driver takes from the network: frames of every protocol, answers of neighbours, answers
// to its boot request.
//
// Input: frames, each a control byte, a length of 2 bytes, the bytes. The control byte: bits 0 and 1 make the
// frame one for us - 1: to our card; 2: an IPv4 header whose checksum is right, to our address and port; bit
// 2: only the bytes that suffice are seen; bit 3: a neighbour was asked for before; bit 4: its payload
// answers the boot request.
#include <memory>

#include "formats/ethernet.h"
#include "fuzz/input.h"
#include "transport/core/boot_question.h"
#include "transport/core/checksum.h"
#include "transport/core/frame.h"
#include "transport/core/neighbours.h"

using namespace fuzz;
using namespace transport;

namespace {

constexpr Place here{{{2, 0, 0, 0, 0, 9}}, {{10, 0, 0, 9}}, {{255, 255, 255, 0}}, {{10, 0, 0, 1}}, 6001};
constexpr Ip_Address seven{{10, 0, 0, 7}};

void make_fit(Bytes& frame, unsigned control)
{
    if (control & 1 && frame.size() >= sizeof here.Card)
        std::memcpy(frame.data(), &here.Card, sizeof here.Card);
    if (!(control & 2) || frame.size() < sizeof(formats::DatagramHeaders))
        return;
    auto& headers = *reinterpret_cast<formats::DatagramHeaders*>(frame.data());
    headers.Ethernet.Type.set(formats::ethernet_type_ipv4);
    std::memcpy(headers.Ip.To, &here.Own, sizeof headers.Ip.To);
    const unsigned bytes = (headers.Ip.Version_And_Words & 0xFu) * 4;
    if (14 + bytes + sizeof headers.Udp > frame.size())
        return;
    reinterpret_cast<formats::UdpHeader*>(frame.data() + 14 + bytes)->To_Port.set(here.Port);
    headers.Ip.Checksum[0] = headers.Ip.Checksum[1] = 0;
    Checksum sum;
    sum.Add(frame.data() + 14, bytes);
    sum.Store(headers.Ip.Checksum);
}

// The receiver's own copy, with nothing behind it.
std::unique_ptr<std::uint8_t[]> exact(const std::uint8_t* bytes, std::size_t size)
{
    auto copy = std::make_unique<std::uint8_t[]>(size);
    std::copy_n(bytes, size, copy.get());
    return copy;
}

void take_datagram(const Bytes& frame, const Frame& judged, bool answers, Boot_Question& question)
{
    require(judged.Payload_Bytes != 0 && judged.Payload_Bytes <= Payload_Bytes_Max &&
                judged.Payload_Offset >= sizeof(formats::DatagramHeaders) &&
                judged.Payload_Offset + judged.Payload_Bytes <= frame.size(),
            "a payload lies inside its frame");
    const auto whole = exact(frame.data(), judged.Payload_Offset + judged.Payload_Bytes);
    volatile bool sound = Datagram_Is_Sound(whole.get(), judged);
    static_cast<void>(sound);
    const auto payload = exact(frame.data() + judged.Payload_Offset, judged.Payload_Bytes);
    if (answers && judged.Payload_Bytes >= sizeof(formats::BootAnswer))
        std::memcpy(payload.get(), &question.Request(), offsetof(formats::BootRequest, Kind));
    question.Take(payload.get(), judged.Payload_Bytes);
    require(question.Current() != Boot_Question::State::Answered ||
                (question.Disks().Disk_Nums != 0 && question.Disks().Disk_Nums <= formats::disk_count_max),
            "an answer has disks");
}

void take_arp(const Bytes& frame, Neighbours& table, bool asked, Ticks now)
{
    const auto& arp = *reinterpret_cast<const formats::ArpFrame*>(frame.data());
    Ip_Address ip;
    Hardware_Address card;
    std::memcpy(&ip, arp.Arp.Sender_Ip, sizeof ip);
    std::memcpy(&card, arp.Arp.Sender_Hardware, sizeof card);
    const bool learnt = table.Learn(ip, card, now);
    require(!learnt || (asked && ip == seven), "only who was asked for is learnt");
    const auto way = table.Look_Up(seven, {}, now);
    require(!learnt || (way.Known && way.Card == card && card.Is_One_Card()), "and is known then");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Input input(data, size);
    Boot_Question question;
    question.Begin(here, 0x01020304, 0, 5 * Ticks_Per_Second);
    while (!input.empty()) {
        const unsigned control = input.u8();
        const auto bytes = input.piece(input.u16() % (Frame_Bytes_Max + 8));
        Bytes frame(bytes.begin(), bytes.end());
        make_fit(frame, control);
        const auto seen =
            std::min<std::size_t>(frame.size(), control & 4 ? Lookahead_Bytes_Min : frame.size());
        const auto lookahead = exact(frame.data(), seen);
        const Frame judged = Judge_Frame(lookahead.get(), static_cast<unsigned>(seen),
                                         static_cast<unsigned>(frame.size()), here);
        Neighbours table;
        if (control & 8)
            table.Look_Up(seven, {}, 0);
        if (judged.Kind == Frame_Kind::Datagram)
            take_datagram(frame, judged, (control & 16) != 0, question);
        else if (judged.Kind == Frame_Kind::Arp_Answer)
            take_arp(frame, table, (control & 8) != 0, 1);
        else if (judged.Kind == Frame_Kind::Arp_Request) {
            formats::ArpFrame answer;
            Write_Arp_Answer(answer, *reinterpret_cast<const formats::ArpFrame*>(lookahead.get()), here);
            require(answer.Ethernet.To[0] % 2 == 0, "an answer goes to one card");
        }
    }
    return 0;
}
