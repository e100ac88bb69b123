// SPDX-License-Identifier: MIT
#include "machine/ndis/ndis.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "machine/executive/checks.h"

namespace machine {
namespace {

Ndis* the_ndis = nullptr;

constexpr std::size_t header_bytes = 14, frame_bytes_max = 1514;

// Calls of a driver's handlers are made at DISPATCH_LEVEL, whoever brings them about.
class AtDispatch {
public:
    AtDispatch() : before_(KeGetCurrentIrql())
    {
        if (before_ < DISPATCH_LEVEL)
            KfRaiseIrql(DISPATCH_LEVEL);
    }
    ~AtDispatch()
    {
        if (before_ < DISPATCH_LEVEL)
            KfLowerIrql(before_);
    }
    AtDispatch(const AtDispatch&) = delete;
    AtDispatch& operator=(const AtDispatch&) = delete;

private:
    const KIRQL before_;
};

std::uint8_t* memory_of(PNDIS_BUFFER buffer)
{
    return static_cast<std::uint8_t*>(buffer->MappedSystemVa);
}

FrameBytes bytes_of(PNDIS_PACKET packet)
{
    FrameBytes bytes;
    for (PNDIS_BUFFER buffer = packet->Private.Head; buffer; buffer = buffer->Next)
        bytes.insert(bytes.end(), memory_of(buffer), memory_of(buffer) + buffer->ByteCount);
    return bytes;
}

MDL buffer_over(const std::uint8_t* memory, std::size_t bytes)
{
    MDL buffer{};
    buffer.MdlFlags = MDL_SOURCE_IS_NONPAGED_POOL;
    buffer.MappedSystemVa = const_cast<std::uint8_t*>(memory);
    buffer.ByteCount = static_cast<ULONG>(bytes);
    return buffer;
}

}  // namespace

Ndis::Ndis(Scheduler& scheduler, std::uint64_t seed) : scheduler_(scheduler), random_(seed)
{
    if (!scheduler.simulated())
        violation("the NDIS library needs the simulated scheduler");
    the_ndis = this;
}

Ndis::~Ndis()
{
    the_ndis = nullptr;
}

Ndis& Ndis::current()
{
    if (!the_ndis)
        violation("the machine has no NDIS library");
    return *the_ndis;
}

void Ndis::later(std::function<void()> action)
{
    const auto wait = static_cast<Ticks>(1 + random_() % 50) * ticks_per_us;
    scheduler_.call_at(scheduler_.now() + wait, std::move(action));
}

NdisCard& Ndis::plug(CardAddress address, NdisCard::Wire wire)
{
    NdisCard& card = cards_.emplace_back(address, std::move(wire));
    offer(card);
    return card;
}

void Ndis::plug_again(NdisCard& card)
{
    offer(card);
}

void Ndis::offer(NdisCard& card)
{
    enter_at_most(PASSIVE_LEVEL, "NDIS: binding");
    if (!protocol_ || card.open_)
        return;
    // The card's name is its number.
    WCHAR name[] = L"\\Device\\Card0";
    const auto place = std::ranges::find_if(cards_, [&card](const NdisCard& each) { return &each == &card; });
    name[std::size(name) - 2] = static_cast<WCHAR>(L'0' + std::distance(cards_.begin(), place));
    UNICODE_STRING string;
    RtlInitUnicodeString(&string, name);
    NDIS_STATUS status = NDIS_STATUS_PENDING;
    driver().BindAdapterHandler(&status, &card, &string, nullptr, nullptr);
    if (status == NDIS_STATUS_PENDING)
        violation("NDIS: this library waits for bindings that are made at once");
    if ((status == NDIS_STATUS_SUCCESS) != card.open_)
        violation("NDIS: a binding that failed is open, or one that was made is not");
}

void Ndis::unplug(NdisCard& card)
{
    enter_at_most(PASSIVE_LEVEL, "NDIS: unbinding");
    if (!card.open_)
        return;
    NDIS_STATUS status = NDIS_STATUS_PENDING;
    driver().UnbindAdapterHandler(&status, card.context_, &card);
    if (status != NDIS_STATUS_SUCCESS || card.open_)
        violation("NDIS: the driver keeps a card that goes");
}

NDIS_STATUS Ndis::register_protocol(const NDIS_PROTOCOL_CHARACTERISTICS& characteristics)
{
    const NDIS40_PROTOCOL_CHARACTERISTICS& given = characteristics.Ndis40Chars;
    if (protocol_)
        violation("NDIS: a second protocol driver");
    if (given.MajorNdisVersion != 5 || given.Name.Length == 0 || !given.OpenAdapterCompleteHandler ||
        !given.CloseAdapterCompleteHandler || !given.SendCompleteHandler ||
        !given.TransferDataCompleteHandler || !given.ResetCompleteHandler || !given.RequestCompleteHandler ||
        !given.ReceiveHandler || !given.ReceiveCompleteHandler || !given.StatusHandler ||
        !given.StatusCompleteHandler || !given.BindAdapterHandler || !given.UnbindAdapterHandler)
        return NDIS_STATUS_BAD_CHARACTERISTICS;
    protocol_ = std::make_unique<NDIS_PROTOCOL_CHARACTERISTICS>(characteristics);
    return NDIS_STATUS_SUCCESS;
}

NDIS_STATUS Ndis::open(const NDIS_STRING& name, NDIS_HANDLE context, NDIS_HANDLE& binding)
{
    const auto index = static_cast<std::size_t>(name.Buffer[name.Length / sizeof(WCHAR) - 1] - L'0');
    if (index >= cards_.size())
        return NDIS_STATUS_ADAPTER_NOT_FOUND;
    NdisCard& card = *std::next(cards_.begin(), static_cast<std::ptrdiff_t>(index));
    if (card.open_ || card.opening_)
        violation("NdisOpenAdapter of a card that is open");
    card.context_ = context;
    card.filter_ = 0;
    card.closing_ = false;
    binding = &card;
    if (drawn()) {
        card.open_ = true;
        return NDIS_STATUS_SUCCESS;
    }
    card.opening_ = true;
    ++card.counters_.pended;
    later([this, &card] {
        card.opening_ = false;
        card.open_ = true;
        driver().OpenAdapterCompleteHandler(card.context_, NDIS_STATUS_SUCCESS, NDIS_STATUS_SUCCESS);
    });
    return NDIS_STATUS_PENDING;
}

NdisCard& Ndis::card_of(NDIS_HANDLE binding, const char* routine)
{
    const auto found =
        std::ranges::find_if(cards_, [binding](const NdisCard& card) { return &card == binding; });
    if (found == cards_.end() || !found->open_ || found->closing_)
        violation(std::string(routine) + ": the card is not bound");
    return *found;
}

NDIS_STATUS Ndis::close(NDIS_HANDLE binding)
{
    NdisCard& card = card_of(binding, "NdisCloseAdapter");
    if (!card.out_.empty())
        violation("NdisCloseAdapter: " + std::to_string(card.out_.size()) + " packets are not back");
    if (card.request_)
        violation("NdisCloseAdapter: a request is not complete");
    card.closing_ = true;
    if (card.transfers_out_ == 0 && drawn()) {
        card.open_ = false;
        return NDIS_STATUS_SUCCESS;
    }
    ++card.counters_.pended;
    later([&card] { card.finish_close(); });
    return NDIS_STATUS_PENDING;
}

void NdisCard::finish_close()
{
    Ndis& ndis = Ndis::current();
    if (transfers_out_ != 0) {
        ndis.later([this] { finish_close(); });
        return;
    }
    open_ = false;
    ndis.driver().CloseAdapterCompleteHandler(context_, NDIS_STATUS_SUCCESS);
}

NDIS_STATUS Ndis::request(NDIS_HANDLE binding, NDIS_REQUEST& request)
{
    NdisCard& card = card_of(binding, "NdisRequest");
    auto& query = request.DATA.QUERY_INFORMATION;
    const auto answer = [&query](const void* value, unsigned bytes) {
        query.BytesNeeded = bytes;
        if (query.InformationBufferLength < bytes)
            return static_cast<NDIS_STATUS>(NDIS_STATUS_BUFFER_TOO_SHORT);
        std::memcpy(query.InformationBuffer, value, bytes);
        query.BytesWritten = bytes;
        return static_cast<NDIS_STATUS>(NDIS_STATUS_SUCCESS);
    };
    const auto take = [&request](ULONG& value) {
        if (request.DATA.SET_INFORMATION.InformationBufferLength != sizeof value)
            return static_cast<NDIS_STATUS>(NDIS_STATUS_INVALID_LENGTH);
        std::memcpy(&value, request.DATA.SET_INFORMATION.InformationBuffer, sizeof value);
        return static_cast<NDIS_STATUS>(NDIS_STATUS_SUCCESS);
    };
    const bool sets = request.RequestType == NdisRequestSetInformation;
    const NDIS_OID oid = sets ? request.DATA.SET_INFORMATION.Oid : query.Oid;
    const NDIS_MEDIA_STATE state = card.link_up_ ? NdisMediaStateConnected : NdisMediaStateDisconnected;
    NDIS_STATUS status = NDIS_STATUS_NOT_SUPPORTED;
    if (!sets && oid == OID_802_3_CURRENT_ADDRESS)
        status = answer(card.address_.data(), 6);
    else if (!sets && oid == OID_GEN_MEDIA_CONNECT_STATUS)
        status = answer(&state, sizeof state);
    else if (sets && oid == OID_GEN_CURRENT_PACKET_FILTER)
        status = take(card.filter_);
    else if (sets && oid == OID_GEN_CURRENT_LOOKAHEAD)
        status = take(card.lookahead_bytes_);
    if (drawn())
        return status;
    card.request_ = &request;
    ++card.counters_.pended;
    later([this, &card, status] {
        driver().RequestCompleteHandler(card.context_, std::exchange(card.request_, nullptr), status);
    });
    return NDIS_STATUS_PENDING;
}

void Ndis::send(NDIS_HANDLE binding, std::span<const PNDIS_PACKET> packets)
{
    NdisCard& card = card_of(binding, "NdisSendPackets");
    for (const PNDIS_PACKET packet : packets) {
        Packet& known = packet_of(packet, "NdisSendPackets");
        if (known.with_card)
            violation("NdisSendPackets: the packet is with a card already");
        known.with_card = true;
        card.send(packet);
    }
}

void NdisCard::send(PNDIS_PACKET packet)
{
    Ndis& ndis = Ndis::current();
    FrameBytes frame = bytes_of(packet);
    if (frame.size() < header_bytes || frame.size() > frame_bytes_max)
        violation("NdisSendPackets: a frame of " + std::to_string(frame.size()) + " bytes");
    NDIS_STATUS status = NDIS_STATUS_SUCCESS;
    if (resetting_)
        status = NDIS_STATUS_RESET_IN_PROGRESS;
    else if (!link_up_)
        status = NDIS_STATUS_NO_CABLE;
    if (status == NDIS_STATUS_SUCCESS) {
        ++counters_.sent;
        wire_(frame);
    } else {
        ++counters_.lost;
    }
    out_.emplace(packet, Sent{std::move(frame), status});
    if (ndis.drawn()) {
        const AtDispatch raised;
        complete_send(packet);
        return;
    }
    ++counters_.pended;
    ndis.later([this, packet] {
        if (out_.contains(packet))  // a reset may have been faster
            complete_send(packet);
    });
}

void NdisCard::complete_send(PNDIS_PACKET packet)
{
    Ndis& ndis = Ndis::current();
    const auto node = out_.extract(packet);
    if (bytes_of(packet) != node.mapped().frame)
        violation("NDIS: a packet changed while it was with the card");
    ndis.packets_.at(packet).with_card = false;
    ndis.driver().SendCompleteHandler(context_, packet, node.mapped().status);
}

void NdisCard::reset()
{
    if (!open_)
        return;
    const NDIS40_PROTOCOL_CHARACTERISTICS& driver = Ndis::current().driver();
    resetting_ = true;
    {
        const AtDispatch raised;
        driver.StatusHandler(context_, NDIS_STATUS_RESET_START, nullptr, 0);
        driver.StatusCompleteHandler(context_);
        while (!out_.empty()) {
            ++counters_.aborted;
            out_.begin()->second.status = NDIS_STATUS_REQUEST_ABORTED;
            complete_send(out_.begin()->first);
        }
    }
    Ndis::current().later([this, &driver] {
        resetting_ = false;
        if (!open_ || closing_)
            return;
        driver.StatusHandler(context_, NDIS_STATUS_RESET_END, nullptr, 0);
        driver.StatusCompleteHandler(context_);
    });
}

void NdisCard::set_link(bool up)
{
    link_up_ = up;
    if (!open_ || closing_)
        return;
    const NDIS40_PROTOCOL_CHARACTERISTICS& driver = Ndis::current().driver();
    const AtDispatch raised;
    driver.StatusHandler(context_, up ? NDIS_STATUS_MEDIA_CONNECT : NDIS_STATUS_MEDIA_DISCONNECT, nullptr, 0);
    driver.StatusCompleteHandler(context_);
}

void NdisCard::arrive(std::span<const std::uint8_t> frame)
{
    if (!open_ || closing_ || !link_up_ || resetting_ || frame.size() < header_bytes ||
        frame.size() > frame_bytes_max)
        return;
    const bool group = (frame[0] & 1) != 0;
    const bool ours = std::equal(address_.begin(), address_.end(), frame.begin());
    if (!(group ? filter_ & NDIS_PACKET_TYPE_BROADCAST : ours && filter_ & NDIS_PACKET_TYPE_DIRECTED)) {
        ++counters_.filtered;
        return;
    }
    const AtDispatch raised;
    if (Ndis::current().driver().ReceivePacketHandler && Ndis::current().drawn())
        indicate_whole(frame);
    else
        indicate_ahead(frame);
    end_batch_later();
}

// In two pieces of memory that hold just that, gone when the driver returns.
void NdisCard::indicate_whole(std::span<const std::uint8_t> frame)
{
    Ndis& ndis = Ndis::current();
    ++counters_.indicated_whole;
    const std::size_t cut =
        ndis.drawn() ? frame.size() : header_bytes + static_cast<std::size_t>(ndis.random_() % 50);
    const std::size_t first_bytes = std::min(cut, frame.size());
    const FrameBytes first(frame.begin(), frame.begin() + static_cast<std::ptrdiff_t>(first_bytes));
    const FrameBytes second(frame.begin() + static_cast<std::ptrdiff_t>(first_bytes), frame.end());
    MDL head = buffer_over(first.data(), first.size()), tail = buffer_over(second.data(), second.size());
    head.Next = second.empty() ? nullptr : &tail;
    struct {
        NDIS_PACKET packet;
        NDIS_PACKET_OOB_DATA oob;
    } indicated{};
    indicated.packet.Private.Head = &head;
    indicated.packet.Private.Tail = second.empty() ? &head : &tail;
    indicated.packet.Private.NdisPacketOobOffset = static_cast<USHORT>(
        reinterpret_cast<std::uint8_t*>(&indicated.oob) - reinterpret_cast<std::uint8_t*>(&indicated));
    if (ndis.driver().ReceivePacketHandler(context_, &indicated.packet) != 0)
        violation("NDIS: the driver keeps a packet that the card does not lend");
}

void NdisCard::indicate_ahead(std::span<const std::uint8_t> frame)
{
    Ndis& ndis = Ndis::current();
    ++counters_.indicated_ahead;
    FrameBytes header(frame.begin(), frame.begin() + header_bytes);
    Shown shown{{frame.begin() + header_bytes, frame.end()}};
    const std::size_t ahead =
        ndis.drawn() ? shown.payload.size() : std::min<std::size_t>(shown.payload.size(), lookahead_bytes_);
    FrameBytes lookahead(shown.payload.begin(), shown.payload.begin() + static_cast<std::ptrdiff_t>(ahead));
    shown_ = &shown;
    ndis.driver().ReceiveHandler(context_, &shown, header.data(), header_bytes, lookahead.data(),
                                 static_cast<UINT>(ahead), static_cast<UINT>(shown.payload.size()));
    shown_ = nullptr;
}

void NdisCard::end_batch_later()
{
    if (std::exchange(batch_ends_, true))
        return;
    Ndis::current().later([this] {
        batch_ends_ = false;
        if (open_ && !closing_)
            Ndis::current().driver().ReceiveCompleteHandler(context_);
    });
}

NDIS_STATUS Ndis::transfer(NDIS_HANDLE binding, NDIS_HANDLE shown, UINT offset, UINT bytes,
                           PNDIS_PACKET packet, UINT& transferred)
{
    NdisCard& card = card_of(binding, "NdisTransferData");
    Packet& known = packet_of(packet, "NdisTransferData");
    if (known.with_card)
        violation("NdisTransferData: the packet is with a card already");
    if (!card.shown_ || shown != card.shown_)
        violation("NdisTransferData: not while the frame is indicated");
    const FrameBytes& payload = card.shown_->payload;
    if (offset > payload.size() || bytes > payload.size() - offset)
        violation("NdisTransferData: beyond the frame");
    const PNDIS_BUFFER buffer = packet->Private.Head;
    if (!buffer || buffer->Next || buffer->ByteCount < bytes)
        violation("NdisTransferData: the packet has no room for it");
    ++card.counters_.transferred;
    const auto copy = [buffer](const FrameBytes& piece) {
        std::copy(piece.begin(), piece.end(), memory_of(buffer));
    };
    FrameBytes piece(payload.begin() + offset, payload.begin() + offset + static_cast<std::ptrdiff_t>(bytes));
    if (drawn()) {
        copy(piece);
        transferred = bytes;
        return NDIS_STATUS_SUCCESS;
    }
    known.with_card = true;
    ++card.transfers_out_;
    ++card.counters_.pended;
    const bool fails = random_() % 16 == 0;
    later([this, &card, &known, packet, copy, fails, piece = std::move(piece)] {
        if (!fails)
            copy(piece);
        known.with_card = false;
        --card.transfers_out_;
        driver().TransferDataCompleteHandler(card.context_, packet,
                                             fails ? NDIS_STATUS_FAILURE : NDIS_STATUS_SUCCESS,
                                             fails ? 0 : static_cast<UINT>(piece.size()));
    });
    return NDIS_STATUS_PENDING;
}

NDIS_HANDLE Ndis::make_pool(unsigned count, unsigned reserved_bytes)
{
    pools_.push_back({count, reserved_bytes});
    return &pools_.back();
}

void Ndis::free_pool(NDIS_HANDLE pool)
{
    const auto found = std::ranges::find_if(pools_, [pool](const Pool& each) { return &each == pool; });
    if (found == pools_.end() || found->taken != 0)
        violation("NDIS: a pool is freed that is none, or of which something is taken");
    pools_.erase(found);
}

PNDIS_PACKET Ndis::take_packet(NDIS_HANDLE handle)
{
    Pool& pool = *static_cast<Pool*>(handle);
    if (pool.taken == pool.count)
        return nullptr;
    ++pool.taken;
    constexpr std::size_t oob_offset = (sizeof(NDIS_PACKET) + 63) / 64 * 64;
    const std::size_t bytes = oob_offset + pool.reserved_bytes + sizeof(NDIS_PACKET_OOB_DATA);
    auto memory = std::make_unique<std::uint8_t[]>(bytes);
    auto* packet = reinterpret_cast<PNDIS_PACKET>(memory.get());
    packet->Private.NdisPacketOobOffset = static_cast<USHORT>(oob_offset + pool.reserved_bytes);
    packets_.emplace(packet, Packet{&pool, std::move(memory)});
    return packet;
}

Ndis::Packet& Ndis::packet_of(PNDIS_PACKET packet, const char* routine)
{
    const auto found = packets_.find(packet);
    if (found == packets_.end())
        violation(std::string(routine) + ": no packet of this library");
    return found->second;
}

void Ndis::give_packet(PNDIS_PACKET packet)
{
    const Packet& known = packet_of(packet, "NdisFreePacket");
    if (known.with_card)
        violation("NdisFreePacket: the packet is with a card");
    --known.pool->taken;
    packets_.erase(packet);
}

PNDIS_BUFFER Ndis::take_buffer(NDIS_HANDLE, void* memory, unsigned bytes)
{
    return new MDL(buffer_over(static_cast<std::uint8_t*>(memory), bytes));
}

}  // namespace machine
