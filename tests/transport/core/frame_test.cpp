// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include <string>

#include "tests/transport/core/frames.h"
#include "transport/core/checksum.h"

using namespace transport;

namespace {

TEST(Checksum, Of_a_header_from_the_wire_is_the_one_in_it)
{
    const std::uint8_t header[] = {0x45, 0, 0,    0x73, 0, 0, 0x40, 0,    0x40, 0x11,
                                   0,    0, 0xC0, 0xA8, 0, 1, 0xC0, 0xA8, 0,    0xC7};
    Checksum sum;
    sum.Add(header, sizeof header);
    std::uint8_t field[2];
    sum.Store(field);
    EXPECT_EQ(field[0], 0xB8);
    EXPECT_EQ(field[1], 0x61);
}

TEST(Checksum, Is_the_same_over_pieces_of_any_length)
{
    Bytes bytes(300'001);
    for (std::size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<std::uint8_t>(i < 280'000 ? 0xFF : i * 31);
    for (const std::size_t first : {0u, 1u, 2u, 3u, 34u, 1399u, 65'537u, 300'001u})
        for (const std::size_t second : {0u, 1u, 5u}) {
            const std::size_t middle = std::min(second, bytes.size() - first);
            Checksum sum;
            sum.Add(bytes.data(), static_cast<unsigned>(first));
            sum.Add(bytes.data() + first, static_cast<unsigned>(middle));
            sum.Add(bytes.data() + first + middle, static_cast<unsigned>(bytes.size() - first - middle));
            EXPECT_EQ(sum.Sum() % 0xFFFF, plain_sum(bytes) % 0xFFFF) << first << " + " << middle;
        }
}

TEST(Frames, A_datagram_arrives_as_it_was_sent_at_every_length)
{
    for (const std::size_t size : {1u, 2u, 25u, 26u, 34u, 1420u, Payload_Bytes_Max}) {
        const Bytes payload = counted(size);
        Bytes frame = datagram(server, workstation, payload);
        frame.resize(std::max<std::size_t>(frame.size(), 60), 0xEE);  // what Ethernet fills up
        const Frame judged = judge(frame, Lookahead_Bytes_Min);
        ASSERT_EQ(judged.Kind, Frame_Kind::Datagram) << size;
        ASSERT_EQ(judged.Payload_Bytes, size);
        EXPECT_TRUE(std::equal(payload.begin(), payload.end(), frame.begin() + judged.Payload_Offset));
        EXPECT_TRUE(Datagram_Is_Sound(frame.data(), judged));
        // The whole of it by the book: pseudo header and datagram sum up to all ones.
        Bytes summed(frame.begin() + 26, frame.begin() + 34);
        summed.insert(summed.end(), {0, 17, frame[38], frame[39]});
        summed.insert(summed.end(), frame.begin() + 34,
                      frame.begin() + 42 + static_cast<std::ptrdiff_t>(size));
        EXPECT_EQ(plain_sum(summed), 0xFFFF) << size;
    }
}

TEST(Frames, Every_changed_bit_of_a_datagram_is_noticed)
{
    const Bytes frame = datagram(server, workstation, counted(35));
    for (std::size_t bit = 14 * 8; bit < frame.size() * 8; ++bit) {
        Bytes changed = frame;
        changed[bit / 8] ^= static_cast<std::uint8_t>(1 << bit % 8);
        const Frame judged = judge(changed);
        EXPECT_TRUE(judged.Kind == Frame_Kind::Not_For_Us || !Datagram_Is_Sound(changed.data(), judged))
            << "byte " << bit / 8 << " bit " << bit % 8;
    }
}

TEST(Frames, A_datagram_without_a_checksum_is_taken_and_none_is_ever_sent)
{
    Bytes frame = datagram(server, workstation, counted(40));
    frame[40] = frame[41] = 0;
    EXPECT_TRUE(Datagram_Is_Sound(frame.data(), judge(frame)));
    // Payloads over all sums, among them the one whose checksum comes out as zero.
    unsigned all_ones = 0;
    for (unsigned value = 0; value <= 0xFFFF; ++value) {
        const Bytes sent = datagram(
            server, workstation, {static_cast<std::uint8_t>(value >> 8), static_cast<std::uint8_t>(value)});
        ASSERT_NE(sent[40] | sent[41], 0) << value;
        all_ones += sent[40] == 0xFF && sent[41] == 0xFF;
    }
    EXPECT_EQ(all_ones, 1u);
}

TEST(Frames, A_card_that_completes_checksums_gets_the_sum_to_start_from)
{
    Bytes frame = datagram(server, workstation, counted(333), Udp_Checksum::Card_Completes);
    // What such a card does: the complement of the sum over the datagram as it lies there.
    const auto sum = static_cast<std::uint16_t>(~plain_sum(std::span(frame).subspan(34)));
    frame[40] = static_cast<std::uint8_t>(sum >> 8);
    frame[41] = static_cast<std::uint8_t>(sum);
    EXPECT_EQ(frame, datagram(server, workstation, counted(333)));
}

TEST(Frames, What_is_no_datagram_for_us_is_dropped)
{
    struct Case {
        const char* what;
        void (*change)(Bytes& frame);
    };
    const Case cases[] = {
        {"another card", [](Bytes& frame) { frame[5] ^= 1; }},
        {"everybody", [](Bytes& frame) { std::fill_n(frame.begin(), 6, 0xFF); }},
        {"another protocol", [](Bytes& frame) { frame[12] = 0x86, frame[13] = 0xDD; }},
        {"IP version 6", [](Bytes& frame) { frame[14] = 0x65; }},
        {"a header of 16 bytes", [](Bytes& frame) { frame[14] = 0x44; }},
        {"a header longer than the datagram",
         [](Bytes& frame) { frame[14] = 0x4F, frame[16] = 0, frame[17] = 60; }},
        {"longer than its frame", [](Bytes& frame) { ++frame[17]; }},
        {"shorter than its headers", [](Bytes& frame) { frame[16] = 0, frame[17] = 27; }},
        {"a first fragment", [](Bytes& frame) { frame[20] = 0x20; }},
        {"a last fragment", [](Bytes& frame) { frame[21] = 1; }},
        {"TCP", [](Bytes& frame) { frame[23] = 6; }},
        {"another host", [](Bytes& frame) { frame[33] ^= 1; }},
        {"from nobody", [](Bytes& frame) { std::fill_n(frame.begin() + 26, 4, 0); }},
        {"from a group", [](Bytes& frame) { frame[26] = 224; }},
        {"another port", [](Bytes& frame) { frame[37] ^= 1; }},
        {"UDP longer than IP", [](Bytes& frame) { ++frame[39]; }},
        {"UDP shorter than its header", [](Bytes& frame) { frame[38] = 0, frame[39] = 7; }},
        {"an empty datagram", [](Bytes& frame) { frame[38] = 0, frame[39] = 8; }},
    };
    for (const Case& each : cases) {
        Bytes frame = datagram(server, workstation, counted(50));
        each.change(frame);
        mend_ip_checksum(frame);
        EXPECT_EQ(judge(frame).Kind, Frame_Kind::Not_For_Us) << each.what;
    }
    Bytes long_frame = datagram(server, workstation, counted(Payload_Bytes_Max));
    long_frame.push_back(0);
    EXPECT_EQ(judge(long_frame).Kind, Frame_Kind::Not_For_Us) << "longer than Ethernet's frames";
    const Bytes frame = datagram(server, workstation, counted(50));
    for (std::size_t bytes = 0; bytes < 42; ++bytes)
        EXPECT_EQ(judge(frame, bytes).Kind, Frame_Kind::Not_For_Us) << "seen only to byte " << bytes;
    EXPECT_EQ(judge(frame, 42).Kind, Frame_Kind::Datagram);
}

TEST(Frames, Options_of_IP_are_skipped)
{
    Bytes frame = datagram(server, workstation, counted(50));
    frame.insert(frame.begin() + 34, {1, 1, 1, 0});
    frame[14] = 0x46;
    frame[17] = static_cast<std::uint8_t>(frame[17] + 4);
    mend_ip_checksum(frame);
    const Frame judged = judge(frame);
    ASSERT_EQ(judged.Kind, Frame_Kind::Datagram);
    EXPECT_EQ(judged.Payload_Offset, 46u);
    EXPECT_TRUE(Datagram_Is_Sound(frame.data(), judged));
    EXPECT_EQ(judge(frame, 45).Kind, Frame_Kind::Not_For_Us) << "its port is not to be seen";
}

Bytes bytes_of(const formats::ArpFrame& frame)
{
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(&frame);
    return {bytes, bytes + sizeof frame};
}

TEST(Arp, A_question_reaches_the_one_asked_and_its_answer_the_one_who_asked)
{
    formats::ArpFrame question, answer;
    Write_Arp_Request(question, workstation, server.Own);
    EXPECT_EQ(judge(bytes_of(question), 42, server).Kind, Frame_Kind::Arp_Request);
    Place other = server;
    other.Own.Bytes[3] = 8;
    EXPECT_EQ(judge(bytes_of(question), 42, other).Kind, Frame_Kind::Not_For_Us);
    EXPECT_EQ(judge(bytes_of(question)).Kind, Frame_Kind::Not_For_Us) << "our own, come back";

    Write_Arp_Answer(answer, question, server);
    EXPECT_EQ(judge(bytes_of(answer)).Kind, Frame_Kind::Arp_Answer);
    EXPECT_TRUE(std::equal(answer.Arp.Sender_Hardware, answer.Arp.Sender_Hardware + 6, server.Card.Bytes));
    EXPECT_TRUE(std::equal(answer.Arp.Sender_Ip, answer.Arp.Sender_Ip + 4, server.Own.Bytes));
    EXPECT_EQ(judge(bytes_of(answer), 42, server).Kind, Frame_Kind::Not_For_Us);
}

TEST(Arp, Forged_and_broken_answers_are_dropped)
{
    struct Case {
        const char* what;
        unsigned byte;
        std::uint8_t value;
    };
    const Case cases[] = {
        {"to everybody", 0, 0xFF},          {"of other hardware", 15, 6},
        {"of another protocol", 16, 0x86},  {"long addresses", 18, 8},
        {"long IP addresses", 19, 16},      {"another operation", 21, 3},
        {"sent by another card", 11, 99},   {"from a group of cards", 22, 3},
        {"from a group of hosts", 28, 239}, {"from our own address", 31, 9},
        {"to another card", 37, 8},         {"to another host", 41, 8},
    };
    formats::ArpFrame question, answer;
    Write_Arp_Request(question, workstation, server.Own);
    Write_Arp_Answer(answer, question, server);
    for (const Case& each : cases) {
        Bytes frame = bytes_of(answer);
        frame[each.byte] = each.value;
        if (each.byte == 22)
            frame[6] = each.value;  // the frame agrees
        EXPECT_EQ(judge(frame).Kind, Frame_Kind::Not_For_Us) << each.what;
    }
}

TEST(Places, What_goes_elsewhere_goes_to_the_gateway)
{
    struct Case {
        Ip_Address to;
        std::uint8_t hop;  // last byte in this network; 0: none
    };
    const Case cases[] = {
        {{{10, 0, 0, 7}}, 7},   {{{10, 0, 1, 7}}, 1},        {{{192, 168, 0, 255}}, 1},
        {{{10, 0, 0, 255}}, 0}, {{{10, 0, 0, 0}}, 0},        {{{10, 0, 0, 9}}, 0},
        {{{224, 0, 0, 1}}, 0},  {{{255, 255, 255, 255}}, 0}, {{{0, 0, 0, 0}}, 0},
    };
    for (const Case& each : cases) {
        Ip_Address hop{};
        const bool found = Next_Hop(workstation, each.to, hop);
        EXPECT_EQ(found ? hop.Bytes[3] : 0, each.hop) << testing::PrintToString(each.to.Bytes);
        EXPECT_TRUE(!found || (hop.Bytes[0] == 10 && hop.Bytes[2] == 0));
    }
    Place alone = workstation;
    alone.Gateway = {};
    Ip_Address hop;
    EXPECT_FALSE(Next_Hop(alone, {{10, 0, 1, 7}}, hop));
    // A line between two: both its addresses are hosts.
    alone.Mask = {{255, 255, 255, 254}};
    EXPECT_TRUE(Next_Hop(alone, {{10, 0, 0, 8}}, hop));
}

}  // namespace
