// SPDX-License-Identifier: MIT
// Where the transport driver's disks come from: records in memory, or a question to a server.
#include <gtest/gtest.h>

#include <cstring>
#include <numeric>

#include "tests/transport/core/frames.h"
#include "transport/core/boot_question.h"
#include "transport/core/boot_records.h"

using namespace transport;

namespace {

constexpr Ticks second = Ticks_Per_Second;

formats::BootAnswer answer_to(const formats::BootRequest& request)
{
    formats::BootAnswer answer{};
    std::memcpy(answer.Mark, formats::boot_mark, sizeof answer.Mark);
    answer.Version = formats::boot_version;
    answer.Kind = formats::boot_kind_answer;
    answer.Length.set(sizeof answer);
    answer.Cookie.set(request.Cookie.get());
    std::memcpy(answer.Hardware, request.Hardware, sizeof answer.Hardware);
    answer.Rack_Level.set(0x0705);
    answer.Param.Disk_Nums = 2;
    return answer;
}

TEST(BootQuestion, Is_asked_every_second_until_it_is_answered_or_the_patience_ends)
{
    Boot_Question question;
    EXPECT_FALSE(question.Due(0));
    question.Begin(workstation, 42, 0, 5 * second);
    unsigned asked = 0;
    for (Ticks now = 0; now < 10 * second; now += second / 10)
        asked += question.Due(now);
    EXPECT_EQ(asked, 5u);
    EXPECT_EQ(question.Current(), Boot_Question::State::Nobody);
    formats::BootAnswer late = answer_to(question.Request());
    EXPECT_TRUE(question.Take(&late, sizeof late));
    EXPECT_EQ(question.Current(), Boot_Question::State::Nobody);

    question.Begin(workstation, 43, 10 * second, 5 * second);
    EXPECT_TRUE(question.Take(&late, sizeof late)) << "to the question before";
    EXPECT_EQ(question.Current(), Boot_Question::State::Asking);
    EXPECT_TRUE(question.Due(10 * second));
    EXPECT_EQ(std::memcmp(question.Request().Hardware, workstation.Card.Bytes, 6), 0);
    EXPECT_EQ(std::memcmp(question.Request().Ip, workstation.Own.Bytes, 4), 0);
    const formats::BootAnswer answer = answer_to(question.Request());
    EXPECT_TRUE(question.Take(&answer, sizeof answer));
    EXPECT_EQ(question.Current(), Boot_Question::State::Answered);
    EXPECT_EQ(question.Disks().Disk_Nums, 2);
    EXPECT_EQ(question.Disks().Rack_Level.get(), 0x0705);
    EXPECT_FALSE(question.Due(20 * second));
}

TEST(BootQuestion, Takes_no_other_answer)
{
    struct Case {
        const char* what;
        void (*change)(formats::BootAnswer& answer);
    };
    const Case cases[] = {
        {"a refusal", [](auto& answer) { answer.Kind = formats::boot_kind_refusal; }},
        {"a request", [](auto& answer) { answer.Kind = formats::boot_kind_request; }},
        {"another version", [](auto& answer) { answer.Version = 2; }},
        {"another's", [](auto& answer) { answer.Hardware[5] ^= 1; }},
        {"another question's", [](auto& answer) { answer.Cookie.set(1); }},
        {"longer than it came", [](auto& answer) { answer.Length.set(sizeof answer + 1); }},
        {"shorter than it is", [](auto& answer) { answer.Length.set(sizeof answer - 1); }},
        {"no disks", [](auto& answer) { answer.Param.Disk_Nums = 0; }},
        {"disks that say: still searching", [](auto& answer) { answer.Param.Disk_Nums = 0xFF; }},
    };
    Boot_Question question;
    question.Begin(workstation, 42, 0, 5 * second);
    for (const Case& each : cases) {
        formats::BootAnswer answer = answer_to(question.Request());
        each.change(answer);
        EXPECT_TRUE(question.Take(&answer, sizeof answer)) << each.what;
        EXPECT_EQ(question.Current(), Boot_Question::State::Asking) << each.what;
    }
    const formats::BootAnswer answer = answer_to(question.Request());
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(&answer);
    for (unsigned size = 0; size < sizeof answer; ++size) {
        const Bytes cut(bytes, bytes + size);
        EXPECT_EQ(question.Take(cut.data(), size), size >= 4) << size;
    }
    EXPECT_EQ(question.Current(), Boot_Question::State::Asking);
    const Bytes of_a_disk = {'Q', 'R', 'N', 'A', 1, 2};
    EXPECT_FALSE(question.Take(of_a_disk.data(), 6)) << "a packet of the block protocol";
    Bytes longer(bytes, bytes + sizeof answer);
    longer.resize(600);
    EXPECT_TRUE(question.Take(longer.data(), 600));
    EXPECT_EQ(question.Current(), Boot_Question::State::Answered) << "of a later server";
}

// Conventional memory with the two records at a place.
Bytes low_memory(std::uint32_t place, std::uint16_t base_kb)
{
    Bytes memory(formats::low_memory_bytes);
    memory[formats::base_memory_kb_address] = static_cast<std::uint8_t>(base_kb);
    memory[formats::base_memory_kb_address + 1] = static_cast<std::uint8_t>(base_kb >> 8);
    formats::BootRecord disks{};
    std::memcpy(disks.Signature, formats::boot_record_signature, sizeof disks.Signature);
    disks.Kind.set(formats::boot_record_kind);
    disks.Rack_Level.set(0x0801);
    disks.Param.Disk_Nums = 3;
    formats::NetworkRecord network{};
    std::memcpy(network.Signature, formats::network_record_signature, sizeof network.Signature);
    network.Length.set(sizeof network);
    network.Version.set(formats::network_record_version);
    std::memcpy(network.Hardware, workstation.Card.Bytes, 6);
    std::memcpy(network.Ip, workstation.Own.Bytes, 4);
    std::memcpy(network.Mask, workstation.Mask.Bytes, 4);
    std::memcpy(network.Gateway, workstation.Gateway.Bytes, 4);
    std::memcpy(network.Server, server.Own.Bytes, 4);
    network.Server_Port.set(server.Port);
    network.Own_Port.set(workstation.Port);
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(&network);
    network.Checksum = static_cast<std::uint8_t>(-std::accumulate(bytes, bytes + sizeof network, 0));
    std::memcpy(memory.data() + place, &disks, sizeof disks);
    std::memcpy(memory.data() + place + sizeof disks, &network, sizeof network);
    return memory;
}

Boot_Records find(const Bytes& memory)
{
    Boot_Records found;
    Find_Boot_Records(memory.data(), static_cast<std::uint32_t>(memory.size()), found);
    return found;
}

TEST(BootRecords, Tell_the_disks_and_the_place_in_the_network)
{
    const Boot_Records found = find(low_memory(630 * 1024 + 16, 630));
    ASSERT_TRUE(found.Has_Disks && found.Has_Network);
    EXPECT_EQ(found.Disks.Disk_Nums, 3);
    EXPECT_EQ(found.Disks.Rack_Level.get(), 0x0801);
    EXPECT_EQ(found.Here.Card, workstation.Card);
    EXPECT_EQ(found.Here.Own, workstation.Own);
    EXPECT_EQ(found.Here.Mask, workstation.Mask);
    EXPECT_EQ(found.Here.Gateway, workstation.Gateway);
    EXPECT_EQ(found.Here.Port, workstation.Port);
    EXPECT_EQ(found.Server.Port.get(), server.Port);
    EXPECT_TRUE(found.Server.names_a_server());
}

TEST(BootRecords, That_are_damaged_or_elsewhere_are_not_found)
{
    const std::uint32_t place = 630 * 1024;
    const auto network = place + sizeof(formats::BootRecord);
    for (const auto byte : {network, network + 8, network + 10, network + 20, network + 63}) {
        Bytes memory = low_memory(place, 630);
        ++memory[byte];
        const Boot_Records found = find(memory);
        EXPECT_TRUE(found.Has_Disks && !found.Has_Network) << byte - network;
    }
    Bytes memory = low_memory(place, 630);
    ++memory[place + 12];
    EXPECT_FALSE(find(memory).Has_Disks || find(memory).Has_Network);
    EXPECT_FALSE(find(low_memory(place, 631)).Has_Disks) << "below the top of base memory";
    EXPECT_FALSE(find(low_memory(place + 8, 630)).Has_Disks) << "on no paragraph";
    // The last place that is looked at, and what is mapped of memory ends anywhere.
    EXPECT_TRUE(find(low_memory(0x9F4C0, 630)).Has_Network);
    memory = low_memory(place, 630);
    for (const std::size_t bytes : {network + 63, network, network - 1, std::size_t{0x414}, std::size_t{0}}) {
        const Bytes mapped(memory.begin(), memory.begin() + static_cast<std::ptrdiff_t>(bytes));
        EXPECT_EQ(find(mapped).Has_Disks, bytes >= network) << bytes;
        EXPECT_FALSE(find(mapped).Has_Network) << bytes;
    }
}

}  // namespace
