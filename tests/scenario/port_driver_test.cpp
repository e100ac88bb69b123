// SPDX-License-Identifier: MIT
// What port and class drivers do beyond the plain road of a request: they keep fields of an SRB for
// themselves, feed a disk as they like, start the adapter anew, and load the driver where nothing can work.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "tests/scenario/dispatch_tap.h"
#include "tests/scenario/traffic.h"
#include "tests/seeds.h"

namespace scenario {
namespace {

constexpr std::uint8_t read_10 = 0x28, write_10 = 0x2A;

std::uint8_t status_of(Rig& rig, std::vector<std::uint8_t> cdb, Bytes& data, ULONG flags)
{
    machine::ScsiRequest request(rig.scsi());
    std::copy(cdb.begin(), cdb.end(), request.cdb.begin());
    request.cdb_bytes = static_cast<std::uint8_t>(cdb.size());
    request.data = data.data();
    request.data_bytes = static_cast<std::uint32_t>(data.size());
    request.srb_flags = flags | SRB_FLAGS_NO_QUEUE_FREEZE;
    rig.execute(request);
    return request.ok() ? 0 : request.sense().value_or(machine::Sense{}).asc;
}

TEST(PortDriver, Start_again_while_notices_are_under_way_changes_nothing)
{
    for (std::uint64_t seed = 1; seed <= seeds_of(20); ++seed) {
        Rig rig({.seed = seed});
        DispatchTap tap(rig);
        rig.run([&] {
            const PDRIVER_DISPATCH hooked = tap.driver()->MajorFunction[IRP_MJ_SCSI];
            Traffic traffic(rig, seed, {.operations_each = 10});
            traffic.start();
            for (unsigned again = 0; again < 5; ++again) {
                rig.machine.sleep_ms(1);
                EXPECT_TRUE(rig.scsi().initialize_again());
            }
            traffic.wait();
            EXPECT_EQ(traffic.failed(), 0u);
            EXPECT_EQ(tap.driver()->MajorFunction[IRP_MJ_SCSI], hooked);
            EXPECT_EQ(rig.log_count("\nQRN SCSI: Enum Device Type"), 1u);
        });
    }
}

// A port driver loads the driver a second time, under another name, for a crash dump or hibernation.
TEST(PortDriver, Dump_and_hibernation_get_no_driver_and_no_adapter)
{
    {
        Rig rig;
        rig.run_bare([&] {
            machine::DriverImage::Entry entry = rig.driver->load();
            KIRQL old = KfRaiseIrql(HIGH_LEVEL);
            const NTSTATUS status = entry(nullptr, nullptr);
            KfLowerIrql(old);
            EXPECT_EQ(status, STATUS_UNSUCCESSFUL);
            EXPECT_TRUE(rig.machine.log().entries().empty());
            EXPECT_EQ(rig.machine.pool_bytes(), 0u);
        });
    }
    for (const char* arguments : {"dump=1;", "ntldr=1;dump=1", "dump=0;", "dump", ""}) {
        Rig again;
        again.scsi().set_adapter_arguments(arguments);
        again.run([&] {
            EXPECT_EQ(again.scsi().adapter_started(), !std::strstr(arguments, "dump=1")) << arguments;
        });
    }
}

// Presented late, of a block that names more disks than LUNs, on a machine without a transport.
TEST(PortDriver, Disks_without_workers_are_no_disks)
{
    Rig rig({.disks = std::vector<DiskPlan>(2),
             .boot_mode = 3,
             .transport = false,
             .adjust_block = [](formats::Boot_Param& block) { block.Disk_Nums = 3; }});
    rig.run([&] {
        EXPECT_TRUE(rig.scsi().adapter_started());
        rig.machine.sleep_ms(1500);
        EXPECT_TRUE(rig.scsi().luns().empty());
        Bytes sector(512);
        machine::ScsiRequest request(rig.scsi());
        request.set_read(0, 0, sector.data(), 512);
        request.srb_flags |= SRB_FLAGS_NO_QUEUE_FREEZE;
        rig.execute(request);
        EXPECT_EQ(SRB_STATUS(request.srb_status), SRB_STATUS_INVALID_LUN);
    });
}

TEST(PortDriver, Commands_against_the_direction_of_their_buffer_are_refused)
{
    constexpr ULONG in = SRB_FLAGS_DATA_IN, out = SRB_FLAGS_DATA_OUT;
    Rig rig;
    rig.run([&] {
        const Bytes content = pattern(5, 512);
        ASSERT_TRUE(rig.write(0, 5, content));
        const std::vector<std::uint8_t> read{read_10, 0, 0, 0, 0, 5, 0, 0, 1, 0},
            write{write_10, 0, 0, 0, 0, 5, 0, 0, 1, 0};
        for (const auto& [cdb, wrong] :
             {std::pair(read, out), std::pair(write, in),
              std::pair(std::vector<std::uint8_t>{0x12, 0, 0, 0, 36, 0}, out),
              std::pair(std::vector<std::uint8_t>{0x25, 0, 0, 0, 0, 0, 0, 0, 0, 0}, out),
              std::pair(std::vector<std::uint8_t>{0x1A, 0, 0x3F, 0, 4, 0}, out)}) {
            Bytes data(512, 0xEE);
            EXPECT_EQ(status_of(rig, cdb, data, wrong), 0x24) << int{cdb[0]};
            EXPECT_EQ(data, Bytes(512, 0xEE));
        }
        Bytes stored(512);
        ASSERT_TRUE(rig.read(0, 5, stored));
        EXPECT_EQ(stored, content);
        for (ULONG flags : {0ul, in | out}) {
            Bytes data(512);
            EXPECT_EQ(status_of(rig, read, data, flags), 0);
            EXPECT_EQ(data, content);
            EXPECT_EQ(status_of(rig, write, data, flags), 0);
        }
        Bytes data(512);
        EXPECT_EQ(status_of(rig, {0x00, 0, 0, 0, 0, 0}, data, out), 0) << "moves no data";
    });
}

// A class driver that may not be disturbed in its last try would wait for its own answer for ever.
TEST(PortDriver, Refused_reads_of_a_held_back_disk_end_however_often_they_are_repeated)
{
    for (machine::Feeding feeding : {machine::Feeding::eager, machine::Feeding::held_back}) {
        Rig rig({.disks = {{}, {.flags = 0x44}}, .feeding = feeding, .curious_class_driver = true});
        rig.run([&] {
            EXPECT_EQ(rig.scsi().luns().size(), 2u);
            Bytes data = pattern(0, 65536), back(65536);
            EXPECT_TRUE(rig.write(0, 0, data));
            rig.machine.sleep_ms(100);
            EXPECT_TRUE(rig.write(1, 0, data) && rig.read(1, 0, back));
            EXPECT_EQ(back, data);
        });
    }
}

// While such a request is in the miniport, the port driver sends nothing else, completion notices included.
TEST(PortDriver, Transfers_that_must_not_disconnect_complete)
{
    for (machine::Feeding feeding : {machine::Feeding::eager, machine::Feeding::held_back}) {
        Rig rig({.feeding = feeding});
        rig.run([&] {
            const Bytes content = pattern(5, 512);
            ASSERT_TRUE(rig.write(0, 5, content));
            Bytes data(512);
            EXPECT_EQ(status_of(rig, {read_10, 0, 0, 0, 0, 5, 0, 0, 1, 0}, data,
                                SRB_FLAGS_DATA_IN | SRB_FLAGS_DISABLE_DISCONNECT),
                      0);
            EXPECT_EQ(data, content);
        });
    }
}

// The port driver sends nothing down for some seconds then, completion notices included.
TEST(PortDriver, Bus_resets_delay_what_is_under_way_and_fail_nothing)
{
    for (std::uint64_t seed = 1; seed <= seeds_of(10); ++seed) {
        Rig rig({.seed = seed, .disks = std::vector<DiskPlan>(2)});
        rig.run([&] {
            Traffic traffic(rig, seed, {.operations_each = 60});
            traffic.start();
            for (unsigned reset = 0; reset < 4; ++reset) {
                rig.machine.sleep_ms(static_cast<std::int64_t>(1 + seed * 7 % 11 * reset));
                EXPECT_TRUE(rig.scsi().reset_bus());
                Bytes sector(512);
                const double reset_ms = rig.now_ms();
                EXPECT_TRUE(rig.read(1, 2000, sector));
                EXPECT_GE(rig.now_ms() - reset_ms, 4000) << "the next request waits";
            }
            traffic.wait();
            EXPECT_EQ(traffic.failed(), 0u);
            EXPECT_EQ(rig.scsi().in_flight(), 0u);
        });
    }
}

TEST(PortDriver, Shutdown_in_any_order_of_disks_tells_each_once_and_fails_nothing)
{
    std::vector<std::uint8_t> order{0, 1, 2};
    do {
        Rig rig({.disks = std::vector<DiskPlan>(3)});
        rig.run([&] {
            Traffic traffic(rig, 1, {.operations_each = 15});
            traffic.start();
            rig.scsi().shutdown(order);
            std::vector<std::uint8_t> told;
            for (const SeenPacket& packet : rig.sent(formats::sub_request, formats::kind_shutdown))
                told.push_back(packet.header().Disk_Parm[3]);
            EXPECT_EQ(told, order);
            traffic.wait();
            EXPECT_EQ(traffic.failed(), 0u);
        });
    } while (std::ranges::next_permutation(order).found);
}

// A disk that is not shown yet, or lost, must not hide those behind it.
TEST(PortDriver, Scans_that_stop_at_a_gap_find_every_disk)
{
    Rig rig({.disks = {{}, {.flags = 0x44}, {}, {}},
             .adjust_machine = [](machine::MachineConfig& config) { config.scan_stops_at_gap = true; }});
    rig.run([&] {
        EXPECT_EQ(rig.scsi().luns().size(), 4u);
        rig.main.stop();
        Pending lost(rig);
        lost.read(2, 0, 512);
        rig.machine.sleep_ms(200'000);
        EXPECT_TRUE(lost.done() && !lost.ok());
        rig.main.start();
        rig.scsi().scan();
        const std::vector<machine::LunInfo> luns = rig.scsi().luns();
        ASSERT_EQ(luns.size(), 4u);
        EXPECT_EQ(luns[2].sectors, 0u);
        EXPECT_NE(luns[3].sectors, 0u);
        Bytes sector(512);
        EXPECT_TRUE(rig.read(3, 0, sector));
    });
}

// Only class drivers keep to the adapter's limit; others may send what they like.
TEST(PortDriver, Transfers_beyond_the_limit_work_or_are_refused_and_those_without_a_buffer_are_refused)
{
    struct Row {
        std::uint32_t limit_kb, read_kb, sectors;
    };
    for (const Row& row :
         {Row{64, 16, 256}, Row{64, 1, 256}, Row{64, 1, 4096}, Row{4, 1, 128}, Row{1, 16, 3}}) {
        Rig rig({.disks = {{.sectors = 8192, .read_kb = row.read_kb, .write_kb = row.read_kb}},
                 .settings = {{"TRANS_SIZE", row.limit_kb}},
                 .adjust_machine = [](machine::MachineConfig& config) { config.checks_transfers = false; }});
        rig.run([&] {
            const std::uint32_t bytes = row.sectors * 512;
            ASSERT_GT(bytes, rig.scsi().maximum_transfer_bytes());
            const Bytes content = pattern(7, bytes);
            Pending write(rig), read(rig);
            write.write(0, 7, content).wait();
            read.read(0, 7, bytes).wait();
            EXPECT_EQ(read.ok(), write.ok());
            if (write.ok())
                EXPECT_TRUE(read.data() == content);
            else
                EXPECT_EQ(write.request().sense(), (machine::Sense{0x05, 0x24, 0}));
            for (const std::uint8_t operation : {read_10, write_10}) {
                machine::ScsiRequest request(rig.scsi());
                operation == read_10 ? request.set_read(0, 0, nullptr, 512)
                                     : request.set_write(0, 0, nullptr, 512);
                rig.execute(request);
                EXPECT_EQ(request.sense(), (machine::Sense{0x05, 0x24, 0})) << int{operation};
            }
            for (std::vector<std::uint8_t> cdb : {std::vector<std::uint8_t>{0x12, 0, 0, 0, 36, 0},
                                                  {0x25, 0, 0, 0, 0, 0, 0, 0, 0, 0},
                                                  {0x1A, 0, 0x3F, 0, 4, 0}}) {
                machine::ScsiRequest request(rig.scsi());
                std::ranges::copy(cdb, request.cdb.begin());
                request.cdb_bytes = static_cast<std::uint8_t>(cdb.size());
                request.data_bytes = 36;
                request.srb_flags = SRB_FLAGS_DATA_IN;
                rig.execute(request);
                EXPECT_EQ(request.sense(), (machine::Sense{0x05, 0x24, 0})) << int{cdb[0]};
            }
            Bytes sector(512);
            EXPECT_TRUE(rig.read(0, 0, sector));
        });
    }
}

// Fed one at a time, a disk gets its next request by the notices of the one before.
TEST(PortDriver, Notices_draw_as_many_requests_as_the_disk_has_slots)
{
    Rig rig({.disks = {{.flags = 0x04}}, .feeding = machine::Feeding::held_back});
    std::vector<SeenPacket> waiting;
    rig.script([&](const SeenPacket& packet) { waiting.push_back(packet); });
    rig.run([&] {
        std::vector<std::unique_ptr<Pending>> reads;
        for (unsigned i = 0; i < 8; ++i) {
            reads.push_back(std::make_unique<Pending>(rig));
            reads.back()->read(0, i * 8, 4096);
        }
        rig.machine.sleep_ms(50);
        EXPECT_EQ(waiting.size(), 4u);
        EXPECT_GE(rig.scsi().in_flight(), 4u);
        rig.main.start();
        for (const auto& read : reads) {
            read->wait();
            EXPECT_TRUE(read->ok());
        }
    });
}

// No request of the disk ends, and one is waiting in the driver; so only the notices of time-outs can draw
// more.
TEST(PortDriver, Time_outs_draw_the_shutdown_out_from_behind_requests_that_wait_for_a_dead_server)
{
    Rig rig({.disks = {{}, {.flags = 0x01, .retry_mins = 30}}, .feeding = machine::Feeding::held_back});
    rig.run([&] {
        Bytes data(4096);
        EXPECT_TRUE(rig.read(1, 0, data));
        rig.main.stop();
        std::vector<std::unique_ptr<Pending>> reads;
        for (unsigned i = 0; i < 4; ++i) {
            reads.push_back(std::make_unique<Pending>(rig));
            reads.back()->read(1, i * 8, 4096);
        }
        rig.machine.sleep_ms(10);
        const double before_ms = rig.now_ms();
        rig.scsi().shutdown();
        EXPECT_LT(rig.now_ms() - before_ms, 120'000);
        for (const auto& read : reads) {
            read->wait();
            EXPECT_FALSE(read->ok());
        }
    });
}

}  // namespace
}  // namespace scenario
