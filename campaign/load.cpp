// SPDX-License-Identifier: MIT
#include "campaign/load.h"

#include <algorithm>

#include <fmt/format.h>

#include "campaign/streams.h"

namespace campaign {

constexpr std::uint32_t large_sectors = 128;
constexpr std::int64_t held_back_pause_ms = 200;
constexpr std::int64_t pause_max_ms = 20'000;  // on average; a client that pauses counts as active

namespace {

std::string sense_text(const machine::ScsiRequest& request)
{
    const auto sense = request.sense();
    return sense ? fmt::format(", sense {:02X} {:02X} {:02X}", sense->key, sense->asc, sense->ascq) : "";
}

}  // namespace

struct Load::Client {
    Load& owner;
    const unsigned lun;
    std::uint32_t first, count;  // its part of the disk
    Stream random;
    machine::ScsiRequest request;
    std::vector<std::uint8_t> buffer;
    DiskModel::Request handle = 0;
    std::int64_t began_ms = 0;
    std::uint32_t lba = 0, sectors = 0;
    unsigned left = 0;
    bool writing = false, busy = false;
    bool waiting = false;  // for its request
    struct Written {
        std::uint32_t lba, sectors;
        Generation generation;
    };
    std::vector<Written> written;  // the last few

    Client(Load& load, unsigned disk, unsigned index, std::uint32_t begin, std::uint32_t length)
        : owner(load), lun(disk), first(begin), count(length),
          random(load.station_.world.plan.seed, "client", load.station_.number * 64 + disk * 16 + index),
          request(load.station_.scsi())
    {
        request.done = [this](machine::ScsiRequest&) { finished(); };
    }

    World& world() { return owner.station_.world; }
    DiskModel& model() { return world().models[lun]; }
    // Places count from here on.
    std::uint32_t first_lba() { return world().plan.disks[lun].first_lba; }
    void begin();
    void draw_place();
    void submit();
    void submit_read();
    void submit_write();
    void finished();
    void next();
    void end() { busy = false, --owner.active_; }
};

void Load::Client::draw_place()
{
    const LoadPlan& plan = world().plan.load;
    const std::uint32_t most = std::min(
        {large_sectors, count, owner.station_.scsi().maximum_transfer_bytes() / formats::sector_bytes});
    sectors = random.chance(plan.large) ? most : random.between(1, most);
    const bool hot = random.chance(plan.hot) && count / 10 > sectors;
    lba = first + random.below((hot ? count / 10 : count) - sectors + 1);
}

void Load::Client::begin()
{
    if (owner.stopping_ || owner.disks_[lun].lost || left == 0)
        return end();
    if (owner.held_back(lun)) {
        auto& scheduler = owner.station_.machine.scheduler();
        if (owner.pause_ms_ == 0)
            return end();
        scheduler.call_at(scheduler.now() + held_back_pause_ms * machine::ticks_per_ms, [this] { begin(); });
        return;
    }
    --left;
    draw_place();
    const StartPlan& start = owner.station_.plan();
    if (start.synchronise_at_once && this == owner.clients_[0].get() && !owner.delay_over_ &&
        count >= large_sectors &&
        owner.station_.scsi().maximum_transfer_bytes() >= large_sectors * formats::sector_bytes) {
        lba = first, sectors = large_sectors, writing = true;
        return submit();
    }
    writing = random.chance(world().plan.load.writes) && !start.only_reads;
    submit();
}

void Load::Client::submit()
{
    began_ms = owner.station_.now_ms();
    waiting = true;
    writing ? submit_write() : submit_read();
}

void Load::Client::submit_read()
{
    buffer.assign(std::size_t{sectors} * formats::sector_bytes, 0xEE);
    handle = model().read_begins();
    request.set_read(static_cast<std::uint8_t>(lun), first_lba() + lba, buffer.data(),
                     static_cast<std::uint32_t>(buffer.size()));
    owner.station_.scsi().submit(request);
}

// Now and then exactly what it wrote to this place before.
void Load::Client::submit_write()
{
    constexpr std::size_t remembered = 4;
    Generation generation;
    if (!written.empty() && random.chance(0.1)) {
        const Written& again = written[random.below(static_cast<std::uint32_t>(written.size()))];
        lba = again.lba, sectors = again.sectors, generation = again.generation;
        world().coverage.add("write of contents that were there before");
    } else {
        generation = world().generations.add(owner.station_.number);
        written.push_back({lba, sectors, generation});
        if (written.size() > remembered)
            written.erase(written.begin());
    }
    buffer.resize(std::size_t{sectors} * formats::sector_bytes);
    for (std::uint32_t i = 0; i < sectors; ++i)
        std::ranges::copy(world().content({lun, lba + i}, generation),
                          buffer.begin() + static_cast<std::ptrdiff_t>(i * formats::sector_bytes));
    handle = model().write_begins(lba, sectors, generation);
    request.set_write(static_cast<std::uint8_t>(lun), first_lba() + lba, buffer.data(),
                      static_cast<std::uint32_t>(buffer.size()));
    owner.station_.scsi().submit(request);
}

void Load::Client::finished()
{
    world().events.add(static_cast<std::uint64_t>(owner.station_.machine.scheduler().now()));
    world().events.add((std::uint64_t{lun} << 40 | lba) ^ std::uint64_t{request.srb_status} << 56);
    const bool ok = request.ok();
    waiting = false;
    if (!ok)
        owner.request_failed(*this);
    if (writing) {
        model().write_ends(handle, ok);
        owner.delay_over_ |= lun == 0 && sectors == large_sectors;
    } else if (!ok) {
        model().read_failed(handle);
    } else if (const std::string wrong = model().read_ends(handle, lba, buffer); !wrong.empty()) {
        fail(
            fmt::format("read of {} sectors from LBA {}, begun at {} ms: {}", sectors, lba, began_ms, wrong));
    }
    Disk& disk = owner.disks_[lun];
    (writing ? disk.written_sectors : disk.read_sectors) += sectors;
    next();
}

void Load::Client::next()
{
    if (owner.pause_ms_ == 0)
        return begin();
    auto& scheduler = owner.station_.machine.scheduler();
    const auto pause_ms = random.below(static_cast<std::uint32_t>(2 * owner.pause_ms_) + 1);
    if (pause_ms == 0 || random.chance(0.3))
        return begin();
    scheduler.call_at(scheduler.now() + pause_ms * machine::ticks_per_ms, [this] { begin(); });
}

Load::Load(Workstation& station, Excuses& excuses) : station_(station), excuses_(excuses)
{
    const Plan& plan = station.world.plan;
    disks_.resize(plan.disks.size());
    for (unsigned lun = 0; lun < plan.disks.size(); ++lun) {
        const unsigned clients = plan.load.clients_per_lun;
        const std::uint32_t sectors = plan.disks[lun].sectors;
        const std::uint32_t part = plan.load.overlapping ? sectors : sectors / clients;
        for (unsigned i = 0; i < clients; ++i)
            clients_.push_back(
                std::make_unique<Client>(*this, lun, i, plan.load.overlapping ? 0 : i * part, part));
    }
}

Load::~Load() = default;

void Load::start(std::int64_t length_ms)
{
    stopping_ = false;
    const auto per_client = static_cast<std::int64_t>(1 + station_.world.plan.load.operations /
                                                              static_cast<unsigned>(clients_.size()));
    pause_ms_ = std::clamp<std::int64_t>(length_ms / per_client, 1, pause_max_ms);
    active_ = static_cast<unsigned>(clients_.size());
    for (auto& client : clients_) {
        client->busy = true;
        client->left = ~0u;
        client->begin();
    }
}

void Load::start_operations(unsigned each)
{
    stopping_ = false;
    pause_ms_ = 0;
    active_ = static_cast<unsigned>(clients_.size());
    for (auto& client : clients_) {
        client->busy = true;
        client->left = each;
        client->begin();
    }
}

std::string Load::waiting()
{
    std::string text;
    for (auto& client : clients_)
        if (client->busy)
            text += fmt::format("{}LUN {} {} of {} sectors at LBA {} for {} ms", text.empty() ? "" : ", ",
                                client->lun, client->writing ? "write" : "read", client->sectors, client->lba,
                                station_.now_ms() - client->began_ms);
    return text;
}

bool Load::held_back(unsigned lun) const
{
    return lun != 0 && !delay_over_ &&
           (station_.world.plan.disks[lun].flags & formats::disk_flag_delay_load) != 0;
}

bool Load::all_shown() const
{
    for (unsigned lun = 0; lun < disks_.size(); ++lun)
        if (held_back(lun))
            return false;
    return true;
}

void Load::request_failed(Client& client)
{
    station_.world.coverage.add("request failed");
    Disk& disk = disks_[client.lun];
    if (disk.lost)
        return;
    // Where one fails, all that wait may fail with it, in any order.
    bool write_waits = false;
    std::int64_t since_ms = client.began_ms;
    for (const auto& other : clients_)
        if (other->lun == client.lun && other->waiting) {
            write_waits |= other->writing;
            since_ms = std::min(since_ms, other->began_ms);
        }
    // The class driver's own reads may have lost the disk, unseen by the clients.
    if (station_.world.plan.curious_class_driver &&
        client.request.sense() == machine::Sense{0x05, 0x21, 0x00})
        since_ms = 0;
    if (!excuses_.may_fail(client.lun, write_waits || client.writing, since_ms))
        fail(fmt::format("{} of {} sectors at LBA {} of LUN {}, begun at {} ms, failed with status {:02X}{} "
                         "though nothing was wrong for long",
                         client.writing ? "write" : "read", client.sectors, client.lba, client.lun,
                         client.began_ms, client.request.srb_status, sense_text(client.request)));
    disk.lost = true;
    station_.world.coverage.add("disk lost for good");
}

bool Load::read(unsigned lun, std::uint32_t lba, std::uint32_t count)
{
    DiskModel& model = station_.world.models[lun];
    std::vector<std::uint8_t> data(std::size_t{count} * formats::sector_bytes, 0xEE);
    const DiskModel::Request handle = model.read_begins();
    const bool ok =
        station_.scsi().read(static_cast<std::uint8_t>(lun), station_.world.plan.disks[lun].first_lba + lba,
                             data.data(), static_cast<std::uint32_t>(data.size()));
    if (!ok) {
        model.read_failed(handle);
        return false;
    }
    disks_[lun].read_sectors += count;
    if (const std::string wrong = model.read_ends(handle, lba, data); !wrong.empty())
        fail(fmt::format("read of {} sectors from LBA {}: {}", count, lba, wrong));
    return true;
}

std::optional<std::uint32_t> Load::read_all(unsigned lun)
{
    const std::uint32_t sectors = station_.world.plan.disks[lun].sectors;
    const std::uint32_t step = station_.scsi().maximum_transfer_bytes() / formats::sector_bytes;
    for (std::uint32_t lba = 0; lba < sectors && reachable(lun); lba += step)
        if (!read(lun, lba, std::min(step, sectors - lba)))
            return lba;
    return std::nullopt;
}

}  // namespace campaign
