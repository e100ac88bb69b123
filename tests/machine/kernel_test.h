// What the tests of the machine share: broken rules that can be caught, waits in milliseconds, and
// threads made the way a driver makes them.
#pragma once

#include <functional>
#include <string>

#include <gtest/gtest.h>

#include <nt.h>

#include "machine/machine.h"

namespace machine::test {

// Broken rules become exceptions while this exists.
class CaughtViolations {
public:
    struct Violation {
        std::string message;
    };

    CaughtViolations()
    {
        set_violation_handler([](const std::string& message) { throw Violation{message}; });
    }
    ~CaughtViolations() { set_violation_handler(nullptr); }
    CaughtViolations(const CaughtViolations&) = delete;
    CaughtViolations& operator=(const CaughtViolations&) = delete;
};

// The message of the rule that body breaks as a kernel thread of a fresh machine; empty when it breaks
// none and comes to its end.
inline std::string broken_rule(const std::function<void(Machine&)>& body, MachineConfig config = {})
{
    CaughtViolations caught;
    Machine machine(config);
    try {
        if (machine.run([&] { body(machine); }) != Outcome::finished)
            return "(none, but the run did not come to its end)";
    } catch (const CaughtViolations::Violation& violation) {
        return violation.message;
    }
    return {};
}

#define EXPECT_BREAKS(rule, message_piece)                                                                   \
    do {                                                                                                     \
        const std::string broken = ::machine::test::broken_rule(rule);                                       \
        EXPECT_NE(broken.find(message_piece), std::string::npos) << "broken rule: \"" << broken << '"';      \
    } while (false)

// Runs body as a kernel thread that must come to its end: a stalled one would leave its last checks out.
inline void run_to_end(Machine& machine, std::function<void()> body)
{
    EXPECT_EQ(machine.run(std::move(body)), Outcome::finished);
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

inline UNICODE_STRING counted(const wchar_t* text)
{
    UNICODE_STRING string;
    RtlInitUnicodeString(&string, text);
    return string;
}

}  // namespace machine::test
