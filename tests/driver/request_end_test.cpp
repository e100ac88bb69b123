// SPDX-License-Identifier: MIT
// How internal records end and how the image synchronisation is stopped.
#include "driver/image/image_sync.h"
#include "driver/net/shutdown_notice.h"
#include "driver/request/completion.h"
#include "driver/request/request.h"
#include "driver/state/boot_param.h"
#include "tests/driver/driver_test.h"

namespace {

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

}  // namespace
