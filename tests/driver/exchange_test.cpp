// SPDX-License-Identifier: MIT
// How the packets of several runs of one chunk are told apart.
#include <memory>

#include "driver/net/exchange.h"
#include "driver/state/boot_param.h"
#include "tests/driver/driver_test.h"

namespace {

RW_Entry* in_flight;
std::vector<formats::WireHeader> sent;

// A server that has answered before the driver waits.
VOID NTAPI answer_at_once(PVOID, PVOID header, ULONG, PVOID, ULONG)
{
    sent.push_back(*static_cast<formats::WireHeader*>(header));
    in_flight->Frag_Mask = 0;
    KeSetEvent(&in_flight->Ack_Event, IO_NO_INCREMENT, FALSE);
}

TEST(Exchange, Place_of_a_run_in_its_chunk_marks_reads_and_leaves_writes_at_0)
{
    DriverPiece driver;
    driver.run([&] {
        Ndis_Handover.QRN_Send = answer_at_once;
        const auto entry = std::make_unique<RW_Entry>();
        in_flight = entry.get();
        KeInitializeSpinLock(&entry->Ack_Lock);
        KeInitializeEvent(&entry->Ack_Event, SynchronizationEvent, FALSE);
        entry->Setup.pServer = &Boot_Param.Main_Server[0];
        entry->Setup.pCounters = &Lun_Stats[0].Rd;
        entry->Setup.Disk_Parms.Retry_Mins = 1;
        entry->Setup.Pkt_Size = 1024;
        entry->Sector = 1000;
        for (const bool write : {false, true})
            for (const unsigned place : {0u, 40u}) {
                sent.clear();
                entry->Hdr.Kind = write ? formats::kind_write : formats::kind_read;
                entry->Hdr.Worker_Byte = 5;
                entry->Hdr.Pkt_Index = write ? 0 : 3;
                entry->pData = entry->Bounce + place * 512;
                EXPECT_EQ(Net_Send_Wait(entry.get(), 2048), 2048);
                ASSERT_EQ(sent.size(), 2u);
                for (unsigned packet = 0; packet < 2; ++packet) {
                    EXPECT_EQ(sent[packet].Pkt_Index, packet + (write ? 0 : 3 + (place & ~31u))) << place;
                    EXPECT_EQ(sent[packet].Worker_Byte, 5 + 8 * (place & 31)) << place;
                }
                EXPECT_EQ(entry->Hdr.Worker_Byte, 5);
            }
    });
}

}  // namespace
