// The engine's Diameter dictionary: AVP types by application and vendor from
// "./resources/dictionary/diam.json", the engine's own type table for received AVPs, and
// the handlers it installs in the Diameter stack at start.
#pragma once

#include <jansson.h>

#include <cstdint>

#include "mv_diam.h"
#include "mv_tables.h"

struct __mv_DictDiamAVP {
    uint32_t avpCode;
    uint32_t dataType;
    uint32_t mandatory;
    uint32_t vendorId;
    char name[64];
};

struct __mv_DictDiamVendorId {
    __mv_DictDiamVendorId* Next;
    uint32_t VendorId;
    MV_PowerTable* powerTable;  // AVP code as four big-endian bytes to __mv_DictDiamAVP
};

struct __mv_DictDiamApp {
    __mv_DictDiamApp* Next;
    uint32_t ApplicationId;
    __mv_DictDiamVendorId* dictVHead;
    __mv_DictDiamVendorId* dictVCurrent;
};

struct __mv_Dict {
    __mv_DictDiamApp* dictHead;
    __mv_DictDiamApp* dictCurrent;
    MV_Mutex Lock;  // lookups add applications and vendors
};
typedef __mv_Dict MV_Dict_t;

extern MV_Dict_t* __mvDict;

#define KS_DIAM_DICT_FILE "./resources/dictionary/diam.json"

// Once: reads KS_DIAM_DICT_FILE; a missing or broken file leaves the table empty with a printed line.
void KsDiamDict__Init();
// Loads one file into the table (what Init does with KS_DIAM_DICT_FILE). 1 loaded, 0 missing or broken.
int KsDiamDict__LoadFile(const char* path);
// The dataType of the entry, 0 if absent. Makes the application and vendor entries it does not find.
uint32_t KsDiamDict__GetDataType(uint32_t appId, uint32_t avpCode, uint32_t VendorId);
// The entry itself, or null; makes nothing.
const __mv_DictDiamAVP* KsDiamDict__FindAVP(uint32_t appId, uint32_t avpCode, uint32_t VendorId);
__mv_DictDiamApp* KsDiamDict__getByApplicationId(uint32_t applicationId);  // find or create
__mv_DictDiamVendorId* KsDiamDict__FindDictDiamVendorId(__mv_DictDiamApp* appDicObj, uint32_t VendorId);
// "OctetString" 1, "Int32" 2, "Int64" 3, "UInt32" 4, "UInt64" 5, "Grouped" 6; 0 for anything else or null.
uint32_t KsDiamDict__TranslateDataType(const char* cDataType);
int KsDiamDict__LoadAppDict(json_t* appDict);
int KsDiamDict__LoadAppAVPDict(__mv_DictDiamApp* appDicObj, json_t* avpItem);

// The stack's post-handler: 607 and 613 UInt32, 612 Grouped for Cx, S6a and SWx; 1413 and
// 1414 Grouped for S6a; 1 for everything else.
uint32_t KsEngine__app_diam_dict_handler(uint32_t avpCode, uint32_t appId);
// The stack's message handler: the handler registered for the message's Application-Id.
void KsEngine__diam_message_handler(MV_DiamMessage* msg);
// Installs both in the stack (start-up).
void KsDiamDict__RegisterHandlers();
