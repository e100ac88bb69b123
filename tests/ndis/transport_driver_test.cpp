// SPDX-License-Identifier: MIT
// The transport driver between the disk driver and a simulated card. The linked one, or the file that the
// environment variable QRN_TRANSPORT names, into whose state nobody looks.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <numeric>

#include "formats/boot_request.h"
#include "machine/executive/driver_object.h"
#include "machine/loader/driver_image.h"
#include "machine/ndis/frame_hosts.h"
#include "machine/ndis/ndis.h"
#include "tests/scenario/rig.h"
#include "transport/driver/entry.h"
#include "transport/driver/net.h"

using machine::CardAddress;
using scenario::Bytes;

namespace {

constexpr std::uint16_t own_port = 6001;
constexpr CardAddress other_address = {2, 0, 0, 0, 1, 1};

scenario::Plan without_transport(std::uint64_t seed)
{
    scenario::Plan plan;
    plan.seed = seed;
    plan.transport = false;
    return plan;
}

const char* transport_file()
{
    return std::getenv("QRN_TRANSPORT");
}

PDRIVER_INITIALIZE load_transport()
{
    if (!transport_file())
        return QRNNET_Entry;
    static const auto file = machine::driver_file(transport_file());
    return file->load();
}

class NetRig : public scenario::Rig {
public:
    explicit NetRig(std::uint64_t seed = 1, bool with_record = true)
        : Rig(without_transport(seed)), ndis(machine.scheduler(), seed),
          hosts(machine.scheduler(), network, own_port),
          driver_object(u"qrnnet", u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\qrnnet",
                        load_transport())
    {
        if (with_record)
            leave_network_record();
    }

    machine::NdisCard& plug(const CardAddress& address)
    {
        return ndis.plug(address, [this](std::span<const std::uint8_t> frame) { hosts.take(frame); });
    }
    CardAddress own_address() const
    {
        CardAddress address;
        std::copy_n(network.workstation().Hardware, address.size(), address.begin());
        return address;
    }
    // Both drivers, and the card.
    void start()
    {
        ASSERT_EQ(driver_object.initialize(), 0);
        card = &plug(own_address());
        hosts.connect(*card);
        ASSERT_TRUE(card->bound());
        ASSERT_EQ(boot(), 0);
    }
    // Writes and reads back; the place and the content follow from the number.
    void exchange(unsigned number, std::uint32_t area = 0, std::uint32_t sectors = 1500)
    {
        const std::uint32_t lba = area * sectors + number * 37 % (sectors - 18);
        const Bytes written = scenario::pattern(lba, 9216, number + 1);
        Bytes read(written.size());
        ASSERT_TRUE(write(0, lba, written)) << number;
        ASSERT_TRUE(Rig::read(0, lba, read)) << number;
        ASSERT_EQ(read, written) << number;
    }

    machine::Ndis ndis;
    machine::FrameHosts hosts;
    machine::NdisCard* card = nullptr;
    machine::DriverObject driver_object;

private:
    void leave_network_record()
    {
        formats::NetworkRecord record{};
        std::memcpy(record.Signature, formats::network_record_signature, sizeof record.Signature);
        record.Length.set(sizeof record);
        record.Version.set(formats::network_record_version);
        std::memcpy(record.Hardware, network.workstation().Hardware, 6);
        std::memcpy(record.Ip, network.workstation().Ip, 4);
        std::memset(record.Mask, 0xFF, 3);
        record.Own_Port.set(own_port);
        const auto* bytes = reinterpret_cast<const std::uint8_t*>(&record);
        record.Checksum = static_cast<std::uint8_t>(-std::accumulate(bytes, bytes + sizeof record, 0));
        machine.memory().write(plan.base_memory_kb * 1024u + sizeof(formats::BootRecord),
                               {bytes, sizeof record});
    }
};

template <typename Slot>
unsigned length(const Slot* first)
{
    unsigned count = 0;
    for (; first; first = first->pNext)
        ++count;
    return count;
}

// Nothing is under way, and nothing was lost.
void expect_all_back(NetRig& rig)
{
    rig.machine.sleep_ms(50);
    EXPECT_EQ(rig.card->sends_out(), 0u);
    if (transport_file())
        return;
    EXPECT_EQ(length(transport::Net.pFree_Sends), transport::Send_Slots);
    EXPECT_EQ(length(transport::Net.pFree_Receives), transport::Receive_Slots);
}

TEST(TransportDriver, Carries_disks_whatever_a_card_does_at_once_or_later)
{
    machine::CardCounters all;
    for (std::uint64_t seed = 1; seed <= 8; ++seed) {
        NetRig rig(seed);
        rig.run_bare([&] {
            rig.start();
            rig.machine.forbid_pool_allocation(true);
            for (unsigned number = 0; number < 6; ++number)
                rig.exchange(number);
            rig.machine.forbid_pool_allocation(false);
            expect_all_back(rig);
        });
        EXPECT_EQ(rig.hosts.counters().arp_questions, 1u) << "one server, asked for once; seed " << seed;
        EXPECT_EQ(rig.hosts.counters().misdirected, 0u);
        const machine::CardCounters& seen = rig.card->counters();
        all.indicated_whole += seen.indicated_whole;
        all.indicated_ahead += seen.indicated_ahead;
        all.transferred += seen.transferred;
        all.pended += seen.pended;
    }
    EXPECT_GT(std::min({all.indicated_whole, all.indicated_ahead, all.transferred, all.pended}), 20u);
}

TEST(TransportDriver, Binds_the_card_of_the_record_and_tells_the_disks_then)
{
    if (transport_file())
        GTEST_SKIP() << "looks into the linked driver";
    NetRig rig;
    rig.run_bare([&] {
        ASSERT_EQ(rig.driver_object.initialize(), 0);
        EXPECT_EQ(transport::Net.Block.Disk_Nums, formats::disk_nums_searching);
        EXPECT_FALSE(rig.plug(other_address).bound());
        EXPECT_EQ(transport::Net.Block.Disk_Nums, formats::disk_nums_searching);
        machine::NdisCard& card = rig.plug(rig.own_address());
        EXPECT_TRUE(card.bound());
        EXPECT_EQ(transport::Net.Block.Disk_Nums, 1);
        EXPECT_FALSE(rig.plug(rig.own_address()).bound()) << "one is enough";
        rig.ndis.unplug(card);
        EXPECT_FALSE(card.bound());
    });
}

TEST(TransportDriver, Is_not_there_without_a_record)
{
    NetRig rig(1, false);
    rig.run_bare([&] {
        const auto before = rig.machine.pool_bytes();
        EXPECT_NE(rig.driver_object.initialize(), 0);
        EXPECT_EQ(rig.machine.pool_bytes(), before);
        UNICODE_STRING name;
        RtlInitUnicodeString(&name, L"\\Device\\QRNNDIS");
        PFILE_OBJECT file;
        PDEVICE_OBJECT device;
        EXPECT_FALSE(NT_SUCCESS(IoGetDeviceObjectPointer(&name, FILE_ALL_ACCESS, &file, &device)));
    });
}

TEST(TransportDriver, Answers_those_who_ask_for_it_and_believes_nobody_it_did_not_ask)
{
    NetRig rig;
    rig.run_bare([&] {
        rig.start();
        rig.exchange(1);
        auto question = rig.hosts.arp_frame(rig.main.address(), formats::arp_request);
        std::fill_n(question.begin(), 6, 0xFF);
        rig.card->arrive(question);
        EXPECT_EQ(rig.hosts.counters().arp_answers, 1u);

        auto liar = rig.main.address();
        liar.Hardware[5] = 0x66;
        rig.card->arrive(rig.hosts.arp_frame(liar, formats::arp_answer));
        rig.exchange(2);
        EXPECT_EQ(rig.hosts.counters().misdirected, 0u);
        expect_all_back(rig);
    });
}

// Ahead of every packet of a server come frames that look like it and are not it.
TEST(TransportDriver, Lets_no_damaged_frame_reach_a_disk)
{
    NetRig rig(3);
    std::mt19937 random(3);
    unsigned sent = 0;
    rig.drop = [&](const scenario::SeenPacket& packet) {
        if (packet.direction != machine::Direction::to_workstation || !rig.card)
            return false;
        const machine::FrameBytes right = rig.hosts.datagram_frame(packet.server, packet.bytes);
        auto damaged = right;
        // In the data, where only the checksum tells; or anywhere.
        const std::size_t from = packet.bytes.size() > 100 ? 42 + 34 : 0;
        damaged[from + random() % (42 + packet.bytes.size() - from)] ^=
            static_cast<std::uint8_t>(1 + random() % 255);
        auto fragment = right;
        fragment[20] = 0x20;
        auto cut = right;
        cut.resize(1 + random() % right.size());
        if (std::equal(cut.begin(), cut.end(), right.begin()) && cut.size() >= 42 + packet.bytes.size())
            cut.resize(41);
        for (const auto& frame : {damaged, fragment, cut}) {
            rig.card->arrive(frame);
            ++sent;
        }
        return false;
    };
    rig.run_bare([&] {
        rig.start();
        for (unsigned number = 0; number < 40; ++number)
            rig.exchange(number);
        expect_all_back(rig);
    });
    EXPECT_GT(sent, 500u);
    if (!transport_file()) {
        EXPECT_GT(transport::Net.Damaged, 50);
    }
}

TEST(TransportDriver, Wakes_its_receiver_once_for_a_batch_and_drops_the_newest_when_it_is_slow)
{
    if (transport_file())
        GTEST_SKIP() << "looks into the linked driver";
    NetRig rig;
    rig.run_bare([&] {
        ASSERT_EQ(rig.driver_object.initialize(), 0);
        machine::NdisCard& card = rig.plug(rig.own_address());
        constexpr unsigned beyond = 44, count = transport::Receive_Slots + beyond;
        rig.machine.forbid_pool_allocation(true);
        for (unsigned number = 0; number < count; ++number) {
            const std::array<std::uint8_t, 2> payload = {static_cast<std::uint8_t>(number),
                                                         static_cast<std::uint8_t>(number >> 8)};
            card.arrive(rig.hosts.datagram_frame(rig.main.address(), payload));
        }
        EXPECT_EQ(KeReadStateSemaphore(&transport::Net.Ready), 0) << "woken before the batch ended";
        rig.machine.sleep_ms(1);
        EXPECT_EQ(KeReadStateSemaphore(&transport::Net.Ready), LONG{transport::Receive_Slots});
        EXPECT_EQ(transport::Net.Receives_Dropped, LONG{beyond});
        for (unsigned number = 0; number < transport::Receive_Slots; ++number) {
            PVOID payload;
            ASSERT_EQ(transport::Receive(&payload), 2u);
            const auto* bytes = static_cast<const UCHAR*>(payload);
            ASSERT_EQ(bytes[0] + bytes[1] * 256u, number) << "the oldest are kept, in order";
            transport::Release(payload);
        }
        rig.machine.forbid_pool_allocation(false);
        EXPECT_EQ(length(transport::Net.pFree_Receives), transport::Receive_Slots);
    });
}

// Waits for so many more frames of the card, whatever becomes of them.
void wait_for_frames(NetRig& rig, std::uint64_t count)
{
    const auto handed_down = [&rig] { return rig.card->counters().sent + rig.card->counters().lost; };
    LARGE_INTEGER moment;
    moment.QuadPart = -20 * 10;
    for (const std::uint64_t until = handed_down() + count; handed_down() < until;)
        KeDelayExecutionThread(KernelMode, FALSE, &moment);
}

TEST(TransportDriver, Outlives_cards_that_go_lose_their_link_and_are_reset_under_load)
{
    NetRig rig(5);
    rig.run_bare([&] {
        rig.start();
        constexpr unsigned loads = 5;
        unsigned running = loads, exchanges = 0;
        bool done = false;
        const auto pool_before = rig.machine.pool_bytes("QRNS");
        for (unsigned area = 0; area < loads; ++area)
            rig.machine.scheduler().spawn("load", [&, area] {
                for (unsigned number = 0; !done && !testing::Test::HasFatalFailure(); ++number, ++exchanges)
                    rig.exchange(number, area, 300);
                --running;
            });
        for (unsigned nuisance = 0; nuisance < 100; ++nuisance) {
            wait_for_frames(rig, 5 + nuisance % 11);
            switch (nuisance % 3) {
            case 0:
                rig.ndis.unplug(*rig.card);
                rig.machine.sleep_ms(2);
                rig.ndis.plug_again(*rig.card);
                EXPECT_TRUE(rig.card->bound());
                break;
            case 1:
                rig.card->set_link(false);
                rig.machine.sleep_ms(2);
                rig.card->set_link(true);
                break;
            default:
                rig.card->reset();
            }
        }
        done = true;
        while (running != 0)
            rig.machine.sleep_ms(10);
        EXPECT_GT(exchanges, loads);
        rig.exchange(1);
        expect_all_back(rig);
        EXPECT_EQ(rig.machine.pool_bytes("QRNS"), pool_before);
    });
    EXPECT_GT(rig.card->counters().aborted, 10u) << "sends in the middle of which the card was reset";
}

}  // namespace
