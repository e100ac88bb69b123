// SPDX-License-Identifier: MIT
#include "machine/scheduler/fiber.h"

#include <cxxabi.h>
#include <sys/mman.h>

#include <cstring>
#include <mutex>
#include <new>
#include <utility>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#include <sanitizer/common_interface_defs.h>

// A machine that is switched off drops its fibers without unwinding them; what their frames owned is
// left behind on purpose.
extern "C" const char* __asan_default_options()
{
    return "detect_leaks=0";
}
#endif

extern "C" void machine_switch_stack(void** save, void* load);

// Callee-saved registers go to the old stack, its pointer to *save, and the same back from the new one.
asm(R"(
    .text
    .globl machine_switch_stack
    .type machine_switch_stack, @function
machine_switch_stack:
    movl 4(%esp), %eax
    movl 8(%esp), %ecx
    pushl %ebp
    pushl %ebx
    pushl %esi
    pushl %edi
    movl %esp, (%eax)
    movl %ecx, %esp
    popl %edi
    popl %esi
    popl %ebx
    popl %ebp
    ret
    .size machine_switch_stack, . - machine_switch_stack
)");

namespace machine {
namespace {

constexpr std::size_t page_bytes = 4096;
#if defined(__SANITIZE_ADDRESS__)
constexpr std::size_t stack_bytes = 512 * 1024;  // frames are much larger with red zones
#else
constexpr std::size_t stack_bytes = 256 * 1024;
#endif
#if defined(__SANITIZE_ADDRESS__) || !defined(__OPTIMIZE__)
constexpr bool frames_are_small = false;
#else
constexpr bool frames_are_small = true;
#endif
constexpr std::uint8_t paint = 0xC7;
constexpr std::size_t cached_stacks_max = 64;

std::mutex stack_cache_lock;

// Stacks that fibers gave back. A campaign makes thousands of machines one after another.
std::vector<std::uint8_t*>& stack_cache()
{
    static std::vector<std::uint8_t*> cache;
    return cache;
}

std::uint8_t* take_stack()
{
    {
        std::lock_guard guard(stack_cache_lock);
        auto& cache = stack_cache();
        if (!cache.empty()) {
            std::uint8_t* stack = cache.back();
            cache.pop_back();
            return stack;
        }
    }
    void* memory = mmap(nullptr, stack_bytes + page_bytes, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
    if (memory == MAP_FAILED)
        throw std::bad_alloc();
    mprotect(memory, page_bytes, PROT_NONE);
    return static_cast<std::uint8_t*>(memory);
}

void give_stack_back(std::uint8_t* stack)
{
#if defined(__SANITIZE_ADDRESS__)
    __asan_unpoison_memory_region(stack + page_bytes, stack_bytes);
#endif
    std::lock_guard guard(stack_cache_lock);
    auto& cache = stack_cache();
    if (cache.size() < cached_stacks_max)
        cache.push_back(stack);
    else
        munmap(stack, stack_bytes + page_bytes);
}

struct Switch {
    Fiber* from = nullptr;
    Fiber* to = nullptr;
};
thread_local Switch last_switch;

// Of the calling host thread. Not inlined: behind a switch that may be another one than before it.
[[gnu::noinline]] Switch& own_last_switch()
{
    asm volatile("");
    return last_switch;
}

}  // namespace

Fiber::~Fiber()
{
    drop_stack();
}

void Fiber::prepare(Entry entry, void* argument)
{
    stack_ = take_stack();
    if (frames_are_small)
        std::memset(stack_ + page_bytes + stack_bytes - painted_bytes, paint, painted_bytes);
    entry_ = entry;
    argument_ = argument;
    bottom_ = stack_ + page_bytes;
    bytes_ = stack_bytes;
    exceptions_ = {};
    sanitizer_state_ = nullptr;
    // Four registers, the address to return to, and a null return address that ends back traces; above
    // it the stack is aligned to 16 bytes.
    auto** top = reinterpret_cast<void**>(stack_ + page_bytes + stack_bytes - 16 - sizeof(void*));
    top[0] = nullptr;
    *--top = reinterpret_cast<void*>(&Fiber::enter);
    for (int saved = 0; saved < 4; ++saved)
        *--top = nullptr;
    stack_pointer_ = top;
}

std::size_t Fiber::deepest_use() const
{
    if (!stack_ || !frames_are_small)
        return 0;
    const std::uint8_t* const top = stack_ + page_bytes + stack_bytes;
    const std::uint8_t* place = top - painted_bytes;
    while (place < top && *place == paint)
        ++place;
    return static_cast<std::size_t>(top - place);
}

void Fiber::drop_stack()
{
    if (stack_)
        give_stack_back(std::exchange(stack_, nullptr));
}

void Fiber::switch_over(Fiber& from, Fiber& to)
{
    auto* live = reinterpret_cast<ExceptionState*>(abi::__cxa_get_globals());
    from.exceptions_ = *live;
    *live = to.exceptions_;
    own_last_switch() = {&from, &to};
#if defined(__SANITIZE_ADDRESS__)
    __sanitizer_start_switch_fiber(&from.sanitizer_state_, to.bottom_, to.bytes_);
#endif
    machine_switch_stack(&from.stack_pointer_, to.stack_pointer_);
#if defined(__SANITIZE_ADDRESS__)
    Fiber& left = *own_last_switch().from;
    __sanitizer_finish_switch_fiber(from.sanitizer_state_, &left.bottom_, &left.bytes_);
#endif
}

void Fiber::enter()
{
#if defined(__SANITIZE_ADDRESS__)
    Fiber& left = *own_last_switch().from;
    __sanitizer_finish_switch_fiber(nullptr, &left.bottom_, &left.bytes_);
#endif
    Fiber& fiber = *own_last_switch().to;
    fiber.entry_(fiber.argument_);
    __builtin_trap();
}

}  // namespace machine
