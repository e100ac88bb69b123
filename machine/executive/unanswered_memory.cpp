// SPDX-License-Identifier: MIT
#include "machine/executive/unanswered_memory.h"

#include <signal.h>
#include <sys/mman.h>
#include <ucontext.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <vector>

#include "machine/executive/page_allocator.h"

namespace machine {
namespace {

constexpr greg_t trap_flag = 0x100;
constexpr std::uint8_t empty_bus = 0xFF;
constexpr unsigned pages_per_instruction_max = 4;

struct Area {
    std::uintptr_t begin;
    std::size_t bytes;
};

// The handlers take the lock too: nothing that runs under it touches an area.
std::mutex areas_lock;
std::vector<Area> areas;
struct sigaction previous_fault, previous_trap;

// The pages that the instruction in flight may use.
thread_local std::uint8_t* open_pages[pages_per_instruction_max];
thread_local unsigned open_page_count;

bool in_an_area(std::uintptr_t address)
{
    std::lock_guard guard(areas_lock);
    return std::ranges::any_of(
        areas, [=](const Area& area) { return address >= area.begin && address - area.begin < area.bytes; });
}

void on_fault(int number, siginfo_t* info, void* context)
{
    const auto address = reinterpret_cast<std::uintptr_t>(info->si_addr);
    if (!in_an_area(address) || open_page_count == pages_per_instruction_max) {
        return pass_fault_on(previous_fault, number, info, context);
    }
    auto* const page = reinterpret_cast<std::uint8_t*>(address / page_bytes * page_bytes);
    mprotect(page, page_bytes, PROT_READ | PROT_WRITE);
    std::memset(page, empty_bus, page_bytes);
    open_pages[open_page_count++] = page;
    static_cast<ucontext_t*>(context)->uc_mcontext.gregs[REG_EFL] |= trap_flag;
}

void on_trap(int number, siginfo_t*, void* context)
{
    if (open_page_count == 0) {
        sigaction(number, &previous_trap, nullptr);
        raise(number);
        return;
    }
    while (open_page_count > 0) {
        std::uint8_t* const page = open_pages[--open_page_count];
        mprotect(page, page_bytes, PROT_NONE);
        madvise(page, page_bytes, MADV_DONTNEED);
    }
    static_cast<ucontext_t*>(context)->uc_mcontext.gregs[REG_EFL] &= ~trap_flag;
}

void install_handlers()
{
    struct sigaction action = {};
    action.sa_flags = SA_SIGINFO;
    action.sa_sigaction = on_fault;
    sigaction(SIGSEGV, &action, &previous_fault);
    action.sa_sigaction = on_trap;
    sigaction(SIGTRAP, &action, &previous_trap);
}

}  // namespace

void pass_fault_on(const struct sigaction& previous, int number, siginfo_t* info, void* context)
{
    if ((previous.sa_flags & SA_SIGINFO) && previous.sa_sigaction)
        previous.sa_sigaction(number, info, context);
    else
        sigaction(number, &previous, nullptr);  // the instruction faults again, for the one before
}

void* map_unanswered(std::size_t bytes)
{
    static std::once_flag installed;
    std::call_once(installed, install_handlers);
    void* mapped = mmap(nullptr, bytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (mapped != MAP_FAILED) {
        std::lock_guard guard(areas_lock);
        areas.push_back({reinterpret_cast<std::uintptr_t>(mapped), bytes});
    }
    return mapped;
}

void forget_unanswered(const void* mapped)
{
    std::lock_guard guard(areas_lock);
    std::erase_if(areas,
                  [=](const Area& area) { return area.begin == reinterpret_cast<std::uintptr_t>(mapped); });
}

}  // namespace machine
