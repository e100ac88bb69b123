// SPDX-License-Identifier: MIT
// What a scheduler needs of the executive above it: the two ways into kernel code, and what is held to when
// it comes back. Called at the bottom of a kernel thread's stack and in the context of timer callbacks.
#pragma once

#include <functional>

namespace machine {

struct Thread;

class KernelEntry {
public:
    // Runs the body of a kernel thread and everything its end means: the checks and the signalled thread
    // object.
    virtual void run_thread(Thread& thread, const std::function<void()>& body) = 0;
    // Runs a timer callback at DISPATCH_LEVEL and checks what it leaves.
    virtual void run_callback(Thread& context, const std::function<void()>& callback) = 0;

protected:
    ~KernelEntry() = default;
};

}  // namespace machine
