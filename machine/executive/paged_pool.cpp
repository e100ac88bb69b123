// SPDX-License-Identifier: MIT
#include "machine/executive/paged_pool.h"

#include <signal.h>
#include <sys/mman.h>

#include <algorithm>
#include <cstdint>
#include <mutex>
#include <vector>

#include "machine/executive/checks.h"
#include "machine/executive/page_allocator.h"
#include "machine/executive/unanswered_memory.h"

namespace machine {

std::atomic<bool> paged_blocks_in_memory = false;

namespace {

struct Block {
    std::uint8_t* pages;
    std::size_t bytes;  // whole pages
    void* start;        // its end is the end of the last page, as near as the alignment allows
    bool in_memory;
};

// The fault handler takes the lock too: nothing that runs under it touches a block.
std::mutex blocks_lock;
std::vector<Block> blocks;
struct sigaction previous_fault;

bool page_in(std::uintptr_t address)
{
    std::lock_guard guard(blocks_lock);
    const auto found = std::ranges::find_if(blocks, [=](const Block& block) {
        return address - reinterpret_cast<std::uintptr_t>(block.pages) < block.bytes;
    });
    if (found == blocks.end())
        return false;
    mprotect(found->pages, found->bytes, PROT_READ | PROT_WRITE);
    found->in_memory = true;
    paged_blocks_in_memory = true;
    return true;
}

void on_fault(int number, siginfo_t* info, void* context)
{
    if (!page_in(reinterpret_cast<std::uintptr_t>(info->si_addr)))
        pass_fault_on(previous_fault, number, info, context);
    else if (this_thread && this_thread->irql >= DISPATCH_LEVEL)
        irql_violation("paged pool is touched", APC_LEVEL);
}

void install_handler()
{
    struct sigaction action = {};
    action.sa_flags = SA_SIGINFO | SA_NODEFER;
    action.sa_sigaction = on_fault;
    sigaction(SIGSEGV, &action, &previous_fault);
}

}  // namespace

void* allocate_paged(std::size_t bytes)
{
    static std::once_flag installed;
    std::call_once(installed, install_handler);
    if (bytes > SIZE_MAX - page_bytes)
        return nullptr;
    const std::size_t whole = std::max<std::size_t>((bytes + page_bytes - 1) / page_bytes, 1) * page_bytes;
    void* pages = mmap(nullptr, whole, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (pages == MAP_FAILED)
        return nullptr;
    auto* const first = static_cast<std::uint8_t*>(pages);
    void* const start = first + (whole - bytes) / 8 * 8;
    std::lock_guard guard(blocks_lock);
    blocks.push_back({first, whole, start, false});
    return start;
}

bool free_paged(void* start)
{
    std::lock_guard guard(blocks_lock);
    const auto found = std::ranges::find(blocks, start, &Block::start);
    if (found == blocks.end())
        return false;
    munmap(found->pages, found->bytes);
    blocks.erase(found);
    return true;
}

void free_all_paged()
{
    std::lock_guard guard(blocks_lock);
    for (const Block& block : blocks)
        munmap(block.pages, block.bytes);
    blocks.clear();
}

void page_out()
{
    std::lock_guard guard(blocks_lock);
    for (Block& block : blocks)
        if (block.in_memory) {
            mprotect(block.pages, block.bytes, PROT_NONE);
            block.in_memory = false;
        }
    paged_blocks_in_memory = false;
}

}  // namespace machine
