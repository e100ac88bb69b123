// SPDX-License-Identifier: MIT
#include "driver/state/image_version.h"

static volatile LONG Version;
static volatile LONG Unchecked;

bool Claim_Version(Version_Value Wanted)
{
    LONG Shown = InterlockedCompareExchange(&Version, Wanted, Version_Open);
    return Shown == Version_Open || Shown == Wanted;
}

void Version_Unchecked()
{
    InterlockedExchange(&Unchecked, 1);
}

bool Reads_May_End()
{
    return Unchecked != 0 && Version != Version_Server;
}
