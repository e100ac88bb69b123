// SPDX-License-Identifier: MIT
// One fiber: a stack of its own and the switch between two of them. It may go on on another host thread than
// the one on which it was left, unless that one has not yet arrived on its next stack.
#pragma once

#include <cstddef>
#include <cstdint>

namespace machine {

class Fiber {
public:
    using Entry = void (*)(void* argument);

    // The context of the host thread itself, without a stack of its own.
    Fiber() = default;
    ~Fiber();
    Fiber(const Fiber&) = delete;
    Fiber& operator=(const Fiber&) = delete;

    // Gives the fiber a stack on which the first switch to it calls entry, which must not return.
    void prepare(Entry entry, void* argument);
    // The stack is no longer needed; its frames are not unwound. Not for the running fiber.
    void drop_stack();

    // How deep the stack has been used, in bytes, up to painted_bytes; 0 where that says nothing of a
    // kernel's stack: without one, with sanitizers, and without optimisation.
    std::size_t deepest_use() const;
    static constexpr std::size_t painted_bytes = 16 * 1024;

    // Leaves `from` where it stands and continues `to`; returns when something switches back.
    static void switch_over(Fiber& from, Fiber& to);

private:
    [[noreturn]] static void enter();

    struct ExceptionState {  // the C++ runtime's view of exceptions in flight
        void* caught = nullptr;
        unsigned uncaught = 0;
    };

    void* stack_pointer_ = nullptr;
    std::uint8_t* stack_ = nullptr;  // lowest address, the guard page
    Entry entry_ = nullptr;
    void* argument_ = nullptr;
    ExceptionState exceptions_;
    void* sanitizer_state_ = nullptr;
    const void* bottom_ = nullptr;
    std::size_t bytes_ = 0;
};

}  // namespace machine
