// SPDX-License-Identifier: MIT
// From ScsiPortInitialize to a started adapter.
#include "machine/scheduler/kernel_scheduler.h"
#include "machine/scheduler/violation.h"
#include "machine/scsiport/adapter.h"
#include "machine/scsiport/in_miniport.h"
#include "machine/scsiport/internals.h"
#include "machine/scsiport/lock_guards.h"

namespace machine {
namespace {

Adapter& adapter_of(PDEVICE_OBJECT device)
{
    return **static_cast<Adapter**>(device->DeviceExtension);
}

NTSTATUS NTAPI dispatch_request(PDEVICE_OBJECT device, PIRP irp)
{
    return adapter_of(device).dispatch_scsi(irp);
}

NTSTATUS complete(PIRP irp, NTSTATUS status)
{
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = 0;
    IofCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

NTSTATUS NTAPI dispatch_open(PDEVICE_OBJECT, PIRP irp)
{
    return complete(irp, STATUS_SUCCESS);
}

NTSTATUS NTAPI dispatch_device_control(PDEVICE_OBJECT, PIRP irp)
{
    return complete(irp, STATUS_INVALID_DEVICE_REQUEST);
}

bool complete_registration(const HW_INITIALIZATION_DATA& registration)
{
    return registration.HwInitialize != nullptr && registration.HwStartIo != nullptr &&
           registration.HwFindAdapter != nullptr && registration.HwResetBus != nullptr &&
           registration.DeviceExtensionSize != 0;
}

NTSTATUS status_of_search(ULONG found)
{
    switch (found) {
    case SP_RETURN_FOUND:
        return STATUS_SUCCESS;
    case SP_RETURN_NOT_FOUND:
        return STATUS_NO_SUCH_DEVICE;
    case SP_RETURN_BAD_CONFIG:
        return STATUS_DEVICE_CONFIGURATION_ERROR;
    default:
        return STATUS_ADAPTER_HARDWARE_ERROR;
    }
}

}  // namespace

NTSTATUS Adapter::initialize(PDRIVER_OBJECT driver, const HW_INITIALIZATION_DATA& registration, PVOID context)
{
    if (registration.HwInitializationDataSize != sizeof(registration))
        return STATUS_REVISION_MISMATCH;
    if (!complete_registration(registration) || driver == nullptr)
        return STATUS_INVALID_PARAMETER;
    if (driver_ != nullptr)
        violation("ScsiPortInitialize twice: this machine carries one adapter");
    scheduler_ = &scheduler();
    driver_ = driver;
    registration_ = registration;
    hw_context_ = context;
    KeInitializeSpinLock(&adapter_lock_);
    KeInitializeSpinLock(&queue_lock_);

    set_up_dispatch();
    device_ = create_device(FILE_DEVICE_CONTROLLER);
    if (device_ == nullptr)
        return STATUS_INSUFFICIENT_RESOURCES;
    const NTSTATUS found = status_of_search(find_adapter(device_extension_, configuration_));
    if (found != STATUS_SUCCESS)
        return found;
    const NTSTATUS usable = check_configuration();
    if (usable != STATUS_SUCCESS)
        return usable;
    configure_queues();
    if (before_initialize)
        before_initialize(driver);
    if (!start_miniport())
        return STATUS_ADAPTER_HARDWARE_ERROR;

    SpinLockHoldAtDispatch hold(queue_lock_);
    started_ = true;
    pumping_ = false;
    pump();
    return STATUS_SUCCESS;
}

void Adapter::set_up_dispatch()
{
    driver_->MajorFunction[IRP_MJ_CREATE] = dispatch_open;
    driver_->MajorFunction[IRP_MJ_CLOSE] = dispatch_open;
    driver_->MajorFunction[IRP_MJ_DEVICE_CONTROL] = dispatch_device_control;
    driver_->MajorFunction[IRP_MJ_SCSI] = dispatch_request;
}

PDEVICE_OBJECT Adapter::create_device(DEVICE_TYPE type)
{
    PDEVICE_OBJECT device = nullptr;
    if (IoCreateDevice(driver_, sizeof(Adapter*), nullptr, type, 0, FALSE, &device) != STATUS_SUCCESS)
        return nullptr;
    *static_cast<Adapter**>(device->DeviceExtension) = this;
    return device;
}

// What the port driver knows or assumes before the miniport has looked.
PORT_CONFIGURATION_INFORMATION Adapter::proposed_configuration() const
{
    PORT_CONFIGURATION_INFORMATION proposal{};
    proposal.Length = sizeof(proposal);
    proposal.AdapterInterfaceType = registration_.AdapterInterfaceType;
    proposal.InterruptMode = Latched;
    proposal.InterruptMode2 = Latched;
    proposal.MaximumTransferLength = SP_UNINITIALIZED_VALUE;
    proposal.NumberOfPhysicalBreaks = SP_UNINITIALIZED_VALUE;
    proposal.DmaChannel = SP_UNINITIALIZED_VALUE;
    proposal.DmaPort = SP_UNINITIALIZED_VALUE;
    proposal.DmaChannel2 = SP_UNINITIALIZED_VALUE;
    proposal.DmaPort2 = SP_UNINITIALIZED_VALUE;
    proposal.NumberOfAccessRanges = registration_.NumberOfAccessRanges;
    for (UCHAR& id : proposal.InitiatorBusId)
        id = static_cast<UCHAR>(SP_UNINITIALIZED_VALUE);
    proposal.MapBuffers = registration_.MapBuffers;
    proposal.NeedPhysicalAddresses = registration_.NeedPhysicalAddresses;
    proposal.TaggedQueuing = registration_.TaggedQueuing;
    proposal.AutoRequestSense = registration_.AutoRequestSense;
    proposal.MultipleRequestPerLu = registration_.MultipleRequestPerLu;
    proposal.ReceiveEvent = registration_.ReceiveEvent;
    proposal.MaximumNumberOfTargets = SCSI_MAXIMUM_TARGETS;
    proposal.MaximumNumberOfLogicalUnits = SCSI_MAXIMUM_LOGICAL_UNITS;
    proposal.DeviceExtensionSize = registration_.DeviceExtensionSize;
    proposal.SpecificLuExtensionSize = registration_.SpecificLuExtensionSize;
    proposal.SrbExtensionSize = registration_.SrbExtensionSize;
    proposal.Dma64BitAddresses = SCSI_DMA64_SYSTEM_SUPPORTED;
    return proposal;
}

// Searches until the miniport has found an adapter or wants no further call.
ULONG Adapter::find_adapter(std::unique_ptr<std::byte[]>& extension, PORT_CONFIGURATION_INFORMATION& found)
{
    BOOLEAN again = TRUE;
    ULONG result = SP_RETURN_NOT_FOUND;
    while (again && result == SP_RETURN_NOT_FOUND) {
        extension = std::make_unique<std::byte[]>(registration_.DeviceExtensionSize);
        found = proposed_configuration();
        std::string text = arguments;
        again = FALSE;
        InMiniport call(*this, Call::find_adapter, extension.get());
        result =
            registration_.HwFindAdapter(extension.get(), hw_context_, nullptr, text.data(), &found, &again);
        call.check_irql();
    }
    if (result == SP_RETURN_FOUND && again) {
        std::unique_ptr<std::byte[]> further;
        PORT_CONFIGURATION_INFORMATION unused;
        if (find_adapter(further, unused) == SP_RETURN_FOUND)
            violation("the miniport found a second adapter: this machine carries one");
    }
    return result;
}

ULONG Adapter::search_again()
{
    {
        SpinLockHold hold(queue_lock_);
        if (pumping_ && started_)
            violation("an adapter search while the adapter is at work");
        pumping_ = true;
    }
    std::unique_ptr<std::byte[]> extension;
    PORT_CONFIGURATION_INFORMATION configuration;
    const ULONG result = find_adapter(extension, configuration);
    SpinLockHoldAtDispatch hold(queue_lock_);
    pumping_ = !started_;
    pump();
    return result;
}

NTSTATUS Adapter::check_configuration() const
{
    const PORT_CONFIGURATION_INFORMATION& found = configuration_;
    const bool usable = found.Length == sizeof(found) && found.NumberOfBuses >= 1 &&
                        found.NumberOfBuses <= SCSI_MAXIMUM_BUSES && found.MaximumNumberOfTargets >= 1 &&
                        found.MaximumNumberOfTargets <= SCSI_MAXIMUM_TARGETS_PER_BUS &&
                        found.MaximumNumberOfLogicalUnits >= 1 && found.MaximumTransferLength >= 512 &&
                        ((found.AlignmentMask + 1) & found.AlignmentMask) == 0;
    return usable ? STATUS_SUCCESS : STATUS_DEVICE_CONFIGURATION_ERROR;
}

bool Adapter::start_miniport()
{
    SpinLockHold hold(adapter_lock_);
    InMiniport call(*this, Call::initialize, device_extension_.get());
    const bool started = registration_.HwInitialize(device_extension_.get());
    call.check_irql();
    return started;
}

}  // namespace machine

extern "C" ULONG NTAPI ScsiPortInitialize(PVOID driver, PVOID, PHW_INITIALIZATION_DATA registration,
                                          PVOID context)
{
    using namespace machine;
    return static_cast<ULONG>(ScsiPort::Internals::current().adapter.initialize(
        static_cast<PDRIVER_OBJECT>(driver), *registration, context));
}
