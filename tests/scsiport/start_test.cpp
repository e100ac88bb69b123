// SPDX-License-Identifier: MIT
// Registration, start of the adapter, timers around it, and bus scans.
#include "tests/scsiport/port_test.h"

using namespace machine;

namespace {

using Start = PortTest;

TEST_F(Start, A_scan_lists_the_luns_that_answer_and_gives_each_one_device)
{
    miniport.luns = 3;
    miniport.disks[2].clear();
    run([&] {
        port().scan();
        const std::vector<LunInfo> luns = port().luns();
        ASSERT_EQ(luns.size(), 3U);
        EXPECT_EQ(luns[0].sectors, 64U);
        EXPECT_EQ(luns[2].lun, 2);
        EXPECT_EQ(luns[2].sectors, 0U) << "no medium";
        EXPECT_EQ(std::string(luns[1].inquiry.begin() + 8, luns[1].inquiry.begin() + 12), "Test");
        EXPECT_EQ(port().scans(), 2U);
        unsigned devices = 0;
        for (PDEVICE_OBJECT device = miniport.driver->DeviceObject; device; device = device->NextDevice)
            devices += device->DeviceType == FILE_DEVICE_DISK;
        EXPECT_EQ(devices, 3U);
        miniport.luns = 1;
        port().scan();
        EXPECT_EQ(port().luns().size(), 1U);
    });
}

TEST(Scan, Ends_at_a_gap_where_the_adapter_is_said_to_leave_none)
{
    for (const bool stops : {false, true}) {
        Machine machine({{}, {.scan_stops_at_gap = stops}});
        TestMiniport miniport(4);
        miniport.start_io = [&](PSCSI_REQUEST_BLOCK srb) {
            if (srb->Lun == 1)
                miniport.complete(srb, SRB_STATUS_INVALID_LUN);
            else
                miniport.answer(srb);
        };
        machine.run([&] {
            machine.boot(miniport);
            EXPECT_EQ(machine.scsi().luns().size(), stops ? 1U : 3U);
        });
    }
}

TEST_F(Start, A_timer_set_by_HwFindAdapter_counts_from_there_and_fires_once_the_adapter_has_started)
{
    std::int64_t found_ms = 0, fired_ms = 0;
    miniport.find_adapter = [&](PORT_CONFIGURATION_INFORMATION&, BOOLEAN&) {
        found_ms = machine.now_ms();
        miniport.request_timer(1'000'000);
        return SP_RETURN_FOUND;
    };
    miniport.timer = [&] { fired_ms = machine.now_ms(); };
    port().set_before_initialize([&](PDRIVER_OBJECT) {
        machine.sleep_ms(400);
        EXPECT_EQ(miniport.timer_calls, 0U);
    });
    run([&] {
        machine.sleep_ms(5000);
        EXPECT_EQ(miniport.timer_calls, 1U);
        EXPECT_EQ(fired_ms - found_ms, 1000);
    });
}

TEST_F(Start, A_timer_request_replaces_the_last_one_and_a_delay_of_0_cancels)
{
    std::vector<std::int64_t> fired_ms;
    miniport.reset_bus = [&] {
        miniport.request_timer(100'000);
        miniport.request_timer(miniport.resets == 1 ? 700'000 : 0);
    };
    miniport.timer = [&] {
        fired_ms.push_back(machine.now_ms());
        if (fired_ms.size() < 3)
            miniport.request_timer(1'000'000);
    };
    run([&] {
        const std::int64_t start_ms = machine.now_ms();
        EXPECT_TRUE(port().reset_bus());
        machine.sleep_ms(10'000);
        EXPECT_TRUE(port().reset_bus());
        machine.sleep_ms(10'000);
        EXPECT_EQ(fired_ms, (std::vector{start_ms + 700, start_ms + 1700, start_ms + 2700}));
    });
}

TEST_F(Start, Bus_changes_are_followed_by_scans_that_share_what_came_before_they_began)
{
    unsigned listened = 0;
    port().set_scan_listener([&] { ++listened; });
    miniport.luns = 1;
    miniport.timer = [&] {
        miniport.luns = 2;
        for (int change = 0; change < 5; ++change)
            miniport.bus_change();
    };
    miniport.reset_bus = [&] { miniport.request_timer(1'000'000); };
    run([&] {
        EXPECT_EQ(port().luns().size(), 1U);
        port().reset_bus();
        machine.sleep_ms(2000);
        EXPECT_EQ(port().luns().size(), 2U);
        EXPECT_EQ(port().bus_changes(), 5U);
        EXPECT_EQ(port().scans(), 2U) << "one at boot, one for the five changes of one timer call";
        EXPECT_EQ(listened, 2U);
    });
}

struct Spoiled {
    const char* what;
    void (*spoil)(TestMiniport&);
    NTSTATUS status;
};

class SpoiledStart : public Start, public testing::WithParamInterface<Spoiled> {};

TEST_P(SpoiledStart, Leaves_no_adapter_no_luns_and_no_timer_and_requests_are_refused)
{
    miniport.find_adapter = [&](PORT_CONFIGURATION_INFORMATION&, BOOLEAN&) {
        miniport.request_timer(1000);
        return SP_RETURN_FOUND;
    };
    GetParam().spoil(miniport);
    run([&] {
        EXPECT_EQ(miniport.registration_status, GetParam().status);
        EXPECT_FALSE(port().adapter_started());
        EXPECT_TRUE(port().luns().empty());
        ScsiRequest request(port());
        port().execute(request);
        EXPECT_EQ(request.srb_status, SRB_STATUS_NO_HBA);
        EXPECT_FALSE(port().reset_bus());
        machine.sleep_ms(3000);
        EXPECT_EQ(miniport.timer_calls, 0U);
        EXPECT_TRUE(miniport.seen.empty());
    });
}

const Spoiled spoiled_starts[] = {
    {"size", [](TestMiniport& m) { --m.registration.HwInitializationDataSize; }, STATUS_REVISION_MISMATCH},
    {"not_found", [](TestMiniport& m) { m.find_adapter = [](auto&, auto&) { return SP_RETURN_NOT_FOUND; }; },
     STATUS_NO_SUCH_DEVICE},
    {"no_buses",
     [](TestMiniport& m) {
         m.find_adapter = [](PORT_CONFIGURATION_INFORMATION& config, auto&) {
             config.NumberOfBuses = 0;
             return SP_RETURN_FOUND;
         };
     },
     STATUS_DEVICE_CONFIGURATION_ERROR},
    {"HwInitialize", [](TestMiniport& m) { m.initialize = [] { return false; }; },
     STATUS_ADAPTER_HARDWARE_ERROR},
};
INSTANTIATE_TEST_SUITE_P(Cases, SpoiledStart, testing::ValuesIn(spoiled_starts),
                         [](const auto& instance) { return instance.param.what; });

}  // namespace
