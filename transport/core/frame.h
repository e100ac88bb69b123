// SPDX-License-Identifier: MIT
// Frames: what a received one is to us, judged by its first bytes before anything is copied, and the headers
// of those that go out. Pure, any IRQL.
#pragma once

#include "formats/ethernet.h"
#include "transport/core/place.h"

namespace transport {

constexpr unsigned Payload_Bytes_Max =
    formats::ethernet_payload_bytes_max - sizeof(formats::Ipv4Header) - sizeof(formats::UdpHeader);
constexpr unsigned Frame_Bytes_Max = sizeof(formats::EthernetHeader) + formats::ethernet_payload_bytes_max;
// So many bytes of every frame suffice to judge it; of a shorter one all.
constexpr unsigned Lookahead_Bytes_Min =
    sizeof(formats::EthernetHeader) + formats::ipv4_header_bytes_max + sizeof(formats::UdpHeader);

enum class Frame_Kind {
    Not_For_Us,
    Arp_Request,  // somebody asks for our address
    Arp_Answer,   // says to us where a neighbour is; whether we asked is the table's to know
    Datagram      // to our address and port, its checksum not yet seen
};

struct Frame {
    Frame_Kind Kind;
    unsigned Ip_Offset;  // of a datagram, all from the frame's first byte
    unsigned Payload_Offset;
    unsigned Payload_Bytes;  // at least 1, and all inside the frame
};

// Judges a frame of Frame_Bytes by its first Lookahead_Bytes.
Frame Judge_Frame(const void* Lookahead, unsigned Lookahead_Bytes, unsigned Frame_Bytes, const Place& Place);

// Of a datagram that was judged, and lies here whole: nothing of it was changed on the way.
bool Datagram_Is_Sound(const void* Whole_Frame, const Frame& Frame);

enum class Udp_Checksum {
    Whole,
    Card_Completes  // the field gets what the card starts from
};

// The headers of one datagram, whose payload lies in two pieces of together Payload_Bytes_Max at most.
void Write_Datagram_Headers(formats::DatagramHeaders& Headers, const Place& Place,
                            const Hardware_Address& To_Card, const Ip_Address& To, std::uint16_t To_Port,
                            std::uint16_t Id, const void* First, unsigned First_Bytes, const void* Second,
                            unsigned Second_Bytes, Udp_Checksum Checksum_Is);

void Write_Arp_Request(formats::ArpFrame& Request, const Place& Place, const Ip_Address& Wanted);
// To a frame that was judged to be an Arp_Request.
void Write_Arp_Answer(formats::ArpFrame& Answer, const formats::ArpFrame& Request, const Place& Place);

}  // namespace transport
