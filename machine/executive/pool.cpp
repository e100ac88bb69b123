// SPDX-License-Identifier: MIT
#include "machine/executive/pool.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "machine/executive/lock_order.h"
#include "machine/scheduler/violation.h"

namespace machine {
namespace {

constexpr std::uint8_t fresh_byte = 0xBA, freed_byte = 0xDF, guard_byte = 0xAF;
constexpr std::size_t guard_bytes = 16;
constexpr std::size_t quarantine_bytes_max = 4 * 1024 * 1024;
constexpr std::size_t quarantine_block_bytes_max = 256 * 1024;

bool all_equal(const std::uint8_t* bytes, std::size_t count, std::uint8_t value)
{
    return std::all_of(bytes, bytes + count, [value](std::uint8_t byte) { return byte == value; });
}

}  // namespace

std::string tag_text(std::uint32_t tag)
{
    std::string text(4, ' ');
    std::memcpy(text.data(), &tag, sizeof tag);
    return text;
}

struct Pool::Block {
    std::size_t bytes;
    std::uint32_t tag;
    std::uint8_t guard[guard_bytes];

    std::uint8_t* payload() { return reinterpret_cast<std::uint8_t*>(this + 1); }
    static Block* of(void* payload) { return static_cast<Block*>(payload) - 1; }

    const char* damage()
    {
        if (!all_equal(guard, guard_bytes, guard_byte))
            return "was written before its start";
        if (!all_equal(payload() + bytes, guard_bytes, guard_byte))
            return "was written behind its end";
        return nullptr;
    }

    std::string name() const
    {
        return "pool block \"" + tag_text(tag) + "\" of " + std::to_string(bytes) + " bytes";
    }

    void check_live()
    {
        if (const char* broken = damage())
            violation(name() + ' ' + broken);
    }

    void check_freed()
    {
        if (damage() || !all_equal(payload(), bytes, freed_byte))
            violation(name() + " was written after it was freed");
    }
};

Pool::~Pool()
{
    for (Block* block : live_)
        std::free(block);
    for (Block* block : freed_)
        std::free(block);
}

void* Pool::allocate(std::size_t bytes, std::uint32_t tag)
{
    static_assert(sizeof(Block) % 16 == 8, "blocks of malloc are aligned to 16 bytes");
    check_allowed(bytes, tag);
    if (bytes > SIZE_MAX - sizeof(Block) - guard_bytes)
        return nullptr;
    if (!reserve(bytes))
        return nullptr;
    void* memory = std::malloc(sizeof(Block) + bytes + guard_bytes);
    if (!memory) {
        std::lock_guard guard(lock_);
        live_bytes_ -= bytes;
        return nullptr;
    }
    auto* block = new (memory) Block{.bytes = bytes, .tag = tag, .guard = {}};
    std::memset(block->guard, guard_byte, guard_bytes);
    if (strict_)
        std::memset(block->payload(), fresh_byte, bytes);
    std::memset(block->payload() + bytes, guard_byte, guard_bytes);
    std::lock_guard guard(lock_);
    live_.insert(block);
    bytes_by_tag_[tag] += bytes;
    return block->payload();
}

void Pool::check_allowed(std::size_t bytes, std::uint32_t tag) const
{
    if (forbidden_)
        violation("the data path allocates: " + std::to_string(bytes) + " bytes, tag \"" + tag_text(tag) +
                  '"');
}

bool Pool::reserve(std::size_t bytes)
{
    std::lock_guard guard(lock_);
    if (bytes > bytes_max_ || live_bytes_ > bytes_max_ - bytes)
        return false;
    live_bytes_ += bytes;
    return true;
}

void Pool::free(void* payload, std::uint32_t tag)
{
    Block* block = Block::of(payload);
    {
        std::unique_lock guard(lock_);
        if (!live_.erase(block)) {
            const bool twice = std::ranges::find(freed_, block) != freed_.end();
            guard.unlock();
            violation(twice ? block->name() + " is freed twice" : "memory is freed that is no pool block");
        }
        bytes_by_tag_[block->tag] -= block->bytes;
        live_bytes_ -= block->bytes;
    }
    block->check_live();
    if (tag && tag != block->tag)
        violation(block->name() + " is freed with tag \"" + tag_text(tag) + '"');
    forget_lock_order(payload, block->bytes);
    if (strict_ && block->bytes <= quarantine_block_bytes_max)
        quarantine(block);
    else
        std::free(block);
}

void Pool::quarantine(Block* block)
{
    std::memset(block->payload(), freed_byte, block->bytes);
    std::vector<Block*> released;
    {
        std::lock_guard guard(lock_);
        freed_.push_back(block);
        freed_bytes_ += block->bytes;
        while (freed_bytes_ > quarantine_bytes_max) {
            released.push_back(freed_.front());
            freed_bytes_ -= freed_.front()->bytes;
            freed_.pop_front();
        }
    }
    for (Block* old : released) {
        old->check_freed();
        std::free(old);
    }
}

bool Pool::owns(const void* payload) const
{
    std::lock_guard guard(lock_);
    return live_.contains(Block::of(const_cast<void*>(payload)));
}

void Pool::check() const
{
    std::lock_guard guard(lock_);
    for (Block* block : live_)
        block->check_live();
    for (Block* block : freed_)
        block->check_freed();
}

std::uint64_t Pool::bytes(const std::string& tag) const
{
    std::lock_guard guard(lock_);
    std::uint64_t sum = 0;
    for (const auto& [value, bytes] : bytes_by_tag_)
        if (tag.empty() || tag == tag_text(value))
            sum += bytes;
    return sum;
}

std::vector<PoolUse> Pool::live() const
{
    std::lock_guard guard(lock_);
    std::vector<PoolUse> uses;
    for (Block* block : live_)
        uses.push_back({tag_text(block->tag), block->bytes, block->payload()});
    return uses;
}

}  // namespace machine
