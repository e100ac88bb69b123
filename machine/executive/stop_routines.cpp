// SPDX-License-Identifier: MIT
// What stops the machine: bug checks, and a reset through the ports.
#include <nt.h>

#include "machine/executive/checks.h"
#include "machine/executive/executive.h"

using namespace machine;

namespace {

std::uint16_t port_number(const UCHAR* port)
{
    const auto number = reinterpret_cast<std::uintptr_t>(port);
    if (number > UINT16_MAX)
        violation("port I/O beyond port 0xFFFF");
    return static_cast<std::uint16_t>(number);
}

}  // namespace

extern "C" {

VOID NTAPI KeBugCheckEx(ULONG code, ULONG_PTR, ULONG_PTR, ULONG_PTR, ULONG_PTR)
{
    self();
    stop_machine(Outcome::bug_check, code);
}

VOID NTAPI KeBugCheck(ULONG code)
{
    KeBugCheckEx(code, 0, 0, 0, 0);
}

VOID NTAPI WRITE_PORT_UCHAR(PUCHAR port, UCHAR value)
{
    self();
    ExecutiveState& kernel = executive();
    kernel.ports.write(port_number(port), value);
    if (kernel.ports.reset_requested())
        stop_machine(Outcome::reset);
}

UCHAR NTAPI READ_PORT_UCHAR(PUCHAR port)
{
    self();
    return executive().ports.read(port_number(port));
}

}  // extern "C"
