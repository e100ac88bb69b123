// SPDX-License-Identifier: MIT
// What the tests of the transport share: opening its device, sending it control requests as a driver
// does, and catching violations.
#pragma once

#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>
#include <nt.h>

#include "machine/machine.h"

struct Handover {
    VOID(NTAPI* send)(PVOID, PVOID, ULONG, PVOID, ULONG);
    ULONG(NTAPI* receive)(PVOID*);
    VOID(NTAPI* release)(PVOID);
    std::uint8_t* block;
    ULONG* flag;
};

constexpr ULONG handshake_code = 0x8000100;
constexpr ULONG no_server_code = 0x8000104;

struct ControlResult {
    NTSTATUS returned;  // by IofCallDriver
    NTSTATUS final;
    ULONG_PTR information;
};

// One control request, waited for. Call from a kernel thread.
inline ControlResult control(ULONG code, void* input, ULONG input_bytes, void* output, ULONG output_bytes)
{
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, L"\\Device\\QRNNDIS");
    PFILE_OBJECT file = nullptr;
    PDEVICE_OBJECT device = nullptr;
    const NTSTATUS opened = IoGetDeviceObjectPointer(&name, FILE_ALL_ACCESS, &file, &device);
    if (!NT_SUCCESS(opened))
        return {opened, opened, 0};
    KEVENT done;
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    IO_STATUS_BLOCK status{};
    PIRP irp = IoBuildDeviceIoControlRequest(code, device, input, input_bytes, output, output_bytes, FALSE,
                                             &done, &status);
    const NTSTATUS returned = IofCallDriver(device, irp);
    if (returned == STATUS_PENDING)
        KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
    ObfDereferenceObject(file);
    // A request that fails at once leaves the status block alone, as on Windows.
    return {returned, returned == STATUS_PENDING ? status.Status : returned, status.Information};
}

inline Handover shake_hands()
{
    std::uint8_t block[360] = {};
    Handover handover{};
    const ControlResult result = control(handshake_code, block, sizeof block, &handover, sizeof handover);
    EXPECT_EQ(result.final, STATUS_SUCCESS);
    return handover;
}

// The message of the violation that body ends in as a kernel thread; empty when it ends in none.
inline std::string violation_in(machine::Machine& machine, std::function<void()> body)
{
    machine::set_violation_handler([](const std::string& message) { throw std::logic_error(message); });
    std::string message;
    try {
        machine.run(std::move(body));
    } catch (const std::logic_error& broken_rule) {
        message = broken_rule.what();
    }
    machine::set_violation_handler({});
    return message;
}
