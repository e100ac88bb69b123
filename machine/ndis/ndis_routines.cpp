// SPDX-License-Identifier: MIT
// The library's routines as a protocol driver calls them.
#include "machine/executive/checks.h"
#include "machine/ndis/ndis.h"

using namespace machine;

namespace {

Ndis& enter(KIRQL allowed, const char* routine)
{
    enter_at_most(allowed, routine);
    scheduler().preemption_point();
    return Ndis::current();
}

}  // namespace

extern "C" {

VOID NTAPI NdisRegisterProtocol(PNDIS_STATUS status, PNDIS_HANDLE handle,
                                PNDIS_PROTOCOL_CHARACTERISTICS given, UINT bytes)
{
    Ndis& ndis = enter(PASSIVE_LEVEL, "NdisRegisterProtocol");
    *status = bytes == sizeof *given ? ndis.register_protocol(*given) : NDIS_STATUS_BAD_CHARACTERISTICS;
    *handle = &ndis;
}

VOID NTAPI NdisOpenAdapter(PNDIS_STATUS status, PNDIS_STATUS error, PNDIS_HANDLE binding, PUINT medium,
                           PNDIS_MEDIUM media, UINT count, NDIS_HANDLE protocol, NDIS_HANDLE context,
                           PNDIS_STRING name, UINT, PSTRING)
{
    Ndis& ndis = enter(PASSIVE_LEVEL, "NdisOpenAdapter");
    if (protocol != &ndis)
        violation("NdisOpenAdapter: not by a protocol driver");
    *error = NDIS_STATUS_SUCCESS;
    for (*medium = 0; *medium < count; ++*medium)
        if (media[*medium] == NdisMedium802_3) {
            *status = ndis.open(*name, context, *binding);
            return;
        }
    *status = NDIS_STATUS_UNSUPPORTED_MEDIA;
}

VOID NTAPI NdisCloseAdapter(PNDIS_STATUS status, NDIS_HANDLE binding)
{
    *status = enter(PASSIVE_LEVEL, "NdisCloseAdapter").close(binding);
}

VOID NTAPI NdisRequest(PNDIS_STATUS status, NDIS_HANDLE binding, PNDIS_REQUEST request)
{
    *status = enter(DISPATCH_LEVEL, "NdisRequest").request(binding, *request);
}

VOID NTAPI NdisSendPackets(NDIS_HANDLE binding, PPNDIS_PACKET packets, UINT count)
{
    enter(DISPATCH_LEVEL, "NdisSendPackets").send(binding, {packets, count});
}

VOID NTAPI NdisTransferData(PNDIS_STATUS status, NDIS_HANDLE binding, NDIS_HANDLE shown, UINT offset,
                            UINT bytes, PNDIS_PACKET packet, PUINT transferred)
{
    *status = enter(DISPATCH_LEVEL, "NdisTransferData")
                  .transfer(binding, shown, offset, bytes, packet, *transferred);
}

VOID NTAPI NdisAllocatePacketPool(PNDIS_STATUS status, PNDIS_HANDLE pool, UINT count, UINT reserved_bytes)
{
    *pool = enter(DISPATCH_LEVEL, "NdisAllocatePacketPool").make_pool(count, reserved_bytes);
    *status = NDIS_STATUS_SUCCESS;
}

VOID NTAPI NdisFreePacketPool(NDIS_HANDLE pool)
{
    enter(DISPATCH_LEVEL, "NdisFreePacketPool").free_pool(pool);
}

VOID NTAPI NdisAllocatePacket(PNDIS_STATUS status, PNDIS_PACKET* packet, NDIS_HANDLE pool)
{
    *packet = enter(DISPATCH_LEVEL, "NdisAllocatePacket").take_packet(pool);
    *status = *packet ? NDIS_STATUS_SUCCESS : NDIS_STATUS_RESOURCES;
}

VOID NTAPI NdisFreePacket(PNDIS_PACKET packet)
{
    enter(DISPATCH_LEVEL, "NdisFreePacket").give_packet(packet);
}

VOID NTAPI NdisAllocateBufferPool(PNDIS_STATUS status, PNDIS_HANDLE pool, UINT count)
{
    *pool = enter(DISPATCH_LEVEL, "NdisAllocateBufferPool").make_pool(count, 0);
    *status = NDIS_STATUS_SUCCESS;
}

VOID NTAPI NdisFreeBufferPool(NDIS_HANDLE pool)
{
    enter(DISPATCH_LEVEL, "NdisFreeBufferPool").free_pool(pool);
}

VOID NTAPI NdisAllocateBuffer(PNDIS_STATUS status, PNDIS_BUFFER* buffer, NDIS_HANDLE pool, PVOID memory,
                              UINT bytes)
{
    *buffer = enter(DISPATCH_LEVEL, "NdisAllocateBuffer").take_buffer(pool, memory, bytes);
    *status = NDIS_STATUS_SUCCESS;
}

// What frees an NDIS buffer.
VOID NTAPI IoFreeMdl(PMDL buffer)
{
    enter(DISPATCH_LEVEL, "IoFreeMdl");
    delete buffer;
}

}  // extern "C"
