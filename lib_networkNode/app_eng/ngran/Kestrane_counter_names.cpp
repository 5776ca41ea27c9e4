// Names of the console's counter numbers, with no engine behind them: the console
// client shows a test report's rows by name with these.
#include <cstring>
#include <iterator>

#include "Kestrane_counters.h"

namespace {

struct FieldName {
    const char* Field;
    const char* Name;
};
#define KS_FIELD_NAME(field, name) {#field, name},
constexpr FieldName kAmfNames[] = {KS_TEST_COUNTERS_AMF(KS_FIELD_NAME)};
#undef KS_FIELD_NAME

struct AmfRow {
    uint16_t ID;
    const char* Field;
};
#define KS_AMF_ROW(id, field) {id, #field},
constexpr AmfRow kAmfRows[] = {KS_CONSOLE_COUNTERS_AMF(KS_AMF_ROW)};
#undef KS_AMF_ROW

#define KS_NAME(field, name) name,
constexpr const char* kUpf[] = {KS_TEST_COUNTERS_UPF(KS_NAME)};
constexpr const char* kPgw[] = {KS_TEST_COUNTERS_PGW(KS_NAME)};
constexpr const char* kSgw[] = {KS_TEST_COUNTERS_SGW(KS_NAME)};
constexpr const char* kHss[] = {KS_TEST_COUNTERS_HSS(KS_NAME)};
constexpr const char* kEir[] = {KS_TEST_COUNTERS_EIR(KS_NAME)};
constexpr const char* kPcrf[] = {KS_TEST_COUNTERS_PCRF(KS_NAME)};
constexpr const char* kAaa[] = {KS_TEST_COUNTERS_AAA(KS_NAME)};
constexpr const char* kChf[] = {KS_TEST_COUNTERS_CHF(KS_NAME)};
constexpr const char* kGgsn[] = {KS_TEST_COUNTERS_GGSN(KS_NAME)};
#undef KS_NAME

struct TypeNames {
    uint32_t AppType;
    const char* const* Names;
    size_t Count;
};
constexpr TypeNames kTypes[] = {
    {2, kUpf, std::size(kUpf)},   {5, kPgw, std::size(kPgw)},    {6, kSgw, std::size(kSgw)},
    {7, kHss, std::size(kHss)},   {8, kEir, std::size(kEir)},    {10, kPcrf, std::size(kPcrf)},
    {11, kAaa, std::size(kAaa)},  {12, kChf, std::size(kChf)},   {31, kGgsn, std::size(kGgsn)},
};

const char* amfName(const char* field) {
    for (const FieldName& n : kAmfNames)
        if (strcmp(n.Field, field) == 0) return n.Name;
    return nullptr;
}

}  // namespace

const char* KsEngine__CounterNameByID(uint32_t AppType, uint32_t id) {
    if (id == 50000) return "ExecutionTimeout";
    if (AppType == 1) {
        if (id == 39) return "NGAPSendFailed";
        for (const AmfRow& r : kAmfRows)
            if (r.ID == id) return amfName(r.Field);
        return nullptr;
    }
    for (const KsCounterNumbering& n : kKsCounterNumbering) {
        if (n.AppType != AppType) continue;
        for (const TypeNames& t : kTypes) {
            if (t.AppType != AppType) continue;
            for (size_t i = 0; i < t.Count; ++i)
                if (KsCounterNumber(n, i) == id) return t.Names[i];
        }
    }
    return nullptr;
}
