# The PFCP elements and messages: the one source of the descriptor tables and records in gen/
# (tools/tlvgen/regen.sh writes them; a test checks that they are up to date).
#
#   ie TYPE KIND NAME            KIND: u8 u16 u24 u32 i8 i16 i24 i32 var null group fixed:N
#   group NAME = CHILD, ...      the children of a grouped element, in record and wire order
#   msg TYPE NAME = CHILD, ...   the children of a message
#   CHILD: an element NAME, then *N for an array of N slots, @I for an instance, "as FIELD" for the
#   record's field name when it is not the element's own.
#
# Numbers the decoder holds to their size are the ones the engine reads as numbers; every other leaf
# is an opaque octet string the caller formats. Children follow the first full release of the protocol,
# with the later additions the engine's peers send. Two grouped elements (Aggregated URRs, Additional
# Monitoring Time) stay opaque.

protocol pfcp PFCP

ie 1 group Create PDR
ie 2 group PDI
ie 3 group Create FAR
ie 4 group Forwarding Parameters
ie 5 group Duplicating Parameters
ie 6 group Create URR
ie 7 group Create QER
ie 8 group Created PDR
ie 9 group Update PDR
ie 10 group Update FAR
ie 11 group Update Forwarding Parameters
ie 12 group Update BAR (PFCP Session Report Response)
ie 13 group Update URR
ie 14 group Update QER
ie 15 group Remove PDR
ie 16 group Remove FAR
ie 17 group Remove URR
ie 18 group Remove QER
ie 19 u8 Cause
ie 20 u8 Source Interface
ie 21 var F-TEID
ie 22 var Network Instance
ie 23 var SDF Filter
ie 24 var Application ID
ie 25 u8 Gate Status
ie 26 var MBR
ie 27 var GBR
ie 28 u32 QER Correlation ID
ie 29 u32 Precedence
ie 30 var Transport Level Marking
ie 31 var Volume Threshold
ie 32 var Time Threshold
ie 33 var Monitoring Time
ie 34 var Subsequent Volume Threshold
ie 35 var Subsequent Time Threshold
ie 36 var Inactivity Detection Time
ie 37 var Reporting Triggers
ie 38 var Redirect Information
ie 39 u8 Report Type
ie 40 u16 Offending IE
ie 41 var Forwarding Policy
ie 42 u8 Destination Interface
ie 43 var UP Function Features
ie 44 u8 Apply Action
ie 45 var Downlink Data Service Information
ie 46 var Downlink Data Notification Delay
ie 47 var DL Buffering Duration
ie 48 var DL Buffering Suggested Packet Count
ie 49 u8 PFCPSMReq-Flags
ie 50 u8 PFCPSRRsp-Flags
ie 51 group Load Control Information
ie 52 var Sequence Number
ie 53 var Metric
ie 54 group Overload Control Information
ie 55 var Timer
ie 56 u16 PDR ID
ie 57 var F-SEID
ie 58 group Application ID's PFDs
ie 59 group PFD context
ie 60 var Node ID
ie 61 var PFD contents
ie 62 u8 Measurement Method
ie 63 var Usage Report Trigger
ie 64 var Measurement Period
ie 65 var FQ-CSID
ie 66 var Volume Measurement
ie 67 var Duration Measurement
ie 68 group Application Detection Information
ie 69 var Time of First Packet
ie 70 var Time of Last Packet
ie 71 var Quota Holding Time
ie 72 var Dropped DL Traffic Threshold
ie 73 var Volume Quota
ie 74 var Time Quota
ie 75 var Start Time
ie 76 var End Time
ie 77 group Query URR
ie 78 group Usage Report (Session Modification Response)
ie 79 group Usage Report (Session Deletion Response)
ie 80 group Usage Report (Session Report Request)
ie 81 u32 URR ID
ie 82 var Linked URR ID
ie 83 group Downlink Data Report
ie 84 var Outer Header Creation
ie 85 group Create BAR
ie 86 group Update BAR (Session Modification Request)
ie 87 group Remove BAR
ie 88 u8 BAR ID
ie 89 u8 CP Function Features
ie 90 var Usage Information
ie 91 var Application Instance ID
ie 92 var Flow Information
ie 93 var UE IP Address
ie 94 var Packet Rate
ie 95 var Outer Header Removal
ie 96 u32 Recovery Time Stamp
ie 97 var DL Flow Level Marking
ie 98 var Header Enrichment
ie 99 group Error Indication Report
ie 100 var Measurement Information
ie 101 var Node Report Type
ie 102 group User Plane Path Failure Report
ie 103 var Remote GTP-U Peer
ie 104 var UR-SEQN
ie 105 group Update Duplicating Parameters
ie 106 var Activate Predefined Rules
ie 107 var Deactivate Predefined Rules
ie 108 u32 FAR ID
ie 109 u32 QER ID
ie 110 var OCI Flags
ie 111 var PFCP Association Release Request
ie 112 var Graceful Release Period
ie 113 u8 PDN Type
ie 114 var Failed Rule ID
ie 115 var Time Quota Mechanism
ie 116 var User Plane IP Resource Information
ie 117 var User Plane Inactivity Timer
ie 118 var Aggregated URRs
ie 119 var Multiplier
ie 120 var Aggregated URR ID
ie 121 var Subsequent Volume Quota
ie 122 var Subsequent Time Quota
ie 123 u8 RQI
ie 124 u8 QFI
ie 125 var Query URR Reference
ie 126 var Additional Usage Reports Information
ie 127 group Create Traffic Endpoint
ie 128 group Created Traffic Endpoint
ie 129 group Update Traffic Endpoint
ie 130 group Remove Traffic Endpoint
ie 131 var Traffic Endpoint ID
ie 132 group Ethernet Packet Filter
ie 133 var MAC address
ie 134 var C-TAG
ie 135 var S-TAG
ie 136 var Ethertype
ie 137 var Proxying
ie 138 var Ethernet Filter ID
ie 139 var Ethernet Filter Properties
ie 140 var Suggested Buffering Packets Count
ie 141 var User ID
ie 142 var Ethernet PDU Session Information
ie 143 group Ethernet Traffic Information
ie 144 var MAC Addresses Detected
ie 145 var MAC Addresses Removed
ie 146 var Ethernet Inactivity Timer
ie 147 var Additional Monitoring Time
ie 148 var Event Quota
ie 149 var Event Threshold
ie 150 var Subsequent Event Quota
ie 151 var Subsequent Event Threshold
ie 152 var Trace Information
ie 153 var Framed-Route
ie 154 var Framed-Routing
ie 155 var Framed-IPv6-Route
ie 156 var Event Time Stamp
ie 157 u32 Averaging Window
ie 158 u8 Paging Policy Indicator
ie 159 var APN/DNN
ie 160 var 3GPP Interface Type
ie 161 u8 PFCPSRReq-Flags
ie 162 u8 PFCPAUReq-Flags
ie 163 var Activation Time
ie 164 var Deactivation Time
ie 165 group Create MAR
ie 166 group Access Forwarding Action Information 1
ie 167 group Access Forwarding Action Information 2
ie 168 group Remove MAR
ie 169 group Update MAR
ie 170 var MAR ID
ie 171 var Steering Functionality
ie 172 var Steering Mode
ie 173 var Weight
ie 174 var Priority
ie 175 group Update Access Forwarding Action Information 1
ie 176 group Update Access Forwarding Action Information 2
ie 177 var UE IP address Pool Identity
ie 178 var Alternative SMF IP Address
ie 179 var Packet Replication and Detection Carry-On Information
ie 180 var SMF Set ID

group Create PDR = PDR ID, Precedence, PDI, Outer Header Removal, FAR ID, URR ID, QER ID, Activate Predefined Rules, Activation Time, Deactivation Time, MAR ID
group PDI = Source Interface, F-TEID as local_f_teid, Network Instance, UE IP Address, Traffic Endpoint ID, SDF Filter*8, Application ID, Ethernet PDU Session Information, Ethernet Packet Filter, QFI, Framed-Route, Framed-Routing, Framed-IPv6-Route, 3GPP Interface Type as source_interface_type
group Create FAR = FAR ID, Apply Action, Forwarding Parameters, Duplicating Parameters, BAR ID
group Forwarding Parameters = Destination Interface, Network Instance, Redirect Information, Outer Header Creation, Transport Level Marking, Forwarding Policy, Header Enrichment, Traffic Endpoint ID as linked_traffic_endpoint_id, Proxying, 3GPP Interface Type as destination_interface_type
group Duplicating Parameters = Destination Interface, Outer Header Creation, Transport Level Marking, Forwarding Policy
group Create URR = URR ID, Measurement Method, Reporting Triggers, Measurement Period, Volume Threshold, Volume Quota, Event Threshold, Event Quota, Time Threshold, Time Quota, Quota Holding Time, Dropped DL Traffic Threshold, Monitoring Time, Subsequent Volume Threshold, Subsequent Time Threshold, Subsequent Volume Quota, Subsequent Time Quota, Subsequent Event Threshold, Subsequent Event Quota, Inactivity Detection Time, Linked URR ID, Measurement Information, Time Quota Mechanism, Aggregated URRs, FAR ID as far_id_for_quota_action, Ethernet Inactivity Timer, Additional Monitoring Time
group Create QER = QER ID, QER Correlation ID, Gate Status, MBR, GBR, Packet Rate, DL Flow Level Marking, QFI, RQI, Paging Policy Indicator, Averaging Window
group Created PDR = PDR ID, F-TEID as local_f_teid
group Update PDR = PDR ID, Outer Header Removal, Precedence, PDI, FAR ID, URR ID, QER ID, Activate Predefined Rules, Deactivate Predefined Rules, Activation Time, Deactivation Time
group Update FAR = FAR ID, Apply Action, Update Forwarding Parameters, Update Duplicating Parameters, BAR ID
group Update Forwarding Parameters = Destination Interface, Network Instance, Redirect Information, Outer Header Creation, Transport Level Marking, Forwarding Policy, Header Enrichment, PFCPSMReq-Flags, Traffic Endpoint ID as linked_traffic_endpoint_id, 3GPP Interface Type as destination_interface_type
group Update BAR (PFCP Session Report Response) = BAR ID, Downlink Data Notification Delay, DL Buffering Duration, DL Buffering Suggested Packet Count, Suggested Buffering Packets Count
group Update URR = URR ID, Measurement Method, Reporting Triggers, Measurement Period, Volume Threshold, Volume Quota, Time Threshold, Time Quota, Event Threshold, Event Quota, Quota Holding Time, Dropped DL Traffic Threshold, Monitoring Time, Subsequent Volume Threshold, Subsequent Time Threshold, Subsequent Volume Quota, Subsequent Time Quota, Subsequent Event Threshold, Subsequent Event Quota, Inactivity Detection Time, Linked URR ID, Measurement Information, Time Quota Mechanism, Aggregated URRs, FAR ID as far_id_for_quota_action, Ethernet Inactivity Timer, Additional Monitoring Time
group Update QER = QER ID, QER Correlation ID, Gate Status, MBR, GBR, Packet Rate, DL Flow Level Marking, QFI, RQI, Paging Policy Indicator, Averaging Window
group Remove PDR = PDR ID
group Remove FAR = FAR ID
group Remove URR = URR ID
group Remove QER = QER ID
group Load Control Information = Sequence Number, Metric
group Overload Control Information = Sequence Number, Metric, Timer, OCI Flags
group Application ID's PFDs = Application ID, PFD context
group PFD context = PFD contents
group Application Detection Information = Application ID, Application Instance ID, Flow Information
group Query URR = URR ID
group Usage Report (Session Modification Response) = URR ID, UR-SEQN, Usage Report Trigger, Start Time, End Time, Volume Measurement, Duration Measurement, Time of First Packet, Time of Last Packet, Usage Information, Query URR Reference, Ethernet Traffic Information
group Usage Report (Session Deletion Response) = URR ID, UR-SEQN, Usage Report Trigger, Start Time, End Time, Volume Measurement, Duration Measurement, Time of First Packet, Time of Last Packet, Usage Information, Ethernet Traffic Information
group Usage Report (Session Report Request) = URR ID, UR-SEQN, Usage Report Trigger, Start Time, End Time, Volume Measurement, Duration Measurement, Application Detection Information, UE IP Address, Network Instance, Time of First Packet, Time of Last Packet, Usage Information, Query URR Reference, Event Time Stamp, Ethernet Traffic Information
group Downlink Data Report = PDR ID, Downlink Data Service Information
group Create BAR = BAR ID, Downlink Data Notification Delay, Suggested Buffering Packets Count
group Update BAR (Session Modification Request) = BAR ID, Downlink Data Notification Delay, Suggested Buffering Packets Count
group Remove BAR = BAR ID
group Error Indication Report = F-TEID as remote_f_teid
group User Plane Path Failure Report = Remote GTP-U Peer
group Update Duplicating Parameters = Destination Interface, Outer Header Creation, Transport Level Marking, Forwarding Policy
group Create Traffic Endpoint = Traffic Endpoint ID, F-TEID as local_f_teid, Network Instance, UE IP Address, Ethernet PDU Session Information, Framed-Route, Framed-Routing, Framed-IPv6-Route
group Created Traffic Endpoint = Traffic Endpoint ID, F-TEID as local_f_teid
group Update Traffic Endpoint = Traffic Endpoint ID, F-TEID as local_f_teid, Network Instance, UE IP Address, Framed-Route, Framed-Routing, Framed-IPv6-Route
group Remove Traffic Endpoint = Traffic Endpoint ID
group Ethernet Packet Filter = Ethernet Filter ID, Ethernet Filter Properties, MAC address, Ethertype, C-TAG, S-TAG, SDF Filter*8
group Ethernet Traffic Information = MAC Addresses Detected, MAC Addresses Removed
group Create MAR = MAR ID, Steering Functionality, Steering Mode, Access Forwarding Action Information 1, Access Forwarding Action Information 2
group Access Forwarding Action Information 1 = FAR ID, Weight, Priority, URR ID
group Access Forwarding Action Information 2 = FAR ID, Weight, Priority, URR ID
group Remove MAR = MAR ID
group Update MAR = MAR ID, Steering Functionality, Steering Mode, Update Access Forwarding Action Information 1, Update Access Forwarding Action Information 2, Access Forwarding Action Information 1, Access Forwarding Action Information 2
group Update Access Forwarding Action Information 1 = FAR ID, Weight, Priority, URR ID
group Update Access Forwarding Action Information 2 = FAR ID, Weight, Priority, URR ID

msg 1 PFCP Heartbeat Request = Recovery Time Stamp
msg 2 PFCP Heartbeat Response = Recovery Time Stamp
msg 3 PFCP PFD Management Request = Application ID's PFDs
msg 4 PFCP PFD Management Response = Cause, Offending IE
msg 5 PFCP Association Setup Request = Node ID, Recovery Time Stamp, UP Function Features, CP Function Features, User Plane IP Resource Information*4, Alternative SMF IP Address
msg 6 PFCP Association Setup Response = Node ID, Cause, Recovery Time Stamp, UP Function Features, CP Function Features, User Plane IP Resource Information*4, Alternative SMF IP Address
msg 7 PFCP Association Update Request = Node ID, UP Function Features, CP Function Features, PFCP Association Release Request, Graceful Release Period, User Plane IP Resource Information*4, PFCPAUReq-Flags, Alternative SMF IP Address
msg 8 PFCP Association Update Response = Node ID, Cause, UP Function Features, CP Function Features
msg 9 PFCP Association Release Request = Node ID
msg 10 PFCP Association Release Response = Node ID, Cause
msg 11 PFCP Version Not Supported Response =
msg 12 PFCP Node Report Request = Node ID, Node Report Type, User Plane Path Failure Report
msg 13 PFCP Node Report Response = Node ID, Cause, Offending IE
msg 14 PFCP Session Set Deletion Request = Node ID, FQ-CSID as sgw_c_fq_csid, FQ-CSID as pgw_c_fq_csid, FQ-CSID as sgw_u_fq_csid, FQ-CSID as pgw_u_fq_csid, FQ-CSID as twan_fq_csid, FQ-CSID as epdg_fq_csid, FQ-CSID as mme_fq_csid
msg 15 PFCP Session Set Deletion Response = Node ID, Cause, Offending IE
msg 50 PFCP Session Establishment Request = Node ID, F-SEID as cp_f_seid, Create PDR*8, Create FAR*8, Create URR*10, Create QER*11, Create BAR, Create Traffic Endpoint, PDN Type, FQ-CSID as sgw_c_fq_csid, FQ-CSID as mme_fq_csid, FQ-CSID as pgw_c_fq_csid, FQ-CSID as epdg_fq_csid, FQ-CSID as twan_fq_csid, User Plane Inactivity Timer, User ID, Trace Information, APN/DNN, Create MAR
msg 51 PFCP Session Establishment Response = Node ID, Cause, Offending IE, F-SEID as up_f_seid, Created PDR*8, Load Control Information, Overload Control Information, FQ-CSID as sgw_u_fq_csid, FQ-CSID as pgw_u_fq_csid, Failed Rule ID, Created Traffic Endpoint
msg 52 PFCP Session Modification Request = F-SEID as cp_f_seid, Remove PDR*8, Remove FAR*8, Remove URR*10, Remove QER*11, Remove BAR, Remove Traffic Endpoint, Create PDR*8, Create FAR*8, Create URR*10, Create QER*11, Create BAR, Create Traffic Endpoint, Update PDR*8, Update FAR*8, Update URR*10, Update QER*11, Update BAR (Session Modification Request) as update_bar, Update Traffic Endpoint, PFCPSMReq-Flags, Query URR, FQ-CSID as pgw_c_fq_csid, FQ-CSID as sgw_c_fq_csid, FQ-CSID as mme_fq_csid, FQ-CSID as epdg_fq_csid, FQ-CSID as twan_fq_csid, User Plane Inactivity Timer, Query URR Reference, Trace Information, Remove MAR, Update MAR, Create MAR, Node ID
msg 53 PFCP Session Modification Response = Cause, Offending IE, Created PDR*8, Load Control Information, Overload Control Information, Usage Report (Session Modification Response) as usage_report, Failed Rule ID, Additional Usage Reports Information, Created Traffic Endpoint as created_updated_traffic_endpoint
msg 54 PFCP Session Deletion Request =
msg 55 PFCP Session Deletion Response = Cause, Offending IE, Load Control Information, Overload Control Information, Usage Report (Session Deletion Response) as usage_report
msg 56 PFCP Session Report Request = Report Type, Downlink Data Report, Usage Report (Session Report Request) as usage_report, Error Indication Report, Load Control Information, Overload Control Information, Additional Usage Reports Information, PFCPSRReq-Flags, F-SEID as old_cp_f_seid
msg 57 PFCP Session Report Response = Cause, Offending IE, Update BAR (PFCP Session Report Response) as update_bar, PFCPSRRsp-Flags, F-SEID as cp_f_seid, F-TEID as n4_u_f_teid, Alternative SMF IP Address
