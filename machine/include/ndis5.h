// SPDX-License-Identifier: MIT
// The interface of the NDIS library, version 5, for protocol drivers: the DDK's header, made to fit <nt.h>. What of it
// is declared as a routine is implemented under machine/ndis/.
#pragma once

#include <nt.h>

#define NDIS50 1

#pragma GCC system_header
// Both of the headers have this type.
#define _NDIS_REQUEST_TYPE nt_unused_request_type
#define NDIS_REQUEST_TYPE nt_unused_request
#define PNDIS_REQUEST_TYPE nt_unused_request_pointer
#define NdisRequestQueryInformation nt_unused_query_information
#define NdisRequestSetInformation nt_unused_set_information
#define NdisRequestQueryStatistics nt_unused_query_statistics
#define NdisRequestOpen nt_unused_open
#define NdisRequestClose nt_unused_close
#define NdisRequestSend nt_unused_send
#define NdisRequestTransferData nt_unused_transfer_data
#define NdisRequestReset nt_unused_reset
#define NdisRequestGeneric1 nt_unused_generic1
#define NdisRequestGeneric2 nt_unused_generic2
#define NdisRequestGeneric3 nt_unused_generic3
#define NdisRequestGeneric4 nt_unused_generic4
#define NdisRequestMethod nt_unused_method
extern "C" {
#include <ntddndis.h>
}
#undef _NDIS_REQUEST_TYPE
#undef NDIS_REQUEST_TYPE
#undef PNDIS_REQUEST_TYPE
#undef NdisRequestQueryInformation
#undef NdisRequestSetInformation
#undef NdisRequestQueryStatistics
#undef NdisRequestOpen
#undef NdisRequestClose
#undef NdisRequestSend
#undef NdisRequestTransferData
#undef NdisRequestReset
#undef NdisRequestGeneric1
#undef NdisRequestGeneric2
#undef NdisRequestGeneric3
#undef NdisRequestGeneric4
#undef NdisRequestMethod
// A comma is missing in its declaration.
#define NdisMWanIndicateReceiveComplete(...) nt_unused_routine(void)
extern "C" {
#include <ndis.h>
}
#undef NdisMWanIndicateReceiveComplete
