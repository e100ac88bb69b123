#include "driver/engine/local_cache.h"

LONG Local_Init(RW_Entry* pEntry)
{
    const Local_Cache_Record& Record = Local_Cache[pEntry->Lun];
    pEntry->Setup.pMC_Write = Record.pMC_Write;
    return Record.State;
}
