// A miniport whose own threads finish requests: they send one control request, the same IRP and SRB each
// time, through the port driver, and HwStartIo completes the finished SRB.
#include <deque>
#include <mutex>

#include "tests/scsiport/port_test.h"

using namespace machine;

namespace {

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

    void send(PSCSI_REQUEST_BLOCK finished, UCHAR lun)
    {
        KeWaitForSingleObject(&free_, Executive, KernelMode, FALSE, nullptr);
        srb_.Lun = lun;
        srb_.OriginalRequest = irp_;
        control_.ReturnCode = static_cast<ULONG>(reinterpret_cast<ULONG_PTR>(finished));
        PIO_STACK_LOCATION location = IoGetNextIrpStackLocation(irp_);
        location->MajorFunction = IRP_MJ_SCSI;
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

class ChannelTest : public PortTest, public testing::WithParamInterface<machine::MachineConfig> {
protected:
    ChannelTest() : PortTest(GetParam()) {}

    void start_workers()
    {
        KeInitializeSemaphore(&waiting_, 0, 0x7FFFFFFF);
        channel_ = std::make_unique<Channel>(adapter().device());
        for (int worker = 0; worker < 4; ++worker)
            machine.scheduler().spawn("worker", [this] { work(); });
    }
    void queue(PSCSI_REQUEST_BLOCK srb)
    {
        if (srb->Function != SRB_FUNCTION_EXECUTE_SCSI ||
            (srb->Cdb[0] != SCSIOP_READ && srb->Cdb[0] != SCSIOP_WRITE))
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
    KSEMAPHORE waiting_;
    std::mutex lock_;
    std::deque<PSCSI_REQUEST_BLOCK> pending_;
    std::unique_ptr<Channel> channel_;
};

TEST_P(ChannelTest, Workers_complete_the_requests_of_many_clients_through_one_reused_irp)
{
    constexpr unsigned clients = 12;
    const unsigned rounds = GetParam().scheduler == SchedulerKind::real ? 500 : 20;
    miniport.start_io = [this](PSCSI_REQUEST_BLOCK srb) { queue(srb); };
    run([&] {
        start_workers();
        KSEMAPHORE ended;
        KeInitializeSemaphore(&ended, 0, clients);
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
    });
}

std::vector<MachineConfig> configurations()
{
    std::vector<MachineConfig> all{{.scheduler = SchedulerKind::real}};
    for (std::uint64_t seed = 1; seed <= 20; ++seed)
        all.push_back({.seed = seed});
    return all;
}
INSTANTIATE_TEST_SUITE_P(RealAndSeeds, ChannelTest, testing::ValuesIn(configurations()));

}  // namespace
