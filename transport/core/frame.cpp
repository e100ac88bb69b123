// SPDX-License-Identifier: MIT
#include "transport/core/frame.h"

#include "transport/core/checksum.h"

namespace transport {
namespace {

using formats::ArpFrame;
using formats::ArpPacket;
using formats::EthernetHeader;
using formats::Ipv4Header;
using formats::UdpHeader;
using formats::UdpPseudoHeader;

constexpr Frame Not_For_Us{Frame_Kind::Not_For_Us, 0, 0, 0};
constexpr unsigned Ip_Offset = sizeof(EthernetHeader);

template <typename Header>
Header Header_At(const void* Bytes, unsigned Offset)
{
    Header Copy;
    __builtin_memcpy(&Copy, static_cast<const std::uint8_t*>(Bytes) + Offset, sizeof Copy);
    return Copy;
}

template <typename Address, unsigned Size>
Address Address_In(const std::uint8_t (&Field)[Size])
{
    static_assert(sizeof(Address) == Size);
    Address Copy;
    __builtin_memcpy(&Copy, Field, Size);
    return Copy;
}

template <typename Address, unsigned Size>
void Put(std::uint8_t (&Field)[Size], const Address& From)
{
    static_assert(sizeof(Address) == Size);
    __builtin_memcpy(Field, &From, Size);
}

// A neighbour speaks for itself only, and never in our name.
bool Sender_Is_Plausible(const ArpFrame& Frame, const Place& Place)
{
    const auto Card = Address_In<Hardware_Address>(Frame.Arp.Sender_Hardware);
    const auto Ip = Address_In<Ip_Address>(Frame.Arp.Sender_Ip);
    return Card == Address_In<Hardware_Address>(Frame.Ethernet.From) && Card.Is_One_Card() &&
           Card != Place.Card && !Ip.Is_Zero() && !Ip.Is_Of_Many() && Ip != Place.Own;
}

Frame_Kind Judge_Arp(const ArpFrame& Frame, const Place& Place)
{
    const ArpPacket& Arp = Frame.Arp;
    if (Arp.Hardware_Type.get() != formats::arp_hardware_ethernet ||
        Arp.Protocol_Type.get() != formats::ethernet_type_ipv4 ||
        Arp.Hardware_Bytes != sizeof Arp.Sender_Hardware || Arp.Protocol_Bytes != sizeof Arp.Sender_Ip ||
        Address_In<Ip_Address>(Arp.Target_Ip) != Place.Own || !Sender_Is_Plausible(Frame, Place))
        return Frame_Kind::Not_For_Us;
    if (Arp.Operation.get() == formats::arp_request)
        return Frame_Kind::Arp_Request;
    const bool To_Us = Address_In<Hardware_Address>(Frame.Ethernet.To) == Place.Card &&
                       Address_In<Hardware_Address>(Arp.Target_Hardware) == Place.Card;
    return To_Us && Arp.Operation.get() == formats::arp_answer ? Frame_Kind::Arp_Answer
                                                               : Frame_Kind::Not_For_Us;
}

// The header's length, or 0 when it is no header of a whole datagram to us.
unsigned Judge_Ip(const void* Lookahead, unsigned Lookahead_Bytes, unsigned Frame_Bytes, const Place& Place)
{
    const auto Ip = Header_At<Ipv4Header>(Lookahead, Ip_Offset);
    const unsigned Header_Bytes = (Ip.Version_And_Words & 0xFu) * 4;
    const unsigned Bytes = Ip.Bytes.get();
    const auto From = Address_In<Ip_Address>(Ip.From);
    if (Ip.Version_And_Words >> 4 != 4 || Header_Bytes < sizeof Ip ||
        Ip_Offset + Header_Bytes + sizeof(UdpHeader) > Lookahead_Bytes ||
        Bytes < Header_Bytes + sizeof(UdpHeader) || Bytes > Frame_Bytes - Ip_Offset ||
        (Ip.Fragment.get() & formats::ipv4_part_of_more) != 0 || Ip.Protocol != formats::ipv4_protocol_udp ||
        Address_In<Ip_Address>(Ip.To) != Place.Own || From.Is_Zero() || From.Is_Of_Many())
        return 0;
    Checksum Sum;
    Sum.Add(static_cast<const std::uint8_t*>(Lookahead) + Ip_Offset, Header_Bytes);
    return Sum.Sum() == 0xFFFF ? Header_Bytes : 0;
}

Frame Judge_Datagram(const void* Lookahead, unsigned Lookahead_Bytes, unsigned Frame_Bytes,
                     const Place& Place)
{
    const unsigned Header_Bytes = Judge_Ip(Lookahead, Lookahead_Bytes, Frame_Bytes, Place);
    if (Header_Bytes == 0)
        return Not_For_Us;
    const unsigned Ip_Bytes = Header_At<Ipv4Header>(Lookahead, Ip_Offset).Bytes.get();
    const auto Udp = Header_At<UdpHeader>(Lookahead, Ip_Offset + Header_Bytes);
    const unsigned Udp_Bytes = Udp.Bytes.get();
    if (Udp.To_Port.get() != Place.Port || Udp_Bytes <= sizeof Udp || Udp_Bytes > Ip_Bytes - Header_Bytes)
        return Not_For_Us;
    return {Frame_Kind::Datagram, Ip_Offset, Ip_Offset + Header_Bytes + static_cast<unsigned>(sizeof Udp),
            Udp_Bytes - static_cast<unsigned>(sizeof Udp)};
}

void Add_Pseudo_Header(Checksum& Sum, const Ipv4Header& Ip, unsigned Udp_Bytes)
{
    UdpPseudoHeader Pseudo{};
    Put(Pseudo.From, Ip.From);
    Put(Pseudo.To, Ip.To);
    Pseudo.Protocol = formats::ipv4_protocol_udp;
    Pseudo.Bytes.set(static_cast<std::uint16_t>(Udp_Bytes));
    Sum.Add(&Pseudo, sizeof Pseudo);
}

void Write_Arp(ArpFrame& Frame, const Place& Place, std::uint16_t Operation)
{
    Frame = {};
    Put(Frame.Ethernet.From, Place.Card);
    Frame.Ethernet.Type.set(formats::ethernet_type_arp);
    Frame.Arp.Hardware_Type.set(formats::arp_hardware_ethernet);
    Frame.Arp.Protocol_Type.set(formats::ethernet_type_ipv4);
    Frame.Arp.Hardware_Bytes = sizeof Frame.Arp.Sender_Hardware;
    Frame.Arp.Protocol_Bytes = sizeof Frame.Arp.Sender_Ip;
    Frame.Arp.Operation.set(Operation);
    Put(Frame.Arp.Sender_Hardware, Place.Card);
    Put(Frame.Arp.Sender_Ip, Place.Own);
}

}  // namespace

Frame Judge_Frame(const void* Lookahead, unsigned Lookahead_Bytes, unsigned Frame_Bytes, const Place& Place)
{
    if (Lookahead_Bytes > Frame_Bytes || Frame_Bytes > Frame_Bytes_Max || Lookahead_Bytes < sizeof(ArpFrame))
        return Not_For_Us;
    const auto Ethernet = Header_At<EthernetHeader>(Lookahead, 0);
    const auto To = Address_In<Hardware_Address>(Ethernet.To);
    if (Ethernet.Type.get() == formats::ethernet_type_arp && (To == Place.Card || To == Every_Card)) {
        const Frame_Kind Kind = Judge_Arp(Header_At<ArpFrame>(Lookahead, 0), Place);
        return {Kind, 0, 0, 0};
    }
    if (Ethernet.Type.get() == formats::ethernet_type_ipv4 && To == Place.Card)
        return Judge_Datagram(Lookahead, Lookahead_Bytes, Frame_Bytes, Place);
    return Not_For_Us;
}

bool Datagram_Is_Sound(const void* Whole_Frame, const Frame& Frame)
{
    const auto* Bytes = static_cast<const std::uint8_t*>(Whole_Frame);
    const unsigned Udp_Offset = Frame.Payload_Offset - static_cast<unsigned>(sizeof(UdpHeader));
    const auto Udp = Header_At<UdpHeader>(Bytes, Udp_Offset);
    if ((Udp.Checksum[0] | Udp.Checksum[1]) == 0)
        return true;
    const unsigned Udp_Bytes = static_cast<unsigned>(sizeof Udp) + Frame.Payload_Bytes;
    Checksum Sum;
    Add_Pseudo_Header(Sum, Header_At<Ipv4Header>(Bytes, Frame.Ip_Offset), Udp_Bytes);
    Sum.Add(Bytes + Udp_Offset, Udp_Bytes);
    return Sum.Sum() == 0xFFFF;
}

void Write_Datagram_Headers(formats::DatagramHeaders& Headers, const Place& Place,
                            const Hardware_Address& To_Card, const Ip_Address& To, std::uint16_t To_Port,
                            std::uint16_t Id, const void* First, unsigned First_Bytes, const void* Second,
                            unsigned Second_Bytes, Udp_Checksum Checksum_Is)
{
    const unsigned Udp_Bytes = static_cast<unsigned>(sizeof Headers.Udp) + First_Bytes + Second_Bytes;
    Headers = {};
    Put(Headers.Ethernet.To, To_Card);
    Put(Headers.Ethernet.From, Place.Card);
    Headers.Ethernet.Type.set(formats::ethernet_type_ipv4);

    Headers.Ip.Version_And_Words = 0x40 | sizeof Headers.Ip / 4;
    Headers.Ip.Bytes.set(static_cast<std::uint16_t>(sizeof Headers.Ip + Udp_Bytes));
    Headers.Ip.Id.set(Id);
    Headers.Ip.Fragment.set(formats::ipv4_do_not_fragment);
    Headers.Ip.Hops_Left = 64;
    Headers.Ip.Protocol = formats::ipv4_protocol_udp;
    Put(Headers.Ip.From, Place.Own);
    Put(Headers.Ip.To, To);
    Checksum Ip_Sum;
    Ip_Sum.Add(&Headers.Ip, sizeof Headers.Ip);
    Ip_Sum.Store(Headers.Ip.Checksum);

    Headers.Udp.From_Port.set(Place.Port);
    Headers.Udp.To_Port.set(To_Port);
    Headers.Udp.Bytes.set(static_cast<std::uint16_t>(Udp_Bytes));
    Checksum Udp_Sum;
    Add_Pseudo_Header(Udp_Sum, Headers.Ip, Udp_Bytes);
    if (Checksum_Is == Udp_Checksum::Card_Completes) {
        Udp_Sum.Store_Sum(Headers.Udp.Checksum);
        return;
    }
    Udp_Sum.Add(&Headers.Udp, sizeof Headers.Udp);
    Udp_Sum.Add(First, First_Bytes);
    Udp_Sum.Add(Second, Second_Bytes);
    Udp_Sum.Store_For_Udp(Headers.Udp.Checksum);
}

void Write_Arp_Request(ArpFrame& Request, const Place& Place, const Ip_Address& Wanted)
{
    Write_Arp(Request, Place, formats::arp_request);
    Put(Request.Ethernet.To, Every_Card);
    Put(Request.Arp.Target_Ip, Wanted);
}

void Write_Arp_Answer(ArpFrame& Answer, const ArpFrame& Request, const Place& Place)
{
    Write_Arp(Answer, Place, formats::arp_answer);
    Put(Answer.Ethernet.To, Request.Arp.Sender_Hardware);
    Put(Answer.Arp.Target_Hardware, Request.Arp.Sender_Hardware);
    Put(Answer.Arp.Target_Ip, Request.Arp.Sender_Ip);
}

}  // namespace transport
