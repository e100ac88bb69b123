// SPDX-License-Identifier: MIT
#include "machine/transport/transport.h"

#include <atomic>
#include <cstring>

#include <nt.h>

#include "machine/executive/threads.h"
#include "machine/scheduler/kernel_scheduler.h"
#include "machine/scheduler/violation.h"

namespace machine {
namespace {

constexpr ULONG handshake_code = CTL_CODE(0x800, 0x40, METHOD_BUFFERED, FILE_ANY_ACCESS);
constexpr ULONG no_server_code = CTL_CODE(0x800, 0x41, METHOD_BUFFERED, FILE_ANY_ACCESS);
constexpr std::size_t datagram_bytes_max = 65507;  // what IPv4 and UDP leave of 65535

struct Handover {
    VOID(NTAPI* QRN_Send)(PVOID, PVOID, ULONG, PVOID, ULONG);
    ULONG(NTAPI* QRN_Recv)(PVOID*);
    VOID(NTAPI* QRN_Release)(PVOID);
    formats::Boot_Param* pNdis_Block;
    volatile ULONG* pTrans_Flag;
};

static_assert(handshake_code == 0x8000100 && no_server_code == 0x8000104);
static_assert(sizeof(Handover) == 20);

struct State {
    explicit State(Link& carrier) : link(carrier) {}

    Link& link;
    DRIVER_OBJECT driver{};
    PDEVICE_OBJECT device = nullptr;
    formats::Boot_Param block{};
    formats::Boot_Param received_block{};
    volatile ULONG flag = 0;  // the driver writes it through the handover
    Ticks pending = 0;
    bool without_entries = false;
    bool without_flag = false;
    unsigned handshakes = 0;
    unsigned no_server_notices = 0;
    // Counts an empty result of QRN_Recv too: it is released like a packet.
    std::atomic<unsigned> unreleased = 0;
};

// The entry points carry no context; one machine, and so one transport, exists at a time.
std::atomic<State*> the_transport = nullptr;

// The state for an entry point called at no more than the given IRQL. Asking for the IRQL comes first:
// threads of a machine that is switched off go no further than that.
State& enter(const char* entry, KIRQL irql_max)
{
    if (KeGetCurrentIrql() > irql_max)
        violation(std::string(entry) + ": IRQL too high");
    State* state = the_transport;
    if (!state)
        violation(std::string(entry) + ": the machine has no transport");
    return *state;
}

VOID NTAPI QRN_Send(PVOID server, PVOID header, ULONG header_bytes, PVOID data, ULONG data_bytes)
{
    State& state = enter("QRN_Send", DISPATCH_LEVEL);
    if (!server || !header || !header_bytes || (!data && data_bytes))
        violation("QRN_Send: a pointer is null or the header is empty");
    if (header_bytes > datagram_bytes_max || data_bytes > datagram_bytes_max - header_bytes)
        violation("QRN_Send: " + std::to_string(header_bytes) + " + " + std::to_string(data_bytes) +
                  " bytes do not fit a datagram");
    formats::ServerRecord to;
    std::memcpy(&to, server, sizeof to);
    state.link.send(to, {static_cast<const std::uint8_t*>(header), header_bytes},
                    {static_cast<const std::uint8_t*>(data), data_bytes});
}

ULONG NTAPI QRN_Recv(PVOID* header)
{
    State& state = enter("QRN_Recv", PASSIVE_LEVEL);
    if (!header)
        violation("QRN_Recv: the place for the header pointer is null");
    wake_waiters();
    const ULONG bytes = state.link.receive(header);
    KeGetCurrentIrql();  // the machine, and with it the transport, may have gone during the wait
    ++state.unreleased;
    return bytes;
}

VOID NTAPI QRN_Release(PVOID header)
{
    State& state = enter("QRN_Release", DISPATCH_LEVEL);
    if (state.unreleased.fetch_sub(1) == 0)
        violation("QRN_Release: no packet is out");
    if (header)
        state.link.release(header);
}

NTSTATUS complete(PIRP irp, NTSTATUS status, ULONG_PTR information)
{
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = information;
    IofCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

// Takes the caller's block and fills the answer; returns its status and length.
NTSTATUS serve(State& state, const IO_STACK_LOCATION& request, void* buffer, ULONG_PTR& information)
{
    const auto& parameters = request.Parameters.DeviceIoControl;
    const ULONG code = parameters.IoControlCode;
    if (code != handshake_code && code != no_server_code)
        return STATUS_INVALID_DEVICE_REQUEST;
    if (parameters.InputBufferLength < sizeof(formats::Boot_Param))
        return STATUS_INVALID_PARAMETER;
    if (code == handshake_code && parameters.OutputBufferLength < sizeof(Handover))
        return STATUS_BUFFER_TOO_SMALL;

    std::memcpy(&state.received_block, buffer, sizeof state.received_block);
    if (code == no_server_code) {
        ++state.no_server_notices;
        return STATUS_SUCCESS;
    }
    ++state.handshakes;
    const Handover handover{.QRN_Send = state.without_entries ? nullptr : QRN_Send,
                            .QRN_Recv = QRN_Recv,
                            .QRN_Release = QRN_Release,
                            .pNdis_Block = &state.block,
                            .pTrans_Flag = state.without_flag ? nullptr : &state.flag};
    std::memcpy(buffer, &handover, sizeof handover);
    information = sizeof handover;
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI dispatch_create(PDEVICE_OBJECT, PIRP irp)
{
    const bool named = IoGetCurrentIrpStackLocation(irp)->FileObject->FileName.Length != 0;
    return complete(irp, named ? STATUS_OBJECT_NAME_NOT_FOUND : STATUS_SUCCESS, 0);
}

NTSTATUS NTAPI dispatch_close(PDEVICE_OBJECT, PIRP irp)
{
    return complete(irp, STATUS_SUCCESS, 0);
}

NTSTATUS NTAPI dispatch_other(PDEVICE_OBJECT, PIRP irp)
{
    return complete(irp, STATUS_INVALID_DEVICE_REQUEST, 0);
}

NTSTATUS NTAPI dispatch_control(PDEVICE_OBJECT device, PIRP irp)
{
    State& state = **static_cast<State**>(device->DeviceExtension);
    ULONG_PTR information = 0;
    const NTSTATUS status =
        serve(state, *IoGetCurrentIrpStackLocation(irp), irp->AssociatedIrp.SystemBuffer, information);
    if (state.pending == 0)
        return complete(irp, status, information);

    IoMarkIrpPending(irp);
    scheduler().call_at(scheduler().now() + state.pending,
                        [irp, status, information] { complete(irp, status, information); });
    return STATUS_PENDING;
}

}  // namespace

struct Transport::Parts : State {
    using State::State;
};

Transport::Transport(Link& link) : parts_(std::make_unique<Parts>(link))
{
    for (auto& function : parts_->driver.MajorFunction)
        function = dispatch_other;
    parts_->driver.MajorFunction[IRP_MJ_CREATE] = dispatch_create;
    parts_->driver.MajorFunction[IRP_MJ_CLEANUP] = dispatch_close;
    parts_->driver.MajorFunction[IRP_MJ_CLOSE] = dispatch_close;
    parts_->driver.MajorFunction[IRP_MJ_DEVICE_CONTROL] = dispatch_control;

    UNICODE_STRING name;
    RtlInitUnicodeString(&name, L"\\Device\\QRNNDIS");
    const NTSTATUS status = IoCreateDevice(&parts_->driver, sizeof(State*), &name, FILE_DEVICE_NETWORK, 0,
                                           FALSE, &parts_->device);
    if (!NT_SUCCESS(status))
        violation("the transport's device cannot be created");
    *static_cast<State**>(parts_->device->DeviceExtension) = parts_.get();
    parts_->device->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
    the_transport = parts_.get();
}

Transport::~Transport()
{
    the_transport = nullptr;
    IoDeleteDevice(parts_->device);
}

formats::Boot_Param& Transport::block()
{
    return parts_->block;
}

void Transport::set_pending_ms(std::int64_t ms)
{
    parts_->pending = ms * ticks_per_ms;
}

void Transport::set_without_entries(bool on)
{
    parts_->without_entries = on;
}

void Transport::set_without_flag(bool on)
{
    parts_->without_flag = on;
}

std::uint32_t Transport::flag() const
{
    return parts_->flag;
}

void Transport::set_flag(std::uint32_t value)
{
    parts_->flag = value;
}

unsigned Transport::handshakes() const
{
    return parts_->handshakes;
}

unsigned Transport::no_server_notices() const
{
    return parts_->no_server_notices;
}

const formats::Boot_Param& Transport::received_block() const
{
    return parts_->received_block;
}

unsigned Transport::unreleased() const
{
    return parts_->unreleased;
}

}  // namespace machine
