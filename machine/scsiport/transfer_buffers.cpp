// SPDX-License-Identifier: MIT
#include "machine/scsiport/transfer_buffers.h"

#include <signal.h>
#include <sys/mman.h>

#include <algorithm>
#include <bit>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "machine/executive/page_allocator.h"
#include "machine/scheduler/violation.h"

namespace machine {

// [page out of reach][pages][page out of reach]
struct TransferBuffers::Area {
    std::byte* begin;
    std::size_t bytes;
    unsigned size_class;
    Area* next = nullptr;
    // The transfer that has it, or had it last.
    bool lent = false;
    SCSI_REQUEST_BLOCK srb{};

    std::byte* pages_end() const { return begin + bytes - page_bytes; }
};

namespace {

// Areas of a size rest until so many others rest as well, or so many bytes.
constexpr unsigned resting_max = 16;
constexpr std::size_t resting_bytes_max = 8 << 20;
constexpr std::uint32_t alignment_bytes = 4;
constexpr auto margin_fill = std::byte{0x6C};

// The handler takes the lock too: nothing that runs under it touches an area.
std::mutex areas_lock;
std::vector<TransferBuffers::Area*> all_areas;
struct sigaction previous_fault;

TransferBuffers::Area* area_at(const std::byte* address)
{
    std::lock_guard guard(areas_lock);
    const auto found = std::ranges::find_if(all_areas, [=](const TransferBuffers::Area* area) {
        return address >= area->begin && address < area->begin + area->bytes;
    });
    return found == all_areas.end() ? nullptr : *found;
}

// The process ends here, so it does not matter that little is allowed in a signal handler.
void tell(const TransferBuffers::Area& area)
{
    char text[160];
    std::snprintf(text, sizeof text,
                  "the data buffer of an SRB was touched %s (LUN %u, command %02X, %lu bytes)",
                  area.lent ? "where it must not be" : "after RequestComplete", area.srb.Lun, area.srb.Cdb[0],
                  static_cast<unsigned long>(area.srb.DataTransferLength));
    violation(text);
}

void on_fault(int number, siginfo_t* info, void* context)
{
    if (const TransferBuffers::Area* area = area_at(static_cast<const std::byte*>(info->si_addr)))
        tell(*area);
    if ((previous_fault.sa_flags & SA_SIGINFO) != 0)
        previous_fault.sa_sigaction(number, info, context);
    else
        sigaction(number, &previous_fault, nullptr);  // the instruction faults again, for the one before
}

void install_handler()
{
    struct sigaction action = {};
    action.sa_flags = SA_SIGINFO;
    action.sa_sigaction = on_fault;
    sigaction(SIGSEGV, &action, &previous_fault);
}

std::uint32_t pages_of(std::uint32_t bytes)
{
    return (bytes + page_bytes - 1) / page_bytes;
}

void allow(std::byte* end, std::uint32_t pages, Access access)
{
    constexpr int protections[] = {PROT_NONE, PROT_READ, PROT_READ | PROT_WRITE};
    if (pages != 0)
        mprotect(end - std::size_t{pages} * page_bytes, std::size_t{pages} * page_bytes,
                 protections[static_cast<int>(access)]);
}

// The bytes of the first page before the data, and those up to the end of the last one.
template <typename Each>
void for_margins(std::byte* first_page, std::byte* data, std::uint32_t bytes, std::byte* end, Each each)
{
    each(first_page, data);
    each(data + bytes, end);
}

}  // namespace

TransferBuffers::TransferBuffers()
{
    static std::once_flag installed;
    std::call_once(installed, install_handler);
}

TransferBuffers::~TransferBuffers()
{
    for (const auto& area : areas_) {
        {
            std::lock_guard guard(areas_lock);
            std::erase(all_areas, area.get());
        }
        munmap(area->begin, area->bytes);
    }
}

TransferBuffers::Area* TransferBuffers::make(unsigned size_class)
{
    const std::size_t bytes = (std::size_t{page_bytes} << size_class) + 2 * page_bytes;
    void* mapped = mmap(nullptr, bytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (mapped == MAP_FAILED)
        return nullptr;
    areas_.push_back(std::make_unique<Area>(
        Area{.begin = static_cast<std::byte*>(mapped), .bytes = bytes, .size_class = size_class}));
    std::lock_guard guard(areas_lock);
    all_areas.push_back(areas_.back().get());
    return areas_.back().get();
}

TransferBuffers::Area& TransferBuffers::area_of(unsigned size_class)
{
    Resting& resting = resting_[size_class];
    const std::size_t bytes = std::size_t{page_bytes} << size_class;
    const auto enough = std::clamp<std::size_t>(resting_bytes_max / bytes, 1, resting_max);
    if (resting.count < enough)
        if (Area* made = make(size_class))
            return *made;
    if (resting.first == nullptr)
        violation("no address space is left for the data of a transfer");
    Area& area = *resting.first;
    resting.first = area.next;
    --resting.count;
    return area;
}

TransferBuffers::Loan TransferBuffers::lend(const SCSI_REQUEST_BLOCK& srb, Access access)
{
    const std::uint32_t bytes = srb.DataTransferLength;
    const std::uint32_t pages = pages_of(bytes);
    Area& area = area_of(static_cast<unsigned>(std::bit_width(pages > 1 ? pages - 1 : 0)));
    area.lent = true;
    area.srb = srb;
    std::byte* const end = area.pages_end();
    Loan loan{.area = &area,
              .data = end - (bytes + alignment_bytes - 1) / alignment_bytes * alignment_bytes,
              .of_sender = srb.DataBuffer,
              .bytes = bytes,
              .access = access};
    if (access == Access::none || bytes == 0)
        return loan;
    allow(end, pages, Access::read_write);
    for_margins(end - std::size_t{pages} * page_bytes, loan.data, bytes, end,
                [](std::byte* from, std::byte* to) { std::fill(from, to, margin_fill); });
    std::memcpy(loan.data, srb.DataBuffer, bytes);
    if (access == Access::read)
        allow(end, pages, Access::read);
    return loan;
}

void TransferBuffers::take_back(Loan& loan)
{
    Area& area = *loan.area;
    std::byte* const end = area.pages_end();
    const std::uint32_t pages = pages_of(loan.bytes);
    if (loan.access == Access::read_write && loan.bytes != 0) {
        for_margins(end - std::size_t{pages} * page_bytes, loan.data, loan.bytes, end,
                    [](const std::byte* from, const std::byte* to) {
                        if (std::any_of(from, to, [](std::byte value) { return value != margin_fill; }))
                            violation("the miniport wrote beside the data buffer of an SRB");
                    });
        std::memcpy(loan.of_sender, loan.data, loan.bytes);
    }
    if (loan.access != Access::none)
        allow(end, pages, Access::none);
    area.lent = false;
    area.next = nullptr;
    Resting& resting = resting_[area.size_class];
    if (resting.count++ == 0)
        resting.first = &area;
    else
        resting.last->next = &area;
    resting.last = &area;
    loan = {};
}

}  // namespace machine
