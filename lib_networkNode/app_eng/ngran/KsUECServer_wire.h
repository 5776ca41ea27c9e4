// The UE-Console protocol on the wire: the message types and every record, packed,
// in the host's byte order (little-endian on the machines the engine runs on). Text
// fields are fixed-width and zero-padded; a text that fills its field has no
// terminator. Offsets that a console depends on are checked below each record.
#pragma once

#include <cstddef>
#include <cstdint>

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the console protocol is little-endian on the wire");

// ---------------------------------------------------------------- message types

#define VELTA_UEC_MSG_TYP__STATS_REQUEST 1
#define VELTA_UEC_MSG_TYP__STATS_RESPONSE 2
#define VELTA_UEC_MSG_TYP__UE_STATUS 3
#define VELTA_UEC_MSG_TYP__UE_STATUS_RESPONSE 4
#define VELTA_UEC_MSG_TYP__UE_LOADER_RANGE_REQUEST 5
#define VELTA_UEC_MSG_TYP__UE_LOADER_RANGE_RESPONSE 6
#define VELTA_UEC_MSG_TYP__UE_LOADER_LISTITEM_REQUEST 7
#define VELTA_UEC_MSG_TYP__UE_LOADER_LISTITEM_RESPONSE 8
#define VELTA_UEC_MSG_TYP__TEST_START_REQUEST 9
#define VELTA_UEC_MSG_TYP__TEST_START_RESPONSE 10
#define VELTA_UEC_MSG_TYP__REPORT_REQUEST 11
#define VELTA_UEC_MSG_TYP__REPORT_RESPONSE 12
#define VELTA_UEC_MSG_TYP__RERUN_REQUEST 13
#define VELTA_UEC_MSG_TYP__RERUN_RESPONSE 14
#define VELTA_UEC_MSG_TYP__UE_LIST 15
#define VELTA_UEC_MSG_TYP__UE_LIST_RESPONSE 16
#define VELTA_UEC_MSG_TYP__AMF_INFO 17
#define VELTA_UEC_MSG_TYP__AMF_INFO_RESPONSE 18
#define VELTA_UEC_MSG_TYP__AMF_LIST 19
#define VELTA_UEC_MSG_TYP__AMF_LIST_RESPONSE 20
#define VELTA_UEC_MSG_TYP__RAN_INFO 21
#define VELTA_UEC_MSG_TYP__RAN_INFO_RESPONSE 22
#define VELTA_UEC_MSG_TYP__RAN_LIST 23
#define VELTA_UEC_MSG_TYP__RAN_LIST_RESPONSE 24
#define VELTA_UEC_MSG_TYP__SCENARIO 25
#define VELTA_UEC_MSG_TYP__SCENARIO_RESPONSE 26
#define VELTA_UEC_MSG_TYP__SCENARIO_LIST 27
#define VELTA_UEC_MSG_TYP__SCENARIO_LIST_RESPONSE 28
#define VELTA_UEC_MSG_TYP__NEW_TEST 29
#define VELTA_UEC_MSG_TYP__NEW_TEST_RESPONSE 30
#define VELTA_UEC_MSG_TYP__TEST_LIST 31
#define VELTA_UEC_MSG_TYP__TEST_LIST_RESPONSE 32
#define VELTA_UEC_MSG_TYP__UERANGE_LIST 33
#define VELTA_UEC_MSG_TYP__UERANGE_LIST_RESPONSE 34
#define VELTA_UEC_MSG_TYP__BEGIN_TEST 35
#define VELTA_UEC_MSG_TYP__BEGIN_TEST_RESPONSE 36
#define VELTA_UEC_MSG_TYP__COMMAND_REQUEST 37
#define VELTA_UEC_MSG_TYP__COMMAND_RESPONSE 38
#define VELTA_UEC_MSG_TYP__RANAMFCONN_LIST_REQUEST 39
#define VELTA_UEC_MSG_TYP__RANAMFCONN_LIST_RESPONSE 40
#define VELTA_UEC_MSG_TYP__NODE_CONFIG_REQUEST 41
#define VELTA_UEC_MSG_TYP__NODE_CONFIG_RESPONSE 42
#define VELTA_UEC_MSG_TYP__NODE_CONFIG_LIST_REQUEST 43
#define VELTA_UEC_MSG_TYP__NODE_CONFIG_LIST_RESPONSE 44
#define VELTA_UEC_MSG_TYP__SIMULATED_UE_LIST_REQUEST 45
#define VELTA_UEC_MSG_TYP__SIMULATED_UE_LIST_RESPONSE 46
#define VELTA_UEC_MSG_TYP__SETTINGS_SAVE_REQUEST 47
#define VELTA_UEC_MSG_TYP__SETTINGS_SAVE_RESPONSE 48
#define VELTA_UEC_MSG_TYP__SETTINGS_LOAD_REQUEST 49
#define VELTA_UEC_MSG_TYP__SETTINGS_LOAD_RESPONSE 50
#define VELTA_UEC_MSG_TYP__NODE_CONNECTION_REQUEST 51
#define VELTA_UEC_MSG_TYP__NODE_CONNECTION_RESPONSE 52
#define VELTA_UEC_MSG_TYP__NODE_CONNECTION_COMMAND_REQUEST 53
#define VELTA_UEC_MSG_TYP__NODE_CONNECTION_COMMAND_RESPONSE 54
#define VELTA_UEC_MSG_TYP__COMMAND2_REQUEST 55
#define VELTA_UEC_MSG_TYP__COMMAND2_RESPONSE 56
#define VELTA_UEC_MSG_TYP__TEMPLATE_LIST_REQUEST 57
#define VELTA_UEC_MSG_TYP__TEMPLATE_LIST_RESPONSE 58
#define VELTA_UEC_MSG_TYP__PCAP_FILES_REQUEST 59
#define VELTA_UEC_MSG_TYP__PCAP_FILES_RESPONSE 60
#define VELTA_UEC_MSG_TYP__SET_PCAP_FILE_REQUEST 61
#define VELTA_UEC_MSG_TYP__SET_PCAP_FILE_RESPONSE 62
#define VELTA_UEC_MSG_TYP__PING_REQUEST 63
#define VELTA_UEC_MSG_TYP__PING_RESPONSE 64  // defined, never sent: a ping is answered with its own bytes
#define VELTA_UEC_MSG_TYP__SUB_COMMAND_REQUEST 65
#define VELTA_UEC_MSG_TYP__SUB_COMMAND_RESPONSE 66
#define VELTA_UEC_MSG_TYP__MONITOR 67
#define VELTA_UEC_MSG_TYP__MONITOR_RESPONSE 68
#define VELTA_UEC_MSG_TYP__MONITOR_LIST 69
#define VELTA_UEC_MSG_TYP__MONITOR_LIST_RESPONSE 70
#define VELTA_UEC_MSG_TYP__SAVE_TESTCASE_TEMP 71
#define VELTA_UEC_MSG_TYP__SAVE_TESTCASE_TEMP_RESPONSE 72
#define VELTA_UEC_MSG_TYP__TEST_CASE_LIST 73
#define VELTA_UEC_MSG_TYP__TEST_CASE_LIST_RESPONSE 74
#define VELTA_UEC_MSG_TYP__COUNT 75  // one past the last type

#define VELTA_UEC_SUB_MSG_TYP__PFCP_STATS 10
#define VELTA_UEC_SUB_MSG_TYP__PGW_STATS 20
#define VELTA_UEC_SUB_MSG_TYP__MME_STATS 30
#define VELTA_UEC_SUB_MSG_TYP__GGSN_STATS 40

// The largest message the server frames; a console sends only the bytes in use of
// the larger records.
#define VELTA_UEC_MAX_MESSAGE_SIZE 10000u

// Status of a BEGIN_TEST answer.
#define VELTA_UEC_BEGIN__NO_TEST_ID 1
#define VELTA_UEC_BEGIN__UNKNOWN_TEST 2
#define VELTA_UEC_BEGIN__QUEUED 3
#define VELTA_UEC_BEGIN__ALREADY_QUEUED 4
#define VELTA_UEC_BEGIN__ALREADY_RUNNING 5
#define VELTA_UEC_BEGIN__STOP_REQUESTED 100
#define VELTA_UEC_BEGIN__NOT_RUNNING 101

#define UEC_CHECK(rec, size) static_assert(sizeof(rec) == (size), #rec " has the size of the protocol")
#define UEC_AT(rec, field, off) static_assert(offsetof(rec, field) == (off), #rec "." #field " offset")

#pragma pack(push, 1)

// ---------------------------------------------------------------- header

struct __uec_msg_header {
    uint32_t MessageSize;  // whole message, header included
    uint32_t MessageType;
    uint32_t RequestNo;    // chosen by the console, echoed in the answer
    uint64_t siSocket;     // the server's reference to the receiving socket; ignored on the wire
};
typedef __uec_msg_header UECMsgHeader;
UEC_CHECK(__uec_msg_header, 20);
UEC_AT(__uec_msg_header, MessageType, 4);
UEC_AT(__uec_msg_header, RequestNo, 8);
UEC_AT(__uec_msg_header, siSocket, 12);

// ---------------------------------------------------------------- status and test control

struct __uec_stats_request {
    __uec_msg_header Header;
};
UEC_CHECK(__uec_stats_request, 20);

struct __uec_stats_response {
    __uec_msg_header Header;
    uint32_t ConfiguredAMFCount;
    uint32_t ConfiguredRanCount;
    uint32_t ConnectedToAMF;
    uint32_t LoadedUEs;
    uint32_t UEPoolAvailable;
    uint32_t UEPoolTotal;
    uint32_t UERegistered;
    uint32_t UEDeRegistered;
    uint32_t UERegRejected;
    uint32_t CMConnetced;
    uint32_t CMIdle;
    uint32_t NGAPErrors;
    uint32_t NASErrors;
    uint32_t UEPduSessions;
    uint32_t ExecutingTestCaseCount;
    uint32_t TestCaseTimeout;
    uint32_t Executed_TestCases;
    uint32_t Executed_TestSteps;
    uint32_t LatchPerSecond;
    char ds[28];
    uint64_t UPTime;
};
UEC_CHECK(__uec_stats_response, 132);
UEC_AT(__uec_stats_response, ConfiguredAMFCount, 20);
UEC_AT(__uec_stats_response, UERegistered, 44);
UEC_AT(__uec_stats_response, CMConnetced, 56);
UEC_AT(__uec_stats_response, ExecutingTestCaseCount, 76);
UEC_AT(__uec_stats_response, LatchPerSecond, 92);
UEC_AT(__uec_stats_response, ds, 96);
UEC_AT(__uec_stats_response, UPTime, 124);

struct __uec_ue_status_request {
    __uec_msg_header Header;
    char IMSI[20];
};
UEC_CHECK(__uec_ue_status_request, 40);

// One access of a UE in a status answer (3GPP or non-3GPP).
struct __uec_ue_access_status {
    uint8_t CMMode;
    uint8_t RMStatus;
    char FGGUTI[12];
};
UEC_CHECK(__uec_ue_access_status, 14);

struct __uec_pdusession {
    uint16_t PDUSessionId;
    char IPAddress[20];
    uint16_t Status;
};
UEC_CHECK(__uec_pdusession, 24);
UEC_AT(__uec_pdusession, Status, 22);

struct __uec_ue_status_response {
    __uec_msg_header Header;
    uint32_t Found;
    char SUPI[32];
    __uec_ue_access_status TGPP;
    __uec_ue_access_status NTGPP;
    __uec_pdusession PDUSessions[5];
};
UEC_CHECK(__uec_ue_status_response, 204);
UEC_AT(__uec_ue_status_response, SUPI, 24);
UEC_AT(__uec_ue_status_response, TGPP, 56);
UEC_AT(__uec_ue_status_response, NTGPP, 70);
UEC_AT(__uec_ue_status_response, PDUSessions, 84);

struct __uec_test_start_request {
    __uec_msg_header Header;
    uint32_t LatchPerSecond;
};
UEC_CHECK(__uec_test_start_request, 24);

struct __uec_test_start_response {
    __uec_msg_header Header;
    uint32_t Status;
};
UEC_CHECK(__uec_test_start_response, 24);

struct __uec_begin_test {
    __uec_msg_header Header;
    uint32_t TestID;
    uint32_t Stop;  // non-zero asks to stop a running test
};
UEC_CHECK(__uec_begin_test, 28);
UEC_AT(__uec_begin_test, TestID, 20);
UEC_AT(__uec_begin_test, Stop, 24);

struct __uec_begin_test_response {
    __uec_msg_header Header;
    uint32_t Status;
};
UEC_CHECK(__uec_begin_test_response, 24);

// ---------------------------------------------------------------- subscribers

struct __uec_loader_range_request {
    __uec_msg_header Header;
    uint32_t ID;
    uint64_t MSINStart;
    uint64_t MSINEnd;
    uint64_t IMEI;
    uint32_t ScID;
    char MCC[4];
    char MNC[4];
    char SubKey[20];  // 16 raw key bytes
    char OPC[20];     // 16 raw key bytes
    char MSISDNBegin[12];
    char IMSIBegin[20];
    char APN[52];
};
UEC_CHECK(__uec_loader_range_request, 184);
UEC_AT(__uec_loader_range_request, MSINStart, 24);
UEC_AT(__uec_loader_range_request, ScID, 48);
UEC_AT(__uec_loader_range_request, SubKey, 60);
UEC_AT(__uec_loader_range_request, MSISDNBegin, 100);
UEC_AT(__uec_loader_range_request, APN, 132);

struct __uec_loader_range_response {
    __uec_msg_header Header;
    uint32_t Status;
    uint32_t Created;
    uint32_t Found;
};
UEC_CHECK(__uec_loader_range_response, 32);

struct __uec_loader_listitem_request {
    __uec_msg_header Header;
    uint64_t msin;
    uint64_t SQN;
    uint32_t scID;
    char MCC[4];
    char MNC[4];
    char SubK[17];  // 16 raw key bytes
    char OPc[17];   // 16 raw key bytes
    char imei[20];
    uint8_t Spare[2];  // the record is 104 bytes; these carry nothing
};
UEC_CHECK(__uec_loader_listitem_request, 104);
UEC_AT(__uec_loader_listitem_request, scID, 36);
UEC_AT(__uec_loader_listitem_request, SubK, 48);
UEC_AT(__uec_loader_listitem_request, OPc, 65);
UEC_AT(__uec_loader_listitem_request, imei, 82);

struct __uec_loader_listitem_response {
    __uec_msg_header Header;
    uint32_t Status;
};
UEC_CHECK(__uec_loader_listitem_response, 24);

// ---------------------------------------------------------------- list editors

struct __uec_new_test {
    __uec_msg_header Header;
    uint32_t TestID;
    uint32_t AppType;
    uint32_t ScenarioID;
    uint32_t EndAction;
    uint32_t MPS;
    char Name[120];
    char SUPIStartNo[16];
    char SUPIStartEnd[16];
    uint32_t NoOfTimes;
    uint32_t Concurrent;
    uint32_t SelectTest;
};
UEC_CHECK(__uec_new_test, 204);
UEC_AT(__uec_new_test, Name, 40);
UEC_AT(__uec_new_test, SUPIStartNo, 160);
UEC_AT(__uec_new_test, SUPIStartEnd, 176);
UEC_AT(__uec_new_test, NoOfTimes, 192);
UEC_AT(__uec_new_test, SelectTest, 200);

struct __uec_new_test_response {
    __uec_msg_header Header;
    uint32_t Status;
};
UEC_CHECK(__uec_new_test_response, 24);

struct __uec_amfinfo_request {
    __uec_msg_header Header;
    uint32_t id;
    uint32_t port;
    uint32_t enabled;
    uint32_t ksTE;
    char IPv1[48];
    char IPv2[48];
};
UEC_CHECK(__uec_amfinfo_request, 132);
UEC_AT(__uec_amfinfo_request, IPv1, 36);
UEC_AT(__uec_amfinfo_request, IPv2, 84);

struct __uec_amfinfo_response {
    __uec_msg_header Header;
    uint32_t Id;
    uint32_t Status;
};
UEC_CHECK(__uec_amfinfo_response, 28);

struct __uec_raninfo {
    uint32_t iid;
    uint32_t id;
    char mcc[4];
    char mnc[4];
    uint32_t ueIdStartNo;
    uint32_t Enabled;
    uint32_t Count;
    uint32_t UERetention;
    uint32_t KsTE;
    char Name[96];
    char SupportedTAList[2048];
    uint32_t RanType;
};
UEC_CHECK(__uec_raninfo, 2184);
UEC_AT(__uec_raninfo, Name, 36);
UEC_AT(__uec_raninfo, SupportedTAList, 132);
UEC_AT(__uec_raninfo, RanType, 2180);

struct __uec_ranrequest {
    __uec_msg_header Header;
    __uec_raninfo Ran;
};
UEC_CHECK(__uec_ranrequest, 2204);

struct __uec_ranresponse {
    __uec_msg_header Header;
    uint32_t IID;
    uint32_t Status;
};
UEC_CHECK(__uec_ranresponse, 28);

struct __uec_scenario {
    __uec_msg_header Header;
    uint32_t ID;
    uint32_t ApplicationType;
    char Name[128];
    uint32_t BSize;
    uint8_t buffer[2048];
};
UEC_CHECK(__uec_scenario, 2208);
UEC_AT(__uec_scenario, BSize, 156);
UEC_AT(__uec_scenario, buffer, 160);

struct __uec_scenario_response {
    __uec_msg_header Header;
    uint32_t Status;
};
UEC_CHECK(__uec_scenario_response, 24);

struct __uec_monitor {
    __uec_msg_header Header;
    uint32_t ID;
    uint32_t ApplicationType;
    uint32_t ServerID;
    uint32_t ClientID;
    uint32_t Enabled;
    uint32_t InvokeSeconds;
    uint32_t NotifyOnConnLost;
    char IMSI[100];
    char AdminEmailId[100];
    char TeamEmailId[200];
    uint32_t BSize;
    uint8_t buffer[2048];
};
UEC_CHECK(__uec_monitor, 2500);
UEC_AT(__uec_monitor, IMSI, 48);
UEC_AT(__uec_monitor, AdminEmailId, 148);
UEC_AT(__uec_monitor, TeamEmailId, 248);
UEC_AT(__uec_monitor, BSize, 448);
UEC_AT(__uec_monitor, buffer, 452);

struct __uec_node_config {
    __uec_msg_header Header;
    uint32_t ID;
    uint32_t Spare_1;
    uint32_t Spare_2;
    uint32_t ConnInfoType;
    uint32_t TEApplicationType;
    char IP_1[52];
    uint32_t Port_1;
    char IP_2[104];
    char Port_2[104];
    uint32_t TransportType;
    uint32_t Enabled;
};
UEC_CHECK(__uec_node_config, 312);
UEC_AT(__uec_node_config, IP_1, 40);
UEC_AT(__uec_node_config, Port_1, 92);
UEC_AT(__uec_node_config, IP_2, 96);
UEC_AT(__uec_node_config, Port_2, 200);
UEC_AT(__uec_node_config, TransportType, 304);

struct __uec_node_config_response {
    __uec_msg_header Header;
    uint32_t ID;
    uint32_t Status;
};
UEC_CHECK(__uec_node_config_response, 28);

// ---------------------------------------------------------------- commands

struct __uec_command_request {
    __uec_msg_header Header;
    char IMSI[20];
    uint32_t Command;
    uint32_t InitialContextRequest;
    uint32_t FOR;
    uint32_t AuthOptions;
    uint32_t EA0;
    uint32_t EA1;
    uint32_t EA2;
    uint32_t IA0;
    uint32_t IA1;
    uint32_t IA2;
    uint32_t TAC;
    uint8_t MCC[4];
    uint8_t MNC[4];
    uint32_t AMFRANConnId;
    uint32_t IdentityRequestOption;
    uint32_t SecurityModeCommandOption;
    uint32_t RegistrationAcceptOption;
    uint64_t SQN;
    uint8_t GUTI[20];
    uint32_t ScanarioId;
    uint32_t PlainNasMessage;
    uint32_t Exclude5GSTMSI;
    uint32_t NgKSI;
    uint64_t NGAPAMFUEId;
};
UEC_CHECK(__uec_command_request, 160);
UEC_AT(__uec_command_request, Command, 40);
UEC_AT(__uec_command_request, TAC, 80);
UEC_AT(__uec_command_request, MCC, 84);
UEC_AT(__uec_command_request, AMFRANConnId, 92);
UEC_AT(__uec_command_request, SQN, 108);
UEC_AT(__uec_command_request, GUTI, 116);
UEC_AT(__uec_command_request, ScanarioId, 136);
UEC_AT(__uec_command_request, NGAPAMFUEId, 152);

struct __uec_command_response {
    __uec_msg_header Header;
    uint32_t Status;
};
UEC_CHECK(__uec_command_response, 24);

struct __uec_sub_command_request {
    __uec_msg_header Header;
    char IMSI[20];
    uint32_t Interface;
    uint32_t SubCommand;
    uint8_t data[512];
};
UEC_CHECK(__uec_sub_command_request, 560);
UEC_AT(__uec_sub_command_request, data, 48);

struct __uec_sub_command_response {
    __uec_msg_header Header;
    uint32_t Status;
};
UEC_CHECK(__uec_sub_command_response, 24);

struct __uec_set_userlocation {
    uint32_t len;
    uint32_t TAC;
    uint32_t CellID;
};
UEC_CHECK(__uec_set_userlocation, 12);

struct __uec_set_enodeb {
    uint32_t len;
    uint32_t eNodeBId;
};
UEC_CHECK(__uec_set_enodeb, 8);

struct __uec_ue_pcapfileid_request {
    __uec_msg_header Header;
    char IMSI[20];
    uint32_t PCAPFileId;
    uint32_t CommandId;
    uint32_t Option1;
    uint32_t Option2;
    uint32_t Option3;
    uint32_t Option4;
};
UEC_CHECK(__uec_ue_pcapfileid_request, 64);
UEC_AT(__uec_ue_pcapfileid_request, PCAPFileId, 40);
UEC_AT(__uec_ue_pcapfileid_request, Option4, 60);

// ---------------------------------------------------------------- federation

struct __uec_node_connection {
    __uec_msg_header Header;
    uint32_t ID;
    uint32_t Spare;
    uint32_t TEApplicationType;
    uint32_t Command;
};
UEC_CHECK(__uec_node_connection, 36);

struct __uec_node_command_response {
    __uec_msg_header Header;
    uint32_t ConnectionId;
    uint32_t ConnectionStatus;
    uint32_t CommandStatus;
    uint32_t TEApplicationType;
};
UEC_CHECK(__uec_node_command_response, 36);

struct __uec_node_connection_status {
    uint32_t ConnectionId;
    uint32_t ConnectionStatus;
    uint32_t Spare;
    uint32_t TEApplicationType;
    char ConnString[20];
    uint8_t ServerIP_1[16];
    uint16_t ServerIP_1Type;
    uint16_t Server_1Port;
    uint8_t ServerIP_2[16];
    uint16_t ServerIP_2Type;
    uint16_t Server_2Port;
    uint8_t ClientIP_1[16];
    uint16_t ClientIP_1Type;
    uint16_t Client_1Port;
    uint8_t ClientIP_2[16];
    uint16_t ClientIP_2Type;
    uint16_t Client_2Port;
};
UEC_CHECK(__uec_node_connection_status, 116);
UEC_AT(__uec_node_connection_status, ServerIP_1, 36);
UEC_AT(__uec_node_connection_status, ServerIP_2, 56);
UEC_AT(__uec_node_connection_status, ClientIP_1, 76);
UEC_AT(__uec_node_connection_status, Client_2Port, 114);

struct __uec_node_connection_status_list {
    __uec_msg_header Header;
    uint32_t Count;
    uint32_t TEApplicationType;
    uint8_t buffer[8192];
};
UEC_CHECK(__uec_node_connection_status_list, 8220);

// ---------------------------------------------------------------- settings and the test report

struct __uec_settings_request {
    __uec_msg_header Header;
    uint32_t TEApplicationType;
    uint32_t Count;
    char buffer[10240];
};
UEC_CHECK(__uec_settings_request, 10268);
UEC_AT(__uec_settings_request, buffer, 28);

struct __uec_settings_response {
    __uec_msg_header Header;
    uint32_t TEApplicationType;
    uint32_t Status;
};
UEC_CHECK(__uec_settings_response, 28);

struct __uec_load_settings_request {
    __uec_msg_header Header;
    uint32_t TEApplicationType;
    uint32_t Command;  // 0 the settings of the type, 1 the report of test Option1
    uint32_t Option1;
    uint32_t Option2;
    uint32_t Option3;
    uint32_t Option4;
};
UEC_CHECK(__uec_load_settings_request, 44);

struct __uec_load_settings_response {
    __uec_msg_header Header;
    uint32_t TEApplicationType;
    uint32_t Count;
    uint32_t Command;
    char buffer[10240];
};
UEC_CHECK(__uec_load_settings_response, 10272);
UEC_AT(__uec_load_settings_response, buffer, 32);

// One setting: followed directly by valLen bytes of value, with no alignment.
struct __uec_settings_item2 {
    uint32_t ProtoSetting;
    uint32_t valLen;
};
UEC_CHECK(__uec_settings_item2, 8);

struct __uec_load_test_report {
    uint32_t TestId;
    uint32_t TestStatus;
    char TestStartTime[30];
    char TestEndTime[30];
    int32_t ExecutedNoOfTimes;
    int32_t TotalNoOfTimesToExecute;
    int32_t ExecutedTPS;
    int32_t TotalExecutedTPS;
    uint32_t CompletedExecutionUECount;
    uint32_t TotalCompletedExecutionUECount;
    uint32_t TotalAttachedUECount;
    int32_t ExecutedInSeconds;
    int32_t ExecutedInMilliSeconds;
    int32_t TotalExecutedInSeconds;
    int32_t TotalExecutedInMilliSeconds;
    int32_t Percent;
    int32_t ExecutionCount;
    uint32_t RanTimes;
    uint32_t OnGoing;
    uint32_t CounterBufferSize;
};
UEC_CHECK(__uec_load_test_report, 132);
UEC_AT(__uec_load_test_report, TestEndTime, 38);
UEC_AT(__uec_load_test_report, ExecutedNoOfTimes, 68);
UEC_AT(__uec_load_test_report, CompletedExecutionUECount, 84);
UEC_AT(__uec_load_test_report, Percent, 112);
UEC_AT(__uec_load_test_report, CounterBufferSize, 128);

struct __uec_mv_counter {
    uint32_t ID;  // the counter's number in its low 16 bits; 0 the total row
    uint32_t Current;
    uint64_t Total;
    uint64_t LTotal;
};
UEC_CHECK(__uec_mv_counter, 24);
UEC_AT(__uec_mv_counter, Total, 8);
UEC_AT(__uec_mv_counter, LTotal, 16);

struct __uec_testcase_template_request {
    __uec_msg_header Header;
    int32_t BSize;
    char Data[20480];
};
UEC_CHECK(__uec_testcase_template_request, 20504);

struct __uec_testcase_template_response {
    __uec_msg_header Header;
    int32_t Status;
};
UEC_CHECK(__uec_testcase_template_response, 24);

// ---------------------------------------------------------------- list requests and heads

struct __uec_uelist_request {
    __uec_msg_header Header;
    uint64_t MSINBegin;
    uint64_t MSINEnd;
    uint32_t PageNo;
    uint32_t PageSize;
    uint32_t Paging;
    uint32_t FilterCMIdle;
    uint32_t FilterRMRegistered;
    char MCC[4];
    char MNC[4];
    uint32_t Interface;
    uint32_t RanSelectionMode;  // 50000: rebind the range instead of listing it
    uint32_t EnableUETimers;
};
UEC_CHECK(__uec_uelist_request, 76);
UEC_AT(__uec_uelist_request, PageNo, 36);
UEC_AT(__uec_uelist_request, MCC, 56);
UEC_AT(__uec_uelist_request, RanSelectionMode, 68);

struct __uec_uelist_response {
    __uec_msg_header Header;
    uint32_t PageNo;
    uint32_t PageSize;
    uint32_t Paging;
    uint32_t TotalCountInServer;
    uint32_t TotalCountInResult;
    uint32_t RANSelectionMode;
    uint32_t EnableUETimers;
    uint8_t Rows[8];  // carries nothing; rows begin at offset 56
};
UEC_CHECK(__uec_uelist_response, 56);

struct __uec_amflist_request {
    __uec_msg_header Header;
    uint32_t KsTE;
};
UEC_CHECK(__uec_amflist_request, 24);

struct __uec_amflist_response {
    __uec_msg_header Header;
    uint32_t count;
    uint8_t buff[2048];
};
UEC_CHECK(__uec_amflist_response, 2072);

struct __uec_ranlist_request {
    __uec_msg_header Header;
    uint32_t KsTE;
};
UEC_CHECK(__uec_ranlist_request, 24);

struct __uec_ranlist_response {
    __uec_msg_header Header;
    uint32_t count;
    uint8_t buff[40960];
};
UEC_CHECK(__uec_ranlist_response, 40984);

struct __uec_scenario_list_req {
    __uec_msg_header Header;
    uint32_t ApplicationType;
};
UEC_CHECK(__uec_scenario_list_req, 24);

struct __uec_scenariolist_response {
    __uec_msg_header Header;
    uint32_t count;
    uint8_t buff[204800];
};
UEC_CHECK(__uec_scenariolist_response, 204824);

struct __uec_monitor_list_req {
    __uec_msg_header Header;
    uint32_t PageNo;
    uint32_t PageSize;
    uint32_t ApplicationType;
};
UEC_CHECK(__uec_monitor_list_req, 32);

struct __uec_monitor_list_response {
    __uec_msg_header Header;
    uint32_t count;
    uint8_t buff[204800];
};
UEC_CHECK(__uec_monitor_list_response, 204824);

struct __uec_testListRequest {
    __uec_msg_header Header;
    uint32_t PageNo;
    uint32_t PageSize;
    uint32_t AppType;
};
UEC_CHECK(__uec_testListRequest, 32);

struct __uec_testlist_response {
    __uec_msg_header Header;
    uint32_t count;
    uint8_t buff[20480];
};
UEC_CHECK(__uec_testlist_response, 20504);

struct __uec_ueRange_response {
    __uec_msg_header Header;
    uint32_t count;
    uint8_t buff[2048];
};
UEC_CHECK(__uec_ueRange_response, 2072);

struct __uec_ramamfconn_request {
    __uec_msg_header Header;
    uint32_t PageNo;
    uint32_t PageSize;
    uint32_t KsTE;
};
UEC_CHECK(__uec_ramamfconn_request, 32);

struct __uec_ramamfconn_response {
    __uec_msg_header Header;
    uint32_t PageNo;
    uint32_t Count;
    uint32_t TotalCount;
    uint8_t buff[4096];
};
UEC_CHECK(__uec_ramamfconn_response, 4128);

struct __uec_node_config_list_request {
    __uec_msg_header Header;
    uint32_t Spare_1;
    uint32_t Spare_2;
    uint32_t ConnInfoType;
    uint32_t TEApplicationType;
    uint32_t PageNo;
    uint32_t PageSize;
};
UEC_CHECK(__uec_node_config_list_request, 44);

struct __uec_node_config_list_response {
    __uec_msg_header Header;
    uint32_t TotalCount;
    uint32_t TotalRecordsInServer;
    char buffer[10240];
};
UEC_CHECK(__uec_node_config_list_response, 10268);

struct __uec_simulated_ue_request {
    __uec_msg_header Header;
    uint32_t Reference;
    uint32_t Interface;
    uint32_t Protocol;
    uint64_t MSINBegin;
    uint64_t MSINEnd;
    uint32_t PageNo;
    uint32_t PageSize;
    uint32_t Paging;
    uint32_t Filter1;
    uint32_t Filter2;
    uint32_t Filter3;
    uint32_t Filter4;
};
UEC_CHECK(__uec_simulated_ue_request, 76);
UEC_AT(__uec_simulated_ue_request, MSINBegin, 32);
UEC_AT(__uec_simulated_ue_request, PageNo, 48);
UEC_AT(__uec_simulated_ue_request, Filter4, 72);

struct __uec_testCaseListRequest {
    __uec_msg_header Header;
    uint32_t PageNo;
    uint32_t PageSize;
    uint32_t AppType;
};
UEC_CHECK(__uec_testCaseListRequest, 32);

struct __uec_testCaseListResponse {
    __uec_msg_header Header;
    uint32_t PageNo;
    uint32_t Count;
    uint32_t TotalCount;
    uint8_t buff[20480];
};
UEC_CHECK(__uec_testCaseListResponse, 20512);

struct __uec_template_list_request {
    __uec_msg_header Header;
    char sTemplate_1[8];
    char sTemplate_2[8];
};
UEC_CHECK(__uec_template_list_request, 36);

// The text starts at offset 20; MessageSize is 24 plus its length.
struct __uec_template_list_response {
    __uec_msg_header Header;
    char sTemplates[8192];
};
UEC_CHECK(__uec_template_list_response, 8212);

// The PCAP list has no record of its own: the header, a count, then the names each
// followed by "|".
struct __uec_pcap_files_response {
    __uec_msg_header Header;
    uint32_t count;
    char names[20480];
};
UEC_CHECK(__uec_pcap_files_response, 20504);

// ---------------------------------------------------------------- rows

struct __uec_ueInfo {
    uint32_t CMStatus;
    uint32_t RMStatus;
    uint32_t TestCases;
    uint32_t hasContext;
    uint32_t NASErrorMessage;
    uint32_t NASErrorCause;
    uint32_t NGAPErrorMessage;
    uint32_t NGAPErrorCauseType;
    uint32_t NGAPErrorCause;
    uint32_t pduSession_1_Status;
    uint32_t pduSession_2_Status;
    char IMSI[20];
    char FGSGUTI[12];
    char pduSession_1[20];
    char pduSession_2[20];
    uint32_t AppError;
    uint32_t RANAMFConnId;
    uint32_t PCAPFileId;
    uint32_t SQNHandlingType;
    uint64_t SQN;
    uint16_t SC_EA0;
    uint16_t SC_EA1;
    uint16_t SC_EA2;
    uint16_t SC_EA3;
    uint16_t SC_IA0;
    uint16_t SC_IA1;
    uint16_t SC_IA2;
    uint16_t SC_IA3;
    char TAI_MCC[4];
    char TAI_MNC[4];
    uint32_t TAI_TAC;
    uint32_t ScanarioId;
    uint64_t NGAPAMFUEId;
};
UEC_CHECK(__uec_ueInfo, 180);
UEC_AT(__uec_ueInfo, IMSI, 44);
UEC_AT(__uec_ueInfo, pduSession_2, 96);
UEC_AT(__uec_ueInfo, AppError, 116);
UEC_AT(__uec_ueInfo, SQN, 132);
UEC_AT(__uec_ueInfo, SC_EA0, 140);
UEC_AT(__uec_ueInfo, TAI_MCC, 156);
UEC_AT(__uec_ueInfo, ScanarioId, 168);
UEC_AT(__uec_ueInfo, NGAPAMFUEId, 172);

struct __uec_amfinfo {
    uint32_t id;
    uint32_t port;
    uint32_t enabled;
    uint32_t ksTE;
    char IPv1[48];
    char IPv2[48];
};
UEC_CHECK(__uec_amfinfo, 112);

struct __uec_test {
    uint32_t TestID;
    uint32_t ScenarioID;
    uint32_t EndAction;
    uint32_t MPS;
    uint32_t TestStatus;
    char Name[120];
    char SUPIStartNo[16];
    char SUPIStartEnd[16];
    uint32_t NoOfTimes;
    uint32_t Concurrent;
    uint32_t SelectTest;
};
UEC_CHECK(__uec_test, 184);
UEC_AT(__uec_test, Name, 20);
UEC_AT(__uec_test, SUPIStartNo, 140);
UEC_AT(__uec_test, NoOfTimes, 172);

struct __uec_UEItem {
    uint32_t ID;
    uint64_t MSINStart;
    uint64_t MSINEnd;
    uint64_t IMEI;
    uint32_t ScID;
    char MCC[4];
    char MNC[4];
    char SubKey[20];
    char OPC[20];
};
UEC_CHECK(__uec_UEItem, 80);
UEC_AT(__uec_UEItem, ScID, 28);
UEC_AT(__uec_UEItem, OPC, 60);

struct __uec_ramamfconn {
    char AMF[20];
    char RAN[20];
    uint32_t ID;
    uint32_t NGConnection;
    uint32_t UEContexts;
    uint32_t PDUSessions;
    uint32_t Registrations;
};
UEC_CHECK(__uec_ramamfconn, 60);

struct __uec_node_config_item {
    uint32_t ID;
    char IP_1[52];
    uint32_t Port_1;
    char IP_2[104];
    char Port_2[104];
    uint32_t TransportType;
    uint32_t Enabled;
};
UEC_CHECK(__uec_node_config_item, 276);
UEC_AT(__uec_node_config_item, Port_2, 164);
UEC_AT(__uec_node_config_item, TransportType, 268);

// Variable rows: on the wire each ends after its counted bytes.
struct __uec_scenarioItem {
    uint32_t ID;
    uint32_t ApplicationType;
    char Name[128];
    uint32_t BSize;
    uint8_t buffer[2048];
};
UEC_CHECK(__uec_scenarioItem, 2188);
UEC_AT(__uec_scenarioItem, buffer, 140);

struct __uec_monitor_item {
    uint32_t ID;
    uint32_t ApplicationType;
    uint32_t ServerID;
    uint32_t ClientID;
    uint32_t Enabled;
    uint32_t InvokeSeconds;
    uint32_t NotifyOnConnLost;
    char IMSI[100];
    char AdminEmailId[100];
    char TeamEmailId[200];
    uint32_t BSize;
    uint8_t buffer[2048];
};
UEC_CHECK(__uec_monitor_item, 2480);
UEC_AT(__uec_monitor_item, BSize, 428);
UEC_AT(__uec_monitor_item, buffer, 432);

struct __uec_simulated_ue {
    char IMSI[20];
    uint32_t U32_1;
    uint32_t U32_2;
    uint32_t U32_3;
    uint32_t U32_4;
    uint32_t U32_5;
    uint32_t U32_6;
    uint8_t data[240];
    uint32_t datalen;  // in memory only: the row on the wire is 44 + datalen bytes
};
UEC_AT(__uec_simulated_ue, data, 44);
UEC_AT(__uec_simulated_ue, datalen, 284);

struct __uec_testCase {
    uint32_t ID;
    uint32_t MID;
    uint32_t NameLen;
    uint32_t DescLen;
    uint32_t IECount;
    // then NameLen bytes of name and DescLen bytes of description, unterminated
};
UEC_CHECK(__uec_testCase, 20);

// ---------------------------------------------------------------- sub-records of simulated UE rows

struct __uec_pfcp_sess_data {
    uint32_t ue_ip;
    uint32_t access_teid;
    uint32_t upf_teid;
    uint32_t pkts_sent;
    uint32_t pkts_recv;
    uint64_t bytes_sent;
    uint64_t bytes_recv;
    uint64_t cp_seid;
    uint64_t up_seid;
};
UEC_CHECK(__uec_pfcp_sess_data, 52);
UEC_AT(__uec_pfcp_sess_data, bytes_sent, 20);
UEC_AT(__uec_pfcp_sess_data, up_seid, 44);

struct __uec_pgw_sess_data {
    uint32_t SGW_Teid;
    uint32_t PGW_Teid;
    uint32_t SessionId_1;
    uint32_t Cause_1;
    uint32_t UEIPv4_1;
    uint32_t UPFIPv4_1;
    uint32_t UPF_Teid_1;
    uint32_t RANIPv4_1;
    uint32_t RAN_Teid_1;
    uint32_t ConnId_1;
    uint32_t Status_1;
    uint32_t SessionId_2;
    uint32_t Cause_2;
    uint32_t UEIPv4_2;
    uint32_t UPFIPv4_2;
    uint32_t UPF_Teid_2;
    uint32_t RANIPv4_2;
    uint32_t RAN_Teid_2;
    uint32_t ConnId_2;
    uint32_t Status_2;
};
UEC_CHECK(__uec_pgw_sess_data, 80);

struct __uec_mme_bearer_sess_data {
    int32_t isset;
    int32_t BearerId;
    int32_t QCI;
    uint32_t UE_IPv4;
    uint8_t UE_IPv6[16];
    uint32_t PGW_C_IPv4;
    uint32_t PGW_U_IPv4;
    uint32_t PGW_Teid;
    uint32_t SGW_C_IPv4;
    uint32_t SGW_U_IPv4;
    uint32_t SGW_Teid;
    uint32_t eNB_C_IPv4;
    uint32_t eNB_U_IPv4;
    uint32_t eNB_Teid;
};
UEC_CHECK(__uec_mme_bearer_sess_data, 68);
UEC_AT(__uec_mme_bearer_sess_data, PGW_C_IPv4, 32);

struct __uec_mme_sess_data {
    uint8_t GUTI[12];
    __uec_mme_bearer_sess_data EPS_Bearer[2];
};
UEC_CHECK(__uec_mme_sess_data, 148);

#pragma pack(pop)

// The room a list answer has for its rows.
inline constexpr uint32_t kUecRowsAMFList = sizeof(__uec_amflist_response::buff) / sizeof(__uec_amfinfo);
inline constexpr uint32_t kUecRowsRANList = sizeof(__uec_ranlist_response::buff) / sizeof(__uec_raninfo);
inline constexpr uint32_t kUecRowsUERangeList = sizeof(__uec_ueRange_response::buff) / sizeof(__uec_UEItem);
inline constexpr uint32_t kUecRowsTestList = sizeof(__uec_testlist_response::buff) / sizeof(__uec_test);
inline constexpr uint32_t kUecRowsRanAmfConnList = sizeof(__uec_ramamfconn_response::buff) / sizeof(__uec_ramamfconn);
inline constexpr uint32_t kUecRowsNodeConfigList =
    sizeof(__uec_node_config_list_response::buffer) / sizeof(__uec_node_config_item);
inline constexpr uint32_t kUecRowsNodeConnStatus =
    sizeof(__uec_node_connection_status_list::buffer) / sizeof(__uec_node_connection_status);
static_assert(kUecRowsAMFList == 18 && kUecRowsRANList == 18 && kUecRowsUERangeList == 25 && kUecRowsTestList == 111 &&
              kUecRowsRanAmfConnList == 68 && kUecRowsNodeConfigList == 37 && kUecRowsNodeConnStatus == 70);

#undef UEC_CHECK
#undef UEC_AT
