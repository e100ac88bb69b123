// Sense data, how internal records end, how the image synchronisation is stopped, and the boot server's
// record.
#include <cstring>

#include "driver/engine/image_route.h"
#include "driver/miniport/completion.h"
#include "driver/miniport/request.h"
#include "driver/miniport/scsi_commands.h"
#include "driver/net/shutdown_notice.h"
#include "driver/startup/boot_param.h"
#include "tests/driver/driver_test.h"

namespace {

TEST(RequestEnd, Sense_data_says_why_in_fixed_format)
{
    const std::uint8_t reasons[][3] = {{5, 0x20, 0}, {5, 0x24, 0}, {5, 0x21, 0},
                                       {2, 0x3A, 0}, {2, 0x04, 3}, {5, 0x26, 0}};
    for (unsigned index = 0; index < std::size(reasons); ++index) {
        const auto [key, asc, ascq] = reasons[index];
        const std::uint8_t expected[20] = {0x70, 0, key, 0,    0, 0, 0, 10, 0,    0,
                                           0,    0, asc, ascq, 0, 0, 0, 0,  0xCC, 0xCC};
        std::uint8_t room[20];
        std::memset(room, 0xCC, sizeof room);
        SCSI_REQUEST_BLOCK srb{};
        srb.SenseInfoBuffer = room;
        srb.SenseInfoBufferLength = sizeof room;
        Set_Sense(&srb, static_cast<Sense_Index>(index));
        EXPECT_EQ(std::memcmp(room, expected, sizeof room), 0) << index;
    }
}

TEST(RequestEnd, Internal_record_sets_its_event_whatever_its_status)
{
    DriverPiece driver;
    driver.run([] {
        KEVENT event;
        KeInitializeEvent(&event, SynchronizationEvent, FALSE);
        Boot_Param.Disks[1].Disk_Secs.set(100);
        for (LONG status : {LONG{0x8C00}, Req_Failed}) {
            RW_Req record{};
            record.Status = status;
            record.pDone = &event;
            Req_Complete(&record, 1);
            EXPECT_EQ(event.Header.SignalState, 1);
            KeResetEvent(&event);
        }
        RW_Req record{};
        Req_Complete(&record, 1);
        EXPECT_EQ(event.Header.SignalState, 0);
        EXPECT_EQ(Boot_Param.Disks[1].Disk_Secs.get(), 100u);
    });
}

TEST(RequestEnd, Synchronisation_is_stopped_and_waited_for_up_to_3_seconds)
{
    struct Row {
        bool runs;
        int ends_after_ms;  // of the stop; -1: never
        int expected_ms;
    };
    for (const Row& row :
         {Row{false, -1, 0}, Row{true, 0, 0}, Row{true, 1, 100}, Row{true, 250, 300}, Row{true, -1, 3000}}) {
        DriverPiece driver;
        ULONG work_area[2] = {0, 0};
        pSync_State = row.runs ? work_area : nullptr;
        driver.run([&] {
            if (row.ends_after_ms == 0)
                pSync_State = Sync_Ended;
            else if (row.ends_after_ms > 0)
                driver.machine.scheduler().call_at(row.ends_after_ms * machine::ticks_per_ms,
                                                   [] { pSync_State = Sync_Ended; });
            QRN_RW_HDD_Stop();
            EXPECT_EQ(driver.machine.now_ms(), row.expected_ms);
        });
        EXPECT_EQ(work_area[0], row.expected_ms ? 1u : 0u);
        EXPECT_EQ(work_area[1], 0u);
        EXPECT_EQ(driver.machine.log().text(), "\nQRN_RW_HDD_Stop");
    }
}

std::vector<formats::ServerRecord> told;

VOID NTAPI note_server(PVOID server, PVOID, ULONG, PVOID, ULONG)
{
    told.push_back(*static_cast<formats::ServerRecord*>(server));
}

TEST(RequestEnd, Boot_server_is_told_on_the_main_servers_port_and_then_named_by_its_own)
{
    for (bool transport : {true, false}) {
        DriverPiece driver;
        told.clear();
        driver.run([&] {
            Ndis_Handover.QRN_Send = transport ? note_server : nullptr;
            Boot_Param.Main_Server[0] = {{10, 0, 0, 1}, {}, {}, {0x77, 0x66}};
            Boot_Param.Main_Server[0].Port.set(6000);
            Boot_Param.Boot_Server = {{10, 0, 0, 9}, {1, 2, 3, 4, 5, 6}, {}, {0x55, 0x44}};
            Boot_Param.Boot_Port.set(0x1234);
            formats::ServerRecord expected = Boot_Param.Boot_Server;
            Send_Shutdown_Notices(0);

            expected.Port.set(6000);
            std::memcpy(expected.Zero, Boot_Param.Main_Server[0].Zero, sizeof expected.Zero);
            ASSERT_EQ(told.size(), transport ? 2u : 0u);
            EXPECT_TRUE(!transport || std::memcmp(&told[1], &expected, sizeof expected) == 0);
            const std::uint8_t end[] = {0x12, 0x34, 0, 0};
            EXPECT_EQ(std::memcmp(&Boot_Param.Boot_Server.Port, end, sizeof end), 0);
        });
    }
}

}  // namespace
