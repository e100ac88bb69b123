// SPDX-License-Identifier: MIT
// What the tests of the machine share: broken rules that can be caught, waits in milliseconds, and
// threads made the way a driver makes them.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <nt.h>

#include "machine/machine.h"

namespace machine::test {

// The message of the rule that body breaks as a kernel thread of a fresh machine; empty when it breaks
// none and comes to its end.
inline std::string broken_rule(const std::function<void(Machine&)>& body, MachineConfig config = {})
{
    set_violation_handler([](const std::string& message) { throw message; });
    std::string result;
    try {
        Machine machine(config);
        if (machine.run([&] { body(machine); }) != Outcome::finished)
            result = "(none, but the run did not come to its end)";
    } catch (const std::string& message) {
        result = message;
    }
    set_violation_handler(nullptr);
    return result;
}

struct BrokenRule {
    const char* name;
    std::function<void(Machine&)> body;
    const char* message_piece;
};

// Each body breaks its rule, and is told so.
inline void expect_breaks(std::initializer_list<BrokenRule> rules)
{
    for (const BrokenRule& rule : rules) {
        const std::string broken = broken_rule(rule.body);
        EXPECT_NE(broken.find(rule.message_piece), std::string::npos)
            << rule.name << ": broken rule: \"" << broken << '"';
    }
}

// Runs body as a kernel thread that must come to its end: a stalled one would leave its last checks out.
inline void run_to_end(Machine& machine, std::function<void()> body)
{
    EXPECT_EQ(machine.run(std::move(body)), Outcome::finished);
}

// The same in a fresh machine.
inline void in_machine(const std::function<void(Machine&)>& body, MachineConfig config = {})
{
    Machine machine(config);
    run_to_end(machine, [&] { body(machine); });
}

// A wait that lasts at most this long; negative: for ever.
inline NTSTATUS wait_ms(void* object, std::int64_t ms = -1)
{
    LARGE_INTEGER timeout;
    timeout.QuadPart = -ms * ticks_per_ms;
    return KeWaitForSingleObject(object, Executive, KernelMode, FALSE, ms < 0 ? nullptr : &timeout);
}

inline void set(KEVENT& event)
{
    KeSetEvent(&event, IO_NO_INCREMENT, FALSE);
}

// Starts a system thread that runs body, and returns its object.
inline PKTHREAD start_thread(std::function<void()> body)
{
    HANDLE handle;
    auto* owned = new std::function<void()>(std::move(body));
    const auto routine = [](PVOID context) __attribute__((stdcall))
    {
        auto* function = static_cast<std::function<void()>*>(context);
        (*function)();
        delete function;
    };
    EXPECT_EQ(PsCreateSystemThread(&handle, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr, routine, owned),
              STATUS_SUCCESS);
    PVOID object;
    EXPECT_EQ(ObReferenceObjectByHandle(handle, 0, *PsThreadType, KernelMode, &object, nullptr),
              STATUS_SUCCESS);
    ZwClose(handle);
    return static_cast<PKTHREAD>(object);
}

// Runs body in so many threads, each with its number, until all have ended.
inline void run_threads(int count, const std::function<void(int)>& body)
{
    std::vector<PKTHREAD> threads;
    for (int index = 0; index < count; ++index)
        threads.push_back(start_thread([&, index] { body(index); }));
    for (PKTHREAD thread : threads)
        EXPECT_EQ(wait_ms(thread), STATUS_SUCCESS);
}

inline void locked(KSPIN_LOCK& lock, const std::function<void()>& body)
{
    KIRQL irql;
    KeAcquireSpinLock(&lock, &irql);
    body();
    KeReleaseSpinLock(&lock, irql);
}

inline UNICODE_STRING counted(const wchar_t* text)
{
    UNICODE_STRING string;
    RtlInitUnicodeString(&string, text);
    return string;
}

}  // namespace machine::test
