// Text reports of ./reports/: a header, then for each UE its IMSI and one line per
// message event it recorded while WriteReport was set.
#pragma once

#include <cstdint>

struct __mv_ks__ue;

// Writes the report of the UEs from ksUEItem on, walking TestNext when useTestNext is
// 1, else Next. With a testId of 1 or more the file is "./reports/test_<id>.txt" and
// names the test; otherwise it is named by the time. Every event written is given
// back to the event pool. Returns 1 when the file stands, 0 when it could not be
// written.
int KsReport__CreateTextReport(int ReportType, __mv_ks__ue* ksUEItem, int useTestNext, int testId);

// The name of an NGAP procedure code; direction 2 is a message the UE side received.
const char* KsReport__SetProcCode(uint32_t procedureCode, uint32_t direction);
// The spaced name of a 5GMM or 5GSM message type.
const char* KsReport__NasMMMessageType(uint32_t messageType, uint32_t direction);
