#include "driver/engine/image_route.h"

PVOID volatile pSync_State;

// No image is open: the piece belongs to the next backend whole.
LONG Img_Route(RW_Entry*, RW_Req*, LONG Bytes)
{
    return -Bytes;
}
