// The template engine: loading of the template and dictionary directories into the tree,
// the NAS element indexing, and every lookup of the tree.
#include "KsTemplateEng.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <memory_resource>
#include <mutex>
#include <shared_mutex>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

struct KsTemplateIndex {
    std::unordered_map<std::string_view, MV_Template*> names;  // keys view the templates' own names
};

struct __mv_templateeng {
    std::atomic<MV_TemplateInterface*> interfaceHead{nullptr};
    MV_TemplateInterface* interfaceCurrent = nullptr;
    MV_DiamApp* dictAppHead = nullptr;
    MV_DiamApp* dictAppCurrent = nullptr;

    // Templates, elements and dictionary entries live as long as the tree: one arena
    // that goes as a whole.
    std::pmr::monotonic_buffer_resource arena{64 * 1024};
    // Appends (interfaces, templates, names) against lookups by name.
    std::shared_mutex lock;
    // Application id << 32 | AVP code -> data type; the first entry in load order wins.
    std::unordered_map<uint64_t, uint32_t> avpTypes;
    // The "Value"s the elements hold, each with a reference of its own.
    std::vector<json_t*> values;

    template <class T>
    T* make() {
        return new (arena.allocate(sizeof(T), alignof(T))) T{};
    }
    ~__mv_templateeng() {
        for (MV_TemplateInterface* i = interfaceHead.load(); i;) {
            MV_TemplateInterface* next = i->Next.load();
            delete i->byName;
            delete i;
            i = next;
        }
        for (json_t* v : values) json_decref(v);
    }
};

namespace {

std::atomic<__mv_templateeng*> __tEng{nullptr};
std::mutex gInitLock;
int gInitResult = -1;  // -1 until the first Init, then its result

__mv_templateeng* engine() { return __tEng.load(std::memory_order_acquire); }

__mv_templateeng* instance() {
    if (__mv_templateeng* e = engine()) return e;
    static std::mutex m;
    std::lock_guard g(m);
    if (!engine()) __tEng.store(new __mv_templateeng, std::memory_order_release);
    return engine();
}

bool startsWith(const char* s, const char* prefix) {
    return !prefix || !*prefix || strncmp(s, prefix, strlen(prefix)) == 0;
}

MV_TemplateInterface* findInterfaceIn(__mv_templateeng* e, const char* name) {
    for (MV_TemplateInterface* i = e->interfaceHead.load(std::memory_order_acquire); i;
         i = i->Next.load(std::memory_order_acquire))
        if (strcmp(i->sInterfaceName, name) == 0) return i;
    return nullptr;
}

MV_Template* findByName(__mv_templateeng* e, MV_TemplateInterface* iface, const char* name) {
    std::shared_lock g(e->lock);
    auto it = iface->byName->names.find(name);
    return it == iface->byName->names.end() ? nullptr : it->second;
}

// Publishes a whole template: readers see it with its elements or not at all.
void appendTemplate(__mv_templateeng* e, MV_TemplateInterface* iface, MV_Template* t) {
    std::unique_lock g(e->lock);
    iface->byName->names.emplace(t->sTemplateName, t);
    if (iface->templateCurrent) iface->templateCurrent->Next.store(t, std::memory_order_release);
    else iface->templateHead.store(t, std::memory_order_release);
    iface->templateCurrent = t;
}

// ---------------------------------------------------------------- element builders

enum class Builder { Element, IEElement, AVP };

// What a loader is reading, for the lines that tell what was skipped.
struct LoadCtx {
    const char* file;
    const char* iface;
    const char* name;
};

void skipped(const LoadCtx& c, const char* why, const char* func) {
    printf("Template Element skipped (%s) in Template=%s-%s File=%s %s|%d\n", why, c.iface, c.name, c.file, func,
           __LINE__);
}

uint32_t valueTypeOf(const char* text, Builder b) {
    // NAS and NGAP code reads "default" and "System" as values of the UE; the other
    // protocols as the engine's own default.
    uint32_t byEngine = b == Builder::Element ? KsTMT__VALUE_TYPE__UEProperty : KsTMT__VALUE_TYPE__DEFAULT;
    if (strcmp(text, "default") == 0 || strcmp(text, "System") == 0) return byEngine;
    if (strcmp(text, "UEProperty") == 0) return KsTMT__VALUE_TYPE__UEProperty;
    if (strcmp(text, "Int") == 0) return KsTMT__VALUE_TYPE__INT;
    if (strcmp(text, "String") == 0) return KsTMT__VALUE_TYPE__String;
    if (strcmp(text, "Hex") == 0) return KsTMT__VALUE_TYPE__Hex;
    if (strcmp(text, "Json") == 0) return KsTMT__VALUE_TYPE__JSon;
    return KsTMT__VALUE_TYPE__DEFAULT;
}

bool isHexText(const char* s, size_t n) {
    if (n % 2) return false;
    for (size_t i = 0; i < n; ++i)
        if (!isxdigit(static_cast<unsigned char>(s[i]))) return false;
    return true;
}

// Reads "ValueType" and "Value" into e; the reason when the element cannot be used.
const char* takeValue(MV_Element& e, json_t* el, Builder b) {
    json_t* vt = json_object_get(el, "ValueType");
    if (!vt) e.ValueType = KsTMT__VALUE_TYPE__DEFAULT_0;
    else if (json_is_string(vt)) e.ValueType = valueTypeOf(json_string_value(vt), b);
    else return "ValueType is not text";
    json_t* v = json_object_get(el, "Value");
    switch (e.ValueType) {
        case KsTMT__VALUE_TYPE__INT:
            if (!json_is_integer(v)) return "an Int element needs an integer Value";
            e.IntVal = json_integer_value(v);
            break;
        case KsTMT__VALUE_TYPE__String:
            if (!json_is_string(v)) return "a String element needs a text Value";
            e.strVal = json_string_value(v);
            e.IntVal = int64_t(json_string_length(v));
            break;
        case KsTMT__VALUE_TYPE__Hex:
            if (!json_is_string(v) || !isHexText(json_string_value(v), json_string_length(v)))
                return "a Hex element needs a Value of an even number of hex digits";
            e.strVal = json_string_value(v);
            e.IntVal = int64_t(json_string_length(v));
            break;
        case KsTMT__VALUE_TYPE__JSon:
            if (!v) return "a Json element needs a Value";
            break;
    }
    e.jData = v;
    return nullptr;
}

// An optional integer member within [lo, hi]: def when absent; false when present and
// not such a number.
bool intMember(json_t* el, const char* key, json_int_t def, json_int_t lo, json_int_t hi, json_int_t& out) {
    json_t* v = json_object_get(el, key);
    if (!v) {
        out = def;
        return true;
    }
    if (!json_is_integer(v)) return false;
    out = json_integer_value(v);
    return out >= lo && out <= hi;
}

// Moves a checked element into the tree under parent, or at the end of the template.
MV_Element* commit(__mv_templateeng* eng, MV_Template* t, MV_Element* parent, const MV_Element& built) {
    MV_Element* e = eng->make<MV_Element>();
    *e = built;
    if (e->jData) {
        json_incref(e->jData);
        eng->values.push_back(e->jData);
    }
    MV_Element*& head = parent ? parent->GroupHead : t->elementHead;
    MV_Element*& cur = parent ? parent->GroupCurrent : t->elementCurrent;
    if (cur) cur->Next = e;
    else head = e;
    cur = e;
    return e;
}

MV_Element* KsTemplateEng__AddElement(__mv_templateeng* eng, MV_Template* t, json_t* el, const LoadCtx& c) {
    if (!json_is_object(el)) return skipped(c, "not an object", __func__), nullptr;
    MV_Element e{};
    e.ID = 1;
    json_t* id = json_object_get(el, "ID");
    if (json_is_string(id)) {
        if (json_string_length(id) >= sizeof e.sElementID) return skipped(c, "ID longer than 99 characters", __func__), nullptr;
        memcpy(e.sElementID, json_string_value(id), json_string_length(id));
    } else if (json_is_integer(id)) {
        if (json_integer_value(id) < 1 || json_integer_value(id) > INT32_MAX)
            return skipped(c, "a number ID below 1 or above 2147483647", __func__), nullptr;
        e.ID = int32_t(json_integer_value(id));
    } else if (id) {
        return skipped(c, "ID is neither text nor a number", __func__), nullptr;
    }
    // Only an element enabled with exactly 1 is sent: 0 and other values switch it off.
    json_t* en = json_object_get(el, "Enabled");
    if (en && !(json_is_integer(en) && json_integer_value(en) == 1)) return nullptr;
    if (const char* why = takeValue(e, el, Builder::Element)) return skipped(c, why, __func__), nullptr;
    return commit(eng, t, nullptr, e);
}

// The grouped builders of PFCP, PGW and GGSN elements and of Diameter AVPs.
struct GroupedForm {
    Builder builder;
    const char* idKey;
    const char* nameKey;
    size_t nameCut;
    const char* childKey;
    const char* func;
};
constexpr GroupedForm kIEForm{Builder::IEElement, "IEType", "IEName", 49, "Elements", "KsTemplateEng__AddIEElement"};
constexpr GroupedForm kAVPForm{Builder::AVP, "Code", "Name", 99, "AVPs", "KsTemplateEng__AddAVP"};

void addGrouped(__mv_templateeng* eng, const GroupedForm& f, MV_Template* t, MV_Element* parent, json_t* el, int level,
                const LoadCtx& c) {
    if (level >= KS_TEMPLATE_MAX_LEVEL) return skipped(c, "nested deeper than the loader takes", f.func);
    if (!json_is_object(el)) return skipped(c, "not an object", f.func);
    json_int_t enabled, id, vendor = 0, mandatory;
    if (!intMember(el, "Enabled", 1, INT64_MIN, INT64_MAX, enabled)) return skipped(c, "Enabled is not a number", f.func);
    if (enabled == 0) return;  // off, with its children
    MV_Element e{};
    if (!intMember(el, f.idKey, 0, 0, INT32_MAX, id)) return skipped(c, "its id is not a number from 0", f.func);
    e.ID = int32_t(id);
    json_t* name = json_object_get(el, f.nameKey);
    if (name && !json_is_string(name)) return skipped(c, "its name is not text", f.func);
    if (name) memcpy(e.sElementID, json_string_value(name), std::min(json_string_length(name), f.nameCut));
    if (f.builder == Builder::AVP) {
        if (!intMember(el, "VendorId", 0, 0, UINT32_MAX, vendor)) return skipped(c, "VendorId is not a number", f.func);
        if (!intMember(el, "Mandatory", 0, 0, UINT32_MAX, mandatory))
            return skipped(c, "Mandatory is not a number", f.func);
    } else if (!intMember(el, "InstanceId", 0, 0, UINT32_MAX, mandatory)) {
        return skipped(c, "InstanceId is not a number", f.func);
    }
    e.VendorId = uint32_t(vendor);
    e.Mandatory = uint32_t(mandatory);
    if (const char* why = takeValue(e, el, f.builder)) return skipped(c, why, f.func);
    json_t* children = json_object_get(el, f.childKey);
    if (children && !json_is_array(children)) return skipped(c, "its children are not an array", f.func);
    MV_Element* made = commit(eng, t, parent, e);
    size_t i;
    json_t* child;
    json_array_foreach(children, i, child) addGrouped(eng, f, t, made, child, level + 1, c);
}

// ---------------------------------------------------------------- template loaders

struct LoaderForm {
    const char* label;         // how its lines begin
    const char* func;          // the loader's name, in its lines
    const char* idKey;
    const char* elementsKey;
    const char* missingElements;  // what the missing-elements line names
    Builder builder;
    bool (*idOk)(json_int_t id);
};

bool below256(json_int_t id) { return id >= 0 && id < 256; }
bool pfcpSession(json_int_t id) { return id == 50 || id == 52 || id == 54 || id == 56; }
bool anyU32(json_int_t id) { return id >= 0 && id <= UINT32_MAX; }

constexpr LoaderForm kNAS5G{"NAS-5G Item Template", "KsTemplateEng__LoadTemplate_NAS5G", "MessageType", "Elements",
                            "Elements", Builder::Element, below256};
constexpr LoaderForm kNGAP{"NGAP Item Template", "KsTemplateEng__LoadTemplate_NGAP", "ProcedureCode", "ProtocolIEs",
                           "ProtocolIEs", Builder::Element, below256};
constexpr LoaderForm kPFCP{"PFCP Item Template", "KsTemplateEng__LoadTemplate_PFCP", "MessageType", "Elements",
                           "Elements Tag", Builder::IEElement, pfcpSession};
constexpr LoaderForm kPGW{"PFCP Item Template", "KsTemplateEng__LoadTemplate_PFCP", "MessageType", "Elements",
                          "Elements Tag", Builder::IEElement, anyU32};
constexpr LoaderForm kDiam{"HSS/AAA Template", "KsTemplateEng__LoadTemplate_HSS", "CmdCode", "AVPs", "AVPs Tag",
                           Builder::AVP, anyU32};

void loadOne(__mv_templateeng* eng, const LoaderForm& f, const char* ifaceName, json_t* tmpl, const char* file) {
    const char* name = json_string_value(json_object_get(tmpl, "Name"));
    if (!name) {
        printf("%s - Name Not Found in File=%s %s|%d\n", f.label, file, f.func, __LINE__);
        return;
    }
    if (f.builder == Builder::AVP) {
        json_int_t enabled;
        if (intMember(tmpl, "Enabled", 1, INT64_MIN, INT64_MAX, enabled) && enabled == 0) return;
    }
    json_int_t id;
    if (!intMember(tmpl, f.idKey, -1, 0, INT64_MAX, id) || !f.idOk(id)) {
        printf("%s - Invalid-%s Found in File=%s %s|%d\n", f.label, f.builder == Builder::AVP ? "CmdCode" : "MessageType",
               file, f.func, __LINE__);
        return;
    }
    json_t* elements = json_object_get(tmpl, f.elementsKey);
    if (!json_is_array(elements)) {
        printf("%s - %s Not Found in File=%s %s|%d\n", f.label, f.missingElements, file, f.func, __LINE__);
        return;
    }
    if (json_array_size(elements) == 0) return;
    if (strlen(name) >= KS_TEMPLATE_NAME_SIZE) {
        printf("%s - Name longer than %d characters in File=%s %s|%d\n", f.label, KS_TEMPLATE_NAME_SIZE - 1, file,
               f.func, __LINE__);
        return;
    }
    MV_TemplateInterface* iface = KsTemplateEng__FindInterface(ifaceName);
    if (findByName(eng, iface, name)) {
        printf("Template alreay exists, ignoring Template with Name=%s-%s   %s|%d\n", ifaceName, name, f.func, __LINE__);
        return;
    }
    MV_Template* t = eng->make<MV_Template>();
    snprintf(t->sTemplateName, sizeof t->sTemplateName, "%s", name);
    t->MessageType = uint32_t(id);
    LoadCtx c{file, ifaceName, name};
    size_t i;
    json_t* el;
    json_array_foreach(elements, i, el) {
        if (f.builder == Builder::Element) KsTemplateEng__AddElement(eng, t, el, c);
        else addGrouped(eng, f.builder == Builder::AVP ? kAVPForm : kIEForm, t, nullptr, el, 0, c);
    }
    appendTemplate(eng, iface, t);
}

struct GroupType {
    const char* type;
    const LoaderForm* form;  // null: accepted and passed over
};
constexpr GroupType kGroupTypes[] = {
    {"HSS", &kDiam},   {"AAA", &kDiam},  {"PCRF", &kDiam}, {"CHF", &kDiam},     {"NAS5G", &kNAS5G},
    {"NGAP", &kNGAP},  {"PFCP", &kPFCP}, {"PGW", &kPGW},   {"GGSN", &kPGW},     {"NAS4G", nullptr},
    {"S1AP", nullptr},
};

// ---------------------------------------------------------------- NAS indexing

// The ids of each message's IEs, in the order the message builders number them.
struct NasIndexTable {
    uint32_t messageType;
    std::span<const std::string_view> ids;
};
constexpr std::string_view kRegistrationRequest[] = {
    "ngKSI", "5GSMobileIdentity", "C-", "10", "2E", "2F", "52", "17", "40", "50", "B-", "2B",
    "77",    "25",                "18", "51", "70", "74", "8-", "7B", "9-", "53", "41", "42",
    "71",    "60",                "6E", "6A", "67", "35", "48", "1A", "A-", "30"};
constexpr std::string_view kRegistrationComplete[] = {"73"};
constexpr std::string_view kDeregistrationRequest[] = {"DeRegistrationType", "ngKSI", "5GSMobileIdentity"};
constexpr std::string_view kServiceRequest[] = {"ngKSI", "ServiceType", "5GSMobileIdentity", "40", "50", "25", "71"};
constexpr std::string_view kAuthenticationResponse[] = {"2D", "78"};
constexpr std::string_view kAuthenticationFailure[] = {"5GMMCause", "30"};
constexpr std::string_view kIdentityResponse[] = {"5GSMobileIdentity"};
constexpr std::string_view kSecurityModeComplete[] = {"77", "71", "78"};
constexpr std::string_view kMMCauseOnly[] = {"5GMMCause"};
constexpr std::string_view kNotificationResponse[] = {"50"};
constexpr std::string_view kULNASTransport[] = {"PayloadContainerType", "PayloadContainer", "12", "59", "8-",
                                                "22",                   "25",               "24", "A-", "F-"};
constexpr std::string_view kPDUSessionEstablishment[] = {"IntegrityProtectionMaximumDatarate",
                                                         "9-", "A-", "28", "55", "B-", "39", "7B", "66", "6E", "6F",
                                                         "74", "1F", "29"};
constexpr std::string_view kPDUSessionModification[] = {"28", "59", "55", "B-", "13", "7A",
                                                        "79", "75", "7B", "74", "66", "1F"};
constexpr std::string_view kPDUSessionModificationComplete[] = {"7B", "74"};
constexpr std::string_view kPDUSessionModificationCommandReject[] = {"5GSMCause", "7B"};
constexpr std::string_view kPDUSessionRelease[] = {"59", "7B"};

constexpr NasIndexTable kNasIndex[] = {
    {65, kRegistrationRequest},    {67, kRegistrationComplete},
    {69, kDeregistrationRequest},  {72, {}},
    {76, kServiceRequest},         {85, {}},
    {87, kAuthenticationResponse}, {89, kAuthenticationFailure},
    {92, kIdentityResponse},       {94, kSecurityModeComplete},
    {95, kMMCauseOnly},            {100, kMMCauseOnly},
    {102, kNotificationResponse},  {103, kULNASTransport},
    {193, kPDUSessionEstablishment}, {201, kPDUSessionModification},
    {204, kPDUSessionModificationComplete}, {205, kPDUSessionModificationCommandReject},
    {209, kPDUSessionRelease},     {212, kPDUSessionRelease},
};

void KsTemplateEng__IndexTemplate_NAS5G(MV_Template* t) {
    for (const NasIndexTable& table : kNasIndex) {
        if (table.messageType != t->MessageType) continue;
        for (MV_Element* e = t->elementHead; e; e = e->Next) {
            auto at = std::find(table.ids.begin(), table.ids.end(), std::string_view(e->sElementID));
            if (at != table.ids.end()) e->Index = int32_t(at - table.ids.begin());
        }
        return;
    }
}

// ---------------------------------------------------------------- files

// Regular files named "<something>.json", sorted so that which of two equal names wins
// does not depend on the file system.
bool listJsonFiles(const char* dir, std::vector<std::string>& names) {
    DIR* d = opendir(dir);
    if (!d) return false;
    while (dirent* e = readdir(d)) {
        size_t n = strlen(e->d_name);
        if (n <= 5 || strcmp(e->d_name + n - 5, ".json") != 0) continue;
        struct stat st;
        std::string path = std::string(dir) + "/" + e->d_name;
        if (stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode)) names.emplace_back(e->d_name);
    }
    closedir(d);
    std::sort(names.begin(), names.end());
    return true;
}

// The document of a file, or null with the reason printed.
json_t* loadDocument(const std::string& path) {
    struct stat st;
    if (stat(path.c_str(), &st) == 0 && uint64_t(st.st_size) > KS_TEMPLATE_FILE_LIMIT) {
        printf("Loading Template File Failed: size=%lld is above the limit of %u bytes File=%s \n",
               (long long)st.st_size, KS_TEMPLATE_FILE_LIMIT, path.c_str());
        return nullptr;
    }
    json_error_t err{};
    // Any root parses; the loaders take objects and arrays and pass over the rest.
    json_t* doc = json_load_file(path.c_str(), JSON_DECODE_ANY, &err);
    if (!doc)
        printf("Loading Template File Failed with error:[%s] line=%d column=%d position=%d source=[%s] File=%s \n",
               err.text, err.line, err.column, err.position, err.source, path.c_str());
    return doc;
}

uint32_t translateDataType(const char* t) {
    static constexpr std::string_view kNames[] = {"OctetString", "Int32", "Int64", "UInt32", "UInt64", "Grouped"};
    if (!t) return 0;
    for (size_t i = 0; i < std::size(kNames); ++i)
        if (kNames[i] == t) return uint32_t(i + 1);
    return 0;
}

}  // namespace

// ---------------------------------------------------------------- start-up

int KsTemplateEng__Init(void) { return KsTemplateEng__InitFrom("./resources/templates", "./resources/dictionary"); }

namespace {

// Loads both directories into the engine; 0 when a file stops start-up.
int loadDirectories(__mv_templateeng* eng, const char* templateDir, const char* dictionaryDir) {
    std::vector<std::string> files;
    if (!listJsonFiles(templateDir, files)) {
        printf("Unable to read template directory %s|%d\n", "KsTemplateEng__Init", __LINE__);
    } else {
        for (const std::string& f : files) {
            std::string path = std::string(templateDir) + "/" + f;
            json_t* doc = loadDocument(path);
            if (!doc) return 0;
            if (json_is_object(doc)) {
                KsTemplateEng__LoadTemplate(doc, path.c_str());
            } else if (json_is_array(doc)) {
                size_t i;
                json_t* group;
                json_array_foreach(doc, i, group) KsTemplateEng__LoadTemplate(group, path.c_str());
            }
            // Elements keep references to their values; the rest of the document goes.
            json_decref(doc);
        }
        for (MV_TemplateInterface* i = eng->interfaceHead.load(); i; i = i->Next.load())
            KsTemplateEng__DoInterfaceIndex(i);
    }
    files.clear();
    if (!listJsonFiles(dictionaryDir, files)) return 1;
    for (const std::string& f : files) {
        std::string path = std::string(dictionaryDir) + "/" + f;
        json_t* doc = loadDocument(path);
        if (!doc) return 0;
        printf("fileWithPath=%s\n", path.c_str());
        if (!json_is_array(doc))
            printf("Dictionary File is not an array, skipped File=%s %s|%d\n", path.c_str(), "KsTemplateEng__Init",
                   __LINE__);
        size_t i;
        json_t* app;
        json_array_foreach(doc, i, app) KsTemplateEng__LoadAppDict(app, path.c_str());
        json_decref(doc);
    }
    return 1;
}

}  // namespace

int KsTemplateEng__InitFrom(const char* templateDir, const char* dictionaryDir) {
    std::lock_guard g(gInitLock);
    if (gInitResult < 0) {
        gInitResult = loadDirectories(instance(), templateDir, dictionaryDir);
        fflush(stdout);
    }
    return gInitResult;
}

void KsTemplateEng___Reset(void) {
    std::lock_guard g(gInitLock);
    delete __tEng.exchange(nullptr);
    gInitResult = -1;
}

void KsTemplateEng__LoadTemplate(json_t* jsonTemplate, const char* fileName) {
    json_t* type = json_object_get(jsonTemplate, "Type");
    if (!json_is_string(type)) {
        printf("Template Type Not Found in File=%s %s|%d\n", fileName, __func__, __LINE__);
        return;
    }
    json_t* templates = json_object_get(jsonTemplate, "Templates");
    if (!templates) {
        printf("Templates Not Found in File=%s %s|%d\n", fileName, __func__, __LINE__);
        return;
    }
    if (!json_is_array(templates)) {
        printf("Templates Not An Array, in File=%s %s|%d\n", fileName, __func__, __LINE__);
        return;
    }
    const char* t = json_string_value(type);
    const GroupType* g = std::find_if(std::begin(kGroupTypes), std::end(kGroupTypes),
                                      [t](const GroupType& x) { return strcmp(x.type, t) == 0; });
    size_t i;
    json_t* tmpl;
    json_array_foreach(templates, i, tmpl) {
        if (g == std::end(kGroupTypes)) printf("Invalid Template Type=%s  %s|%d\n", t, __func__, __LINE__);
        else if (g->form) loadOne(instance(), *g->form, g->type, tmpl, fileName);
    }
}

void KsTemplateEng__DoInterfaceIndex(MV_TemplateInterface* iface) {
    if (!iface || strcmp(iface->sInterfaceName, "NAS5G") != 0) return;
    for (MV_Template* t = iface->templateHead.load(); t; t = t->Next.load()) KsTemplateEng__IndexTemplate_NAS5G(t);
}

void KsTemplateEng__LoadAppDict(json_t* appObj, const char* fileName) {
    __mv_templateeng* eng = instance();
    json_int_t appId;
    if (!json_is_object(appObj) || !intMember(appObj, "ApplicationId", 0, 0, UINT32_MAX, appId) || appId == 0) {
        printf("Dictionary application skipped: no ApplicationId above 0 in File=%s %s|%d\n", fileName, __func__,
               __LINE__);
        return;
    }
    json_t* avps = json_object_get(appObj, "AVPs");
    if (!json_is_array(avps) || json_array_size(avps) == 0) {
        printf("Dictionary application %" PRId64 " skipped: no AVPs in File=%s %s|%d\n", int64_t(appId), fileName,
               __func__, __LINE__);
        return;
    }
    auto* app = eng->make<MV_DiamApp>();
    app->applicationId = uint32_t(appId);
    uint32_t type = 0;  // a run of AVPs of one type names it once, at its head
    size_t i;
    json_t* avp;
    json_array_foreach(avps, i, avp) {
        json_int_t code;
        if (!json_is_object(avp) || !intMember(avp, "Code", 0, 0, UINT32_MAX, code)) {
            printf("Dictionary entry %zu of application %u skipped: not an object with a numeric Code in File=%s %s|%d\n",
                   i, app->applicationId, fileName, __func__, __LINE__);
            continue;
        }
        if (uint32_t t = translateDataType(json_string_value(json_object_get(avp, "DataType")))) type = t;
        if (code == 0 || type == 0) continue;
        auto* d = eng->make<__mv_diam_dict>();
        d->avpCode = uint32_t(code);
        d->dataType = type;
        if (app->dictCurrent) app->dictCurrent->Next = d;
        else app->dictHead = d;
        app->dictCurrent = d;
        eng->avpTypes.emplace(uint64_t(app->applicationId) << 32 | d->avpCode, type);
    }
    if (eng->dictAppCurrent) eng->dictAppCurrent->Next = app;
    else eng->dictAppHead = app;
    eng->dictAppCurrent = app;
}

// ---------------------------------------------------------------- lookups

MV_TemplateInterface* KsTemplateEng__FindInterface(const char* sInterfaceName) {
    if (!sInterfaceName) return nullptr;
    __mv_templateeng* e = instance();
    if (MV_TemplateInterface* i = findInterfaceIn(e, sInterfaceName)) return i;
    std::unique_lock g(e->lock);
    if (MV_TemplateInterface* i = findInterfaceIn(e, sInterfaceName)) return i;
    auto* i = new MV_TemplateInterface{};
    snprintf(i->sInterfaceName, sizeof i->sInterfaceName, "%s", sInterfaceName);
    i->byName = new KsTemplateIndex;
    if (e->interfaceCurrent) e->interfaceCurrent->Next.store(i, std::memory_order_release);
    else e->interfaceHead.store(i, std::memory_order_release);
    e->interfaceCurrent = i;
    return i;
}

MV_Template* KsTemplateEng__FindTemplate(const char* sTemplateName, const char* cType, int bCreate) {
    __mv_templateeng* e = engine();
    if (!sTemplateName || !cType || (!e && bCreate != 1)) return nullptr;
    if (bCreate != 1) {
        MV_TemplateInterface* i = findInterfaceIn(e, cType);
        return i ? findByName(e, i, sTemplateName) : nullptr;
    }
    if (strlen(sTemplateName) >= KS_TEMPLATE_NAME_SIZE) return nullptr;
    MV_TemplateInterface* i = KsTemplateEng__FindInterface(cType);
    e = engine();
    if (MV_Template* t = findByName(e, i, sTemplateName)) return t;
    MV_Template* t;
    {
        std::unique_lock g(e->lock);
        t = e->make<MV_Template>();
    }
    snprintf(t->sTemplateName, sizeof t->sTemplateName, "%s", sTemplateName);
    appendTemplate(e, i, t);
    return t;
}

MV_Template* KsTemplateEng__FindTemplateByMessageId(const char* sTemplateName, const char* cType, uint32_t messageId) {
    if (!sTemplateName || !*sTemplateName) return nullptr;
    MV_Template* t = KsTemplateEng__FindTemplate(sTemplateName, cType, 0);
    return t && t->MessageType == messageId ? t : nullptr;
}

MV_Template* KsTemplateEng__FindTemplateByMessageId2(const char* sTemplateName, const char* cType, int,
                                                     uint32_t messageId) {
    return KsTemplateEng__FindTemplateByMessageId(sTemplateName, cType, messageId);
}

const char* KsTemplateEng__GetTemplateName(const MV_Template* sTemplate) {
    return sTemplate ? sTemplate->sTemplateName : "-";
}

uint32_t KsTemplateEng__CollectTemplates(const char* cType, const char* prefix, __mv_template_list* list) {
    __mv_templateeng* e = engine();
    MV_TemplateInterface* i = e && cType ? findInterfaceIn(e, cType) : nullptr;
    uint32_t added = 0;
    if (!i || !list) return 0;
    for (MV_Template* t = i->templateHead.load(std::memory_order_acquire); t && list->Count < KS_TEMPLATE_LIST_SIZE;
         t = t->Next.load(std::memory_order_acquire)) {
        if (!startsWith(t->sTemplateName, prefix)) continue;
        list->templates[list->Count++] = t;
        ++added;
    }
    return added;
}

const char* KsTemplateEng__DiamPrefix(int appType, uint32_t sub) {
    switch (appType) {
        case 5: return "";
        case 7: {
            static constexpr const char* k[] = {"HSS-S6a", "HSS-Sh", "HSS-Cx", "HSS-SWx"};
            return sub >= 1 && sub <= 4 ? k[sub - 1] : "";
        }
        case 10: return sub == 1 ? "PCRF-Gx" : sub == 2 ? "PCRF-Rx" : "";
        case 11: return sub == 2 ? "AAA-SWm" : "";
        case 12: return sub == 1 ? "CHF-Gy" : sub == 2 ? "CHF-Ro" : "";
    }
    return nullptr;
}

// ---------------------------------------------------------------- iterators

MV_Element* KsTemplateEng__BeginIterator(const MV_Template* t) { return t ? t->elementHead : nullptr; }
MV_Element* KsTemplateEng__NextIterator(const MV_Element* e) { return e ? e->Next : nullptr; }
MV_Element* KsTemplateEng__GetChildElement(const MV_Element* e) { return e ? e->GroupHead : nullptr; }
int32_t KsTemplateEng__GetIndex(const MV_Element* e) { return e ? e->Index : 0; }
int32_t KsTemplateEng__GetID(const MV_Element* e) { return e ? e->ID : 0; }
const char* KsTemplateEng__GetName(const MV_Element* e) { return e ? e->sElementID : ""; }
uint32_t KsTemplateEng__GetValueType(const MV_Element* e) { return e ? e->ValueType : 0; }
uint32_t KsTemplateEng__GetVendorId(const MV_Element* e) { return e ? e->VendorId : 0; }
uint32_t KsTemplateEng__GetMandatory(const MV_Element* e) { return e ? e->Mandatory : 0; }
uint32_t KsTemplateEng__InstanceId(const MV_Element* e) { return e ? e->Mandatory : 0; }
json_t* KsTemplateEng__GetJsonValue(const MV_Element* e) { return e ? e->jData : nullptr; }
int64_t KsTemplateEng__GetIntValue(const MV_Element* e) { return e ? e->IntVal : 0; }
const char* KsTemplateEng__GetStrValue(const MV_Element* e) { return e ? e->strVal : nullptr; }
int64_t KsTemplateEng__GetStrLen(const MV_Element* e) { return e ? e->IntVal : 0; }

int KsTemplateEng__GetHexValue(const MV_Element* e, uint8_t* out, size_t cap) {
    if (!e) return -1;
    const char* text = nullptr;
    size_t len = 0;
    if (e->ValueType == KsTMT__VALUE_TYPE__Hex && e->strVal) {
        text = e->strVal;
        len = size_t(e->IntVal);
    } else if (e->ValueType == KsTMT__VALUE_TYPE__JSon) {
        // A Json element gives its bytes in member "Hex", which loading does not check.
        json_t* h = json_object_get(e->jData, "Hex");
        if (!json_is_string(h) || !isHexText(json_string_value(h), json_string_length(h))) return -1;
        text = json_string_value(h);
        len = json_string_length(h);
    } else {
        return -1;
    }
    size_t n = len / 2;
    if (n > cap || (n && !out)) return -1;
    auto nibble = [](char c) { return uint8_t(c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10); };
    for (size_t i = 0; i < n; ++i) out[i] = uint8_t(nibble(text[2 * i]) << 4 | nibble(text[2 * i + 1]));
    return int(n);
}

// ---------------------------------------------------------------- lists for the console

namespace {

void templateInfo(char* buf, int* len, int cap, const char* cType, const char* tag, const char* prefix) {
    __mv_templateeng* e = engine();
    MV_TemplateInterface* i = e && cType ? findInterfaceIn(e, cType) : nullptr;
    if (!i || !buf || !len || *len < 0 || *len >= cap) return;
    bool first = true;
    for (MV_Template* t = i->templateHead.load(std::memory_order_acquire); t; t = t->Next.load(std::memory_order_acquire)) {
        if (!startsWith(t->sTemplateName, prefix)) continue;
        int n = snprintf(buf + *len, size_t(cap - *len), "%s%s#%u#%s", first ? "" : "|", tag, t->MessageType,
                         t->sTemplateName);
        if (n < 0 || n >= cap - *len) {
            buf[*len] = 0;  // an entry cut short is left out
            return;
        }
        *len += n;
        first = false;
    }
}

}  // namespace

void KsTemplateEng__GetTemplateInfo(char* buf, int* len, int cap, const char* cType) {
    struct Tag {
        const char* iface;
        const char* tag;
    };
    static constexpr Tag kTags[] = {{"NAS5G", "1"}, {"NGAP", "2"}, {"PFCP", "3"}, {"PGW", "4"}, {"HSS", "5"}, {"GGSN", "31"}};
    const char* tag = "9";
    for (const Tag& t : kTags)
        if (cType && strcmp(cType, t.iface) == 0) tag = t.tag;
    templateInfo(buf, len, cap, cType, tag, nullptr);
}

void KsTemplateEng__GetTemplateInfo2(char* buf, int* len, int cap, const char* cType, const char* cType2) {
    struct Diam {
        const char* iface;
        const char* tag;
        const char* prefixes[4];
    };
    static constexpr Diam kDiams[] = {
        {"HSS", "5", {"HSS-S6a", "HSS-Sh", "HSS-Cx", "HSS-SWx"}},
        {"AAA", "6", {"AAA-1", "AAA-SWm", "AAA-3", "AAA-4"}},
        {"PCRF", "7", {"PCRF-Gx", "PCRF-Rx", nullptr, nullptr}},
        {"CHF", "8", {"CHF-Gy", "CHF-Ro", nullptr, nullptr}},
    };
    const char* tag = "9";
    const char* prefix = nullptr;
    for (const Diam& d : kDiams) {
        if (!cType || strcmp(cType, d.iface) != 0) continue;
        tag = d.tag;
        if (cType2 && cType2[0] >= '1' && cType2[0] <= '4' && cType2[1] == 0) prefix = d.prefixes[cType2[0] - '1'];
    }
    templateInfo(buf, len, cap, cType, tag, prefix);
}

// ---------------------------------------------------------------- dictionary

void KsTemplateEng__GetAVPDataType(uint32_t appType, uint32_t avpCode, uint32_t* dataType, uint32_t* found) {
    __mv_templateeng* e = engine();
    if (found) *found = 0;
    if (!e) return;
    auto it = e->avpTypes.find(uint64_t(appType) << 32 | avpCode);
    if (it == e->avpTypes.end()) return;
    if (dataType) *dataType = it->second;
    if (found) *found = 1;
}

const MV_DiamApp* KsTemplateEng__GetDictAppHead(void) {
    __mv_templateeng* e = engine();
    return e ? e->dictAppHead : nullptr;
}
