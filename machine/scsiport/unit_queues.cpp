// SPDX-License-Identifier: MIT
#include "machine/scsiport/unit_queues.h"

#include <numeric>

namespace machine {

void UnitQueues::configure(unsigned luns, unsigned depth, bool one_at_a_time)
{
    depth_ = depth;
    one_at_a_time_ = one_at_a_time;
    units_ = std::vector<Unit>(luns + 1);
    for (Unit& unit : units_)
        std::iota(unit.free_tags.begin(), unit.free_tags.end(), std::uint8_t{0});
}

Unit& UnitQueues::unit_at(unsigned path, unsigned target, unsigned lun)
{
    const std::size_t elsewhere = units_.size() - 1;
    return path == 0 && target == 0 && lun < elsewhere ? units_[lun] : units_[elsewhere];
}

const Unit& UnitQueues::unit_at(unsigned path, unsigned target, unsigned lun) const
{
    return const_cast<UnitQueues*>(this)->unit_at(path, target, lun);
}

void UnitQueues::add(PIRP irp)
{
    const SCSI_REQUEST_BLOCK& srb = *srb_of(irp);
    if (bypasses(srb)) {
        bypassing_.push_back(irp);
        return;
    }
    Unit& unit = unit_of(srb);
    unit.waiting.push_back(irp);
    refresh(unit);
}

void UnitQueues::put_back(Unit& unit, PIRP irp)
{
    unit.waiting.push_front(irp);
    refresh(unit);
}

PIRP UnitQueues::next()
{
    if (!bypassing_.empty())
        return bypassing_.pop_front();
    while (first_ready_ != nullptr) {
        Unit& unit = *first_ready_;
        first_ready_ = unit.next_ready;
        unit.on_ready_list = false;
        if (!can_send(unit))
            continue;
        PIRP irp = unit.waiting.pop_front();
        ++unit.active;
        unit.drawn = false;
        refresh(unit);
        return irp;
    }
    return nullptr;
}

void UnitQueues::refresh(Unit& unit)
{
    if (unit.on_ready_list || !can_send(unit))
        return;
    unit.on_ready_list = true;
    unit.next_ready = nullptr;
    if (first_ready_ == nullptr)
        first_ready_ = &unit;
    else
        last_ready_->next_ready = &unit;
    last_ready_ = &unit;
}

void UnitQueues::draw(Unit& unit)
{
    unit.drawn = true;
    refresh(unit);
}

bool UnitQueues::release_held()
{
    bool any = false;
    for (Unit& unit : units_) {
        if (!unit.held)
            continue;
        unit.held = false;
        any = true;
        refresh(unit);
    }
    return any;
}

std::uint8_t UnitQueues::take_tag(Unit& unit)
{
    return unit.free_tags[unit.tags_in_use++];
}

void UnitQueues::give_back_tag(Unit& unit, std::uint8_t tag)
{
    unit.free_tags[--unit.tags_in_use] = tag;
}

}  // namespace machine
