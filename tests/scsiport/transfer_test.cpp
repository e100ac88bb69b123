// The class driver's half: lengths, sense data, shutdown, and the way its IRPs look on the road.
#include <numeric>

#include "tests/scsiport/port_test.h"

using namespace machine;

namespace {

class Transfer : public PortTest {
protected:
    Transfer() { miniport.maximum_transfer_bytes = 4096; }

    std::vector<std::uint8_t> pattern(std::size_t bytes)
    {
        std::vector<std::uint8_t> data(bytes);
        std::iota(data.begin(), data.end(), std::uint8_t{1});
        return data;
    }
};

TEST_F(Transfer, Long_reads_and_writes_are_split_into_the_largest_transfers)
{
    run([&] {
        const std::vector<std::uint8_t> written = pattern(10'240);
        ASSERT_TRUE(port().write(1, 7, written.data(), 10'240));
        std::vector<std::uint8_t> read(10'240);
        miniport.seen.clear();
        ASSERT_TRUE(port().read(1, 7, read.data(), 10'240));
        EXPECT_EQ(read, written);
        ASSERT_EQ(miniport.seen.size(), 3U);
        const std::array<std::array<unsigned, 3>, 3> expected{{{7, 4096, 8}, {15, 4096, 8}, {23, 2048, 4}}};
        for (std::size_t index = 0; index < 3; ++index) {
            const SCSI_REQUEST_BLOCK& srb = miniport.seen[index];
            EXPECT_EQ(srb.Cdb[5], expected[index][0]);
            EXPECT_EQ(srb.DataTransferLength, expected[index][1]);
            EXPECT_EQ(srb.Cdb[8], expected[index][2]);
        }
        EXPECT_FALSE(port().read(1, 60, read.data(), 10'240)) << "past the end of the disk";
    });
}

TEST_F(Transfer, Requests_that_no_adapter_could_carry_are_refused_before_it)
{
    run([&] {
        std::vector<std::uint8_t> data(8192);
        miniport.seen.clear();
        ScsiRequest request(port());
        request.set_read(0, 0, data.data(), 4608);
        port().execute(request);
        EXPECT_EQ(request.srb_status, SRB_STATUS_INVALID_REQUEST);
        request.set_read(0, 0, nullptr, 512);
        port().execute(request);
        EXPECT_EQ(request.srb_status, SRB_STATUS_INVALID_REQUEST);
        EXPECT_TRUE(miniport.seen.empty());
    });
}

TEST_F(Transfer, Sense_data_comes_back_as_far_as_the_buffer_holds_it)
{
    run([&] {
        struct Case {
            std::uint8_t buffer_bytes;
            std::optional<Sense> sense;
        };
        const Case cases[] = {
            {18, Sense{5, 0x20, 0}}, {255, Sense{5, 0x20, 0}}, {8, Sense{5, 0, 0}}, {0, {}}};
        for (const Case& expected : cases) {
            ScsiRequest request(port());
            request.cdb = {SCSIOP_MODE_SENSE10};
            request.sense_buffer_bytes = expected.buffer_bytes;
            port().execute(request);
            EXPECT_FALSE(request.ok());
            EXPECT_EQ(request.scsi_status, SCSISTAT_CHECK_CONDITION);
            EXPECT_EQ(request.sense(), expected.sense) << "buffer of " << int{expected.buffer_bytes};
        }
        std::uint8_t sector[512];
        ScsiRequest good(port());
        good.set_read(0, 0, sector, sizeof(sector));
        port().execute(good);
        EXPECT_EQ(good.sense(), std::nullopt);
    });
}

TEST_F(Transfer, Requests_to_addresses_without_a_unit_reach_the_miniport)
{
    run([&] {
        struct Case {
            std::uint8_t path, target, lun;
            UCHAR status;
        };
        const Case cases[] = {{1, 0, 0, SRB_STATUS_INVALID_PATH_ID},
                              {0, 1, 0, SRB_STATUS_INVALID_TARGET_ID},
                              {0, 0, 3, SRB_STATUS_INVALID_LUN},
                              {0, 0, 255, SRB_STATUS_INVALID_LUN}};
        for (const Case& address : cases) {
            ScsiRequest request(port());
            request.path = address.path;
            request.target = address.target;
            request.lun = address.lun;
            port().execute(request);
            EXPECT_EQ(SRB_STATUS(request.srb_status), address.status);
        }
    });
}

TEST_F(Transfer, Shutdown_goes_to_the_luns_that_were_found_and_to_lun_0_last)
{
    miniport.luns = 3;
    run([&] {
        port().shutdown();
        std::vector<UCHAR> order;
        for (const SCSI_REQUEST_BLOCK& srb : miniport.seen_of(SRB_FUNCTION_SHUTDOWN))
            order.push_back(srb.Lun);
        EXPECT_EQ(order, (std::vector<UCHAR>{1, 2, 0}));
    });
}

// What a miniport finds that puts itself in front of the dispatch routine.
struct Hook {
    static inline PDRIVER_DISPATCH next;
    static inline unsigned passed;
    static inline std::string complaints;

    static NTSTATUS NTAPI dispatch(PDEVICE_OBJECT device, PIRP irp)
    {
        ++passed;
        const IO_STACK_LOCATION& location = *IoGetCurrentIrpStackLocation(irp);
        if (location.MajorFunction != IRP_MJ_SCSI || location.Parameters.DeviceIoControl.IoControlCode != 0)
            complaints += "stack location; ";
        if (location.Parameters.Scsi.Srb->OriginalRequest != irp)
            complaints += "OriginalRequest; ";
        if (location.DeviceObject != device)
            complaints += "device object; ";
        location.Parameters.Scsi.Srb->TimeOutValue = 0xFFFFFFFF;
        return next(device, irp);
    }
};

TEST_F(Transfer, Every_request_passes_the_dispatch_routine_that_the_miniport_put_in_front)
{
    miniport.initialize = [&] {
        Hook::next = std::exchange(miniport.driver->MajorFunction[IRP_MJ_SCSI], Hook::dispatch);
        return true;
    };
    run([&] {
        std::vector<std::uint8_t> data(10'240);
        EXPECT_TRUE(port().read(0, 0, data.data(), 10'240));
        port().shutdown();
        EXPECT_EQ(Hook::passed, miniport.seen.size());
        EXPECT_EQ(Hook::complaints, "");
        for (const SCSI_REQUEST_BLOCK& srb : miniport.seen)
            EXPECT_EQ(srb.TimeOutValue, 0xFFFFFFFF);
    });
}

}  // namespace
