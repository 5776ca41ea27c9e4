// Message templates: the JSON files of ./resources/templates/, read once at start into a
// tree of interfaces (one per protocol family), templates (one per message) and elements
// (one per IE or AVP, with children), and the Diameter AVP types of ./resources/dictionary/.
// The tree is fixed once start-up has read it, so protocol code reads it without a lock:
// it finds a template by name, walks its elements with the iterators and takes values
// that loading has already converted.
#pragma once

#include <jansson.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

// How an element's value is given.
#define KsTMT__VALUE_TYPE__DEFAULT_0 0   // no "ValueType" key
#define KsTMT__VALUE_TYPE__DEFAULT 1     // the engine's default for this element
#define KsTMT__VALUE_TYPE__UEProperty 2  // taken from the UE
#define KsTMT__VALUE_TYPE__INT 3         // IntVal
#define KsTMT__VALUE_TYPE__String 4      // strVal, its length in IntVal
#define KsTMT__VALUE_TYPE__Hex 5         // strVal holds an even number of hex digits, IntVal the text's length
#define KsTMT__VALUE_TYPE__JSon 6        // jData

// Diameter AVP data types of the dictionaries.
#define KS_DIAM_TYPE__OCTET_STRING 1
#define KS_DIAM_TYPE__INT32 2
#define KS_DIAM_TYPE__INT64 3
#define KS_DIAM_TYPE__UINT32 4
#define KS_DIAM_TYPE__UINT64 5
#define KS_DIAM_TYPE__GROUPED 6

#define KS_TEMPLATE_NAME_SIZE 100
// A position lookup collects at most this many candidates.
#define KS_TEMPLATE_LIST_SIZE 512
// Grouped IEs and AVPs nest at most this deep; deeper elements are skipped with a line.
#define KS_TEMPLATE_MAX_LEVEL 16
// A template or dictionary file above this size is refused: its document and the
// elements made from it would take memory in proportion.
#define KS_TEMPLATE_FILE_LIMIT (32u * 1024u * 1024u)

struct MV_Element {
    MV_Element* Next;          // next sibling
    MV_Element* GroupHead;     // children, in file order
    MV_Element* GroupCurrent;
    char sElementID[100];      // textual id or name
    int32_t ID;                // IE id, IE type or AVP code
    int32_t Index;             // position in the NAS message's own table, 0 until indexed
    uint32_t ValueType;        // KsTMT__VALUE_TYPE__...
    json_t* jData;             // the element's "Value", whatever its type
    int64_t IntVal;
    const char* strVal;        // held by jData
    uint32_t VendorId;
    uint32_t Mandatory;        // Diameter M flag; the instance of an IE element
};
typedef MV_Element __mv_element;

struct MV_Template {
    std::atomic<MV_Template*> Next;
    char sTemplateName[KS_TEMPLATE_NAME_SIZE];
    uint32_t MessageType;  // NAS message type, NGAP procedure code, PFCP, GTP or Diameter command code
    MV_Element* elementHead;
    MV_Element* elementCurrent;
};
typedef MV_Template __mv_template;

struct KsTemplateIndex;  // the interface's templates by name

struct MV_TemplateInterface {
    std::atomic<MV_TemplateInterface*> Next;
    char sInterfaceName[KS_TEMPLATE_NAME_SIZE];
    std::atomic<MV_Template*> templateHead;  // in load order
    MV_Template* templateCurrent;
    KsTemplateIndex* byName;
};
typedef MV_TemplateInterface __mv_templateinterface;

struct __mv_diam_dict {
    __mv_diam_dict* Next;
    uint32_t avpCode;
    uint32_t dataType;
};

struct __mv_diam_app {
    __mv_diam_app* Next;
    uint32_t applicationId;
    __mv_diam_dict* dictHead;
    __mv_diam_dict* dictCurrent;
};
typedef __mv_diam_app MV_DiamApp;

// The working list of a position lookup.
struct __mv_template_list {
    MV_Template* templates[KS_TEMPLATE_LIST_SIZE];
    uint32_t Count;
};

// ---------------------------------------------------------------- start-up

// Reads ./resources/templates/ and ./resources/dictionary/ once; a second call returns
// at once. Returns 0, with the reason printed, when a file cannot be read: start-up
// stops, since a test run on half a template set means nothing.
[[nodiscard]] int KsTemplateEng__Init(void);
// The same for other directories (tests, tools). A missing directory is no error.
[[nodiscard]] int KsTemplateEng__InitFrom(const char* templateDir, const char* dictionaryDir);
// Drops the tree so that a test can load another one. Nothing may be reading it.
void KsTemplateEng___Reset(void);

// Loaders of one template group and one dictionary application object, as start-up
// calls them for each file; fileName is for the lines that report what was skipped.
void KsTemplateEng__LoadTemplate(json_t* jsonTemplate, const char* fileName);
void KsTemplateEng__LoadAppDict(json_t* appObj, const char* fileName);
// Gives NAS elements their Index; start-up runs it on every interface after loading.
void KsTemplateEng__DoInterfaceIndex(MV_TemplateInterface* iface);

// ---------------------------------------------------------------- lookups

// The interface of that name, created empty when there is none: never null for a name.
MV_TemplateInterface* KsTemplateEng__FindInterface(const char* sInterfaceName);
// The template of that name in interface cType; with bCreate 1 a missing one is made.
MV_Template* KsTemplateEng__FindTemplate(const char* sTemplateName, const char* cType, int bCreate);
// The template of that name and message type in cType; null for a null or empty name.
MV_Template* KsTemplateEng__FindTemplateByMessageId(const char* sTemplateName, const char* cType, uint32_t messageId);
// The same; appSubType takes no part in the match.
MV_Template* KsTemplateEng__FindTemplateByMessageId2(const char* sTemplateName, const char* cType, int appSubType,
                                                     uint32_t messageId);
// For log lines: the name, or "-".
const char* KsTemplateEng__GetTemplateName(const MV_Template* sTemplate);
// Appends the templates of interface cType whose names begin with prefix (null or ""
// for all) to list, in load order, while it has room. Returns the count added.
uint32_t KsTemplateEng__CollectTemplates(const char* cType, const char* prefix, __mv_template_list* list);
// The name prefix of a Diameter application's interface (HSS 1..4, PCRF 1..2, AAA 2,
// CHF 1..2; "" for PGW); null for an application type without templates of its own.
const char* KsTemplateEng__DiamPrefix(int appType, uint32_t subAppTypeOrInterface);

// ---------------------------------------------------------------- iterators

MV_Element* KsTemplateEng__BeginIterator(const MV_Template* sTemplate);
MV_Element* KsTemplateEng__NextIterator(const MV_Element* element);
MV_Element* KsTemplateEng__GetChildElement(const MV_Element* element);
int32_t KsTemplateEng__GetIndex(const MV_Element* element);
int32_t KsTemplateEng__GetID(const MV_Element* element);
const char* KsTemplateEng__GetName(const MV_Element* element);
uint32_t KsTemplateEng__GetValueType(const MV_Element* element);
uint32_t KsTemplateEng__GetVendorId(const MV_Element* element);
uint32_t KsTemplateEng__GetMandatory(const MV_Element* element);
uint32_t KsTemplateEng__InstanceId(const MV_Element* element);
json_t* KsTemplateEng__GetJsonValue(const MV_Element* element);
int64_t KsTemplateEng__GetIntValue(const MV_Element* element);
const char* KsTemplateEng__GetStrValue(const MV_Element* element);
int64_t KsTemplateEng__GetStrLen(const MV_Element* element);
// The bytes of a "Hex" element or of a "Json" element's member "Hex", at most cap of them:
// their count, or -1 for an element that has no such bytes or holds more than cap.
int KsTemplateEng__GetHexValue(const MV_Element* element, uint8_t* out, size_t cap);

// ---------------------------------------------------------------- lists for the console

// Appends "tag#MessageType#name" for each template of cType, joined by "|", at
// buf + *len, and adds the text's length to *len. Entries that would not fit in cap
// bytes (with a terminator) are left out.
void KsTemplateEng__GetTemplateInfo(char* buf, int* len, int cap, const char* cType);
// The same for a Diameter interface, with only the templates whose name begins with the
// prefix cType2 picks ("1" to "4").
void KsTemplateEng__GetTemplateInfo2(char* buf, int* len, int cap, const char* cType, const char* cType2);

// ---------------------------------------------------------------- dictionary

// The data type of an AVP in the dictionary of application appType: *found 1 and
// *dataType set, or *found 0.
void KsTemplateEng__GetAVPDataType(uint32_t appType, uint32_t avpCode, uint32_t* dataType, uint32_t* found);
// The applications in load order, for listing.
const MV_DiamApp* KsTemplateEng__GetDictAppHead(void);
