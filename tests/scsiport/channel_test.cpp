// A miniport whose own threads finish requests: they send one control request, the same IRP and SRB each
// time, through the port driver, and HwStartIo completes the finished SRB.
#include <deque>
#include <mutex>

#include "tests/scsiport/port_test.h"

using namespace machine;

namespace {

constexpr unsigned worker_count = 4;

MachineConfig config(SchedulerKind scheduler, std::uint64_t seed)
{
    MachineConfig config;
    config.scheduler = scheduler;
    config.seed = seed;
    return config;
}

// Its IRP is never freed, as that of a driver that is never unloaded.
class Channel {
public:
    explicit Channel(PDEVICE_OBJECT adapter)
        : adapter_(adapter), irp_(IoAllocateIrp(adapter->StackSize, FALSE))
    {
        KeInitializeEvent(&free_, SynchronizationEvent, TRUE);
        srb_.Length = sizeof(srb_);
        srb_.Function = SRB_FUNCTION_IO_CONTROL;
        srb_.QueueTag = SP_UNTAGGED;
        srb_.SrbFlags = SRB_FLAGS_NO_QUEUE_FREEZE | SRB_FLAGS_BYPASS_FROZEN_QUEUE;
        srb_.TimeOutValue = 0xFFFFFFFF;
        srb_.DataBuffer = &control_;
        srb_.DataTransferLength = sizeof(control_);
        control_.HeaderLength = sizeof(control_);
        control_.ControlCode = TestMiniport::complete_code;
    }
    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;

    void send(PSCSI_REQUEST_BLOCK finished, UCHAR lun)
    {
        KeWaitForSingleObject(&free_, Executive, KernelMode, FALSE, nullptr);
        srb_.Lun = lun;
        srb_.OriginalRequest = irp_;
        control_.ReturnCode = static_cast<ULONG>(reinterpret_cast<ULONG_PTR>(finished));
        PIO_STACK_LOCATION location = IoGetNextIrpStackLocation(irp_);
        location->MajorFunction = IRP_MJ_SCSI;
        location->MinorFunction = 0;
        location->Parameters.DeviceIoControl.IoControlCode = IOCTL_SCSI_EXECUTE_NONE;
        location->Parameters.Scsi.Srb = &srb_;
        IoSetCompletionRoutine(irp_, returned, this, TRUE, TRUE, TRUE);
        IofCallDriver(adapter_, irp_);
    }

private:
    static NTSTATUS NTAPI returned(PDEVICE_OBJECT, PIRP irp, PVOID context)
    {
        IoReuseIrp(irp, STATUS_UNSUCCESSFUL);
        KeSetEvent(&static_cast<Channel*>(context)->free_, 0, FALSE);
        return STATUS_MORE_PROCESSING_REQUIRED;
    }

    PDEVICE_OBJECT adapter_;
    PIRP irp_;
    KEVENT free_;
    SCSI_REQUEST_BLOCK srb_{};
    SRB_IO_CONTROL control_{};
};

class ChannelTest : public PortTest {
protected:
    using PortTest::PortTest;

    // From now on transfers are finished by worker threads.
    void start_workers()
    {
        KeInitializeSemaphore(&waiting_, 0, 0x7FFFFFFF);
        channel_ = std::make_unique<Channel>(adapter().device());
        for (unsigned worker = 0; worker < worker_count; ++worker)
            machine.scheduler().spawn("worker", [this] { work(); });
    }
    void queue(PSCSI_REQUEST_BLOCK srb)
    {
        const bool transfers = srb->Function == SRB_FUNCTION_EXECUTE_SCSI && srb->Cdb[0] != SCSIOP_INQUIRY &&
                               srb->Cdb[0] != SCSIOP_READ_CAPACITY;
        if (!transfers)
            return miniport.answer(srb);
        {
            std::lock_guard hold(lock_);
            pending_.push_back(srb);
        }
        KeReleaseSemaphore(&waiting_, 0, 1, FALSE);
    }
    void work()
    {
        for (;;) {
            KeWaitForSingleObject(&waiting_, Executive, KernelMode, FALSE, nullptr);
            PSCSI_REQUEST_BLOCK srb = nullptr;
            {
                std::lock_guard hold(lock_);
                srb = pending_.front();
                pending_.pop_front();
            }
            channel_->send(srb, srb->Lun);
        }
    }
    // Clients that each write sectors of their own, with many requests in flight, and read them back.
    void write_and_read_back(unsigned clients, unsigned rounds);

    KSEMAPHORE waiting_;
    std::mutex lock_;
    std::deque<PSCSI_REQUEST_BLOCK> pending_;
    std::unique_ptr<Channel> channel_;
};

void ChannelTest::write_and_read_back(unsigned clients, unsigned rounds)
{
    KSEMAPHORE ended;
    KeInitializeSemaphore(&ended, 0, static_cast<LONG>(clients));
    for (unsigned client = 0; client < clients; ++client) {
        machine.scheduler().spawn("client", [&, client] {
            const auto lun = static_cast<std::uint8_t>(client % 2);
            std::vector<std::uint8_t> out(512), in(512);
            for (unsigned round = 0; round < rounds; ++round) {
                std::ranges::fill(out, static_cast<std::uint8_t>(client * 37 + round));
                EXPECT_TRUE(port().write(lun, client, out.data(), 512));
                EXPECT_TRUE(port().read(lun, client, in.data(), 512));
                EXPECT_EQ(in, out);
            }
            KeReleaseSemaphore(&ended, 0, 1, FALSE);
        });
    }
    for (unsigned client = 0; client < clients; ++client)
        KeWaitForSingleObject(&ended, Executive, KernelMode, FALSE, nullptr);
    EXPECT_EQ(port().in_flight(), 0U);
}

class SeededChannel : public ChannelTest, public testing::WithParamInterface<unsigned> {
protected:
    SeededChannel() : ChannelTest(config(SchedulerKind::simulated, GetParam())) {}
};

TEST_P(SeededChannel, Workers_complete_requests_through_one_reused_irp)
{
    miniport.start_io = [this](PSCSI_REQUEST_BLOCK srb) { queue(srb); };
    run([&] {
        start_workers();
        write_and_read_back(12, 20);
    });
}
INSTANTIATE_TEST_SUITE_P(Seeds, SeededChannel, testing::Range(1U, 21U));

class RealChannel : public ChannelTest {
protected:
    RealChannel() : ChannelTest(config(SchedulerKind::real, 1)) {}
};

TEST_F(RealChannel, Workers_complete_requests_in_parallel_threads)
{
    miniport.start_io = [this](PSCSI_REQUEST_BLOCK srb) { queue(srb); };
    run([&] {
        start_workers();
        write_and_read_back(12, 500);
    });
}

TEST_F(ChannelTest, A_notice_passes_a_full_and_a_frozen_queue)
{
    miniport.start_io = [this](PSCSI_REQUEST_BLOCK srb) { miniport.hold(srb); };
    run([&] {
        channel_ = std::make_unique<Channel>(adapter().device());
        port().set_auto_release(false);
        std::vector<std::unique_ptr<ScsiRequest>> requests;
        std::array<std::uint8_t, 512> sector{};
        unsigned finished = 0;
        for (unsigned index = 0; index < 400; ++index) {
            requests.push_back(std::make_unique<ScsiRequest>(port()));
            // The first one fails, past the end of the disk, and freezes the queue.
            requests.back()->set_read(0, index == 0 ? 1000 : 0, sector.data(), 512);
            requests.back()->done = [&](ScsiRequest&) { ++finished; };
            port().submit(*requests.back());
        }
        ASSERT_EQ(miniport.held.size(), 254U);
        while (!miniport.held.empty()) {
            PSCSI_REQUEST_BLOCK srb = miniport.held.front();
            miniport.held.pop_front();
            channel_->send(srb, 0);
        }
        EXPECT_EQ(finished, 254U);
        EXPECT_TRUE(port().frozen(0));
        port().release_queue(0);
        EXPECT_EQ(miniport.held.size(), 146U);
    });
}

}  // namespace
