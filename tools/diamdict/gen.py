#!/usr/bin/python3
"""Writes the AVP type dictionaries of config/resources/dictionary/, one file per Diameter
application, from the tables below. The template engine looks an AVP's type up by the
application of its template, so every application's file carries the base protocol's AVPs
besides its own.

usage: gen.py [--check]    --check compares the files with what would be written
"""
import json
import os
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
OUT = os.path.join(HERE, "..", "..", "config", "resources", "dictionary")

TYPES = {"O": "OctetString", "E": "Int32", "I32": "Int32", "I64": "Int64", "U32": "UInt32", "U64": "UInt64",
         "G": "Grouped"}
TGPP = 10415


def avps(vendor, text):
    """'Name code type' lines; '#' starts a comment."""
    out = []
    for line in text.splitlines():
        line = line.split("#")[0].strip()
        if not line:
            continue
        name, code, kind = line.split()
        out.append((name, int(code), vendor, TYPES[kind]))
    return out


BASE = avps(0, """
User-Name 1 O
Class 25 O
Session-Timeout 27 U32
Proxy-State 33 O
Acct-Session-Id 44 O
Acct-Multi-Session-Id 50 O
Event-Timestamp 55 O
Acct-Interim-Interval 85 U32
Host-IP-Address 257 O
Auth-Application-Id 258 U32
Acct-Application-Id 259 U32
Vendor-Specific-Application-Id 260 G
Redirect-Host-Usage 261 E
Redirect-Max-Cache-Time 262 U32
Session-Id 263 O
Origin-Host 264 O
Supported-Vendor-Id 265 U32
Vendor-Id 266 U32
Firmware-Revision 267 U32
Result-Code 268 U32
Product-Name 269 O
Session-Binding 270 U32
Session-Server-Failover 271 E
Multi-Round-Time-Out 272 U32
Disconnect-Cause 273 E
Auth-Request-Type 274 E
Auth-Grace-Period 276 U32
Auth-Session-State 277 E
Origin-State-Id 278 U32
Failed-AVP 279 G
Proxy-Host 280 O
Error-Message 281 O
Route-Record 282 O
Destination-Realm 283 O
Proxy-Info 284 G
Re-Auth-Request-Type 285 E
Accounting-Sub-Session-Id 287 U64
Authorization-Lifetime 291 U32
Redirect-Host 292 O
Destination-Host 293 O
Error-Reporting-Host 294 O
Termination-Cause 295 E
Origin-Realm 296 O
Experimental-Result 297 G
Experimental-Result-Code 298 U32
Inband-Security-Id 299 U32
E2E-Sequence 300 G
Accounting-Record-Type 480 E
Accounting-Realtime-Required 483 E
Accounting-Record-Number 485 U32
""")

CREDIT_CONTROL = avps(0, """
CC-Correlation-Id 411 O
CC-Input-Octets 412 U64
CC-Money 413 G
CC-Output-Octets 414 U64
CC-Request-Number 415 U32
CC-Request-Type 416 E
CC-Service-Specific-Units 417 U64
CC-Session-Failover 418 E
CC-Sub-Session-Id 419 U64
CC-Time 420 U32
CC-Total-Octets 421 U64
Check-Balance-Result 422 E
Cost-Information 423 G
Cost-Unit 424 O
Currency-Code 425 U32
Credit-Control 426 E
Credit-Control-Failure-Handling 427 E
Direct-Debiting-Failure-Handling 428 E
Exponent 429 I32
Final-Unit-Indication 430 G
Granted-Service-Unit 431 G
Rating-Group 432 U32
Redirect-Address-Type 433 E
Redirect-Server 434 G
Redirect-Server-Address 435 O
Requested-Action 436 E
Requested-Service-Unit 437 G
Restriction-Filter-Rule 438 O
Service-Identifier 439 U32
Service-Parameter-Info 440 G
Service-Parameter-Type 441 U32
Service-Parameter-Value 442 O
Subscription-Id 443 G
Subscription-Id-Data 444 O
Unit-Value 445 G
Used-Service-Unit 446 G
Value-Digits 447 I64
Validity-Time 448 U32
Final-Unit-Action 449 E
Subscription-Id-Type 450 E
Tariff-Time-Change 451 O
Tariff-Change-Usage 452 E
G-S-U-Pool-Identifier 453 U32
CC-Unit-Type 454 E
Multiple-Services-Indicator 455 E
Multiple-Services-Credit-Control 456 G
G-S-U-Pool-Reference 457 G
User-Equipment-Info 458 G
User-Equipment-Info-Type 459 E
User-Equipment-Info-Value 460 O
Service-Context-Id 461 O
""")
SUBSCRIPTION_ID = [a for a in CREDIT_CONTROL if a[1] in (443, 444, 450)]
EQUIPMENT_INFO = [a for a in CREDIT_CONTROL if a[1] in (458, 459, 460)]

EAP = avps(0, """
EAP-Key-Name 102 O
EAP-Payload 462 O
EAP-Reissued-Payload 463 O
EAP-Master-Session-Key 464 O
Accounting-EAP-Auth-Method 465 U64
""")

FRAMED = avps(0, """
Framed-IP-Address 8 O
Framed-Interface-Id 96 U64
Framed-IPv6-Prefix 97 O
""")

MIP6 = avps(0, """
MIP6-Feature-Vector 124 U64
MIP6-Home-Link-Prefix 125 O
MIP-Home-Agent-Address 334 O
MIP-Home-Agent-Host 348 G
MIP6-Agent-Info 486 G
Service-Selection 493 O
Mobile-Node-Identifier 506 O
""")

SUPPORTED_FEATURES = avps(TGPP, """
Supported-Features 628 G
Feature-List-ID 629 U32
Feature-List 630 U32
""")

QOS = avps(TGPP, """
Max-Requested-Bandwidth-DL 515 U32
Max-Requested-Bandwidth-UL 516 U32
Guaranteed-Bitrate-DL 1025 U32
Guaranteed-Bitrate-UL 1026 U32
QoS-Class-Identifier 1028 E
Allocation-Retention-Priority 1034 G
APN-Aggregate-Max-Bitrate-DL 1040 U32
APN-Aggregate-Max-Bitrate-UL 1041 U32
Priority-Level 1046 U32
Pre-emption-Capability 1047 E
Pre-emption-Vulnerability 1048 E
""")

RAT_TYPE = avps(TGPP, "RAT-Type 1032 E")
MSISDN = avps(TGPP, "MSISDN 701 O")

# Subscriber data and mobility management towards the HSS (S6a/S6d, S13).
S6A = avps(TGPP, """
Subscription-Data 1400 G
Terminal-Information 1401 G
IMEI 1402 O
Software-Version 1403 O
QoS-Subscribed 1404 O
ULR-Flags 1405 U32
ULA-Flags 1406 U32
Visited-PLMN-Id 1407 O
Requested-EUTRAN-Authentication-Info 1408 G
Requested-UTRAN-GERAN-Authentication-Info 1409 G
Number-Of-Requested-Vectors 1410 U32
Re-Synchronization-Info 1411 O
Immediate-Response-Preferred 1412 U32
Authentication-Info 1413 G
E-UTRAN-Vector 1414 G
UTRAN-Vector 1415 G
GERAN-Vector 1416 G
Network-Access-Mode 1417 E
HPLMN-ODB 1418 U32
Item-Number 1419 U32
Cancellation-Type 1420 E
DSR-Flags 1421 U32
DSA-Flags 1422 U32
Context-Identifier 1423 U32
Subscriber-Status 1424 E
Operator-Determined-Barring 1425 U32
Access-Restriction-Data 1426 U32
APN-OI-Replacement 1427 O
All-APN-Configurations-Included-Indicator 1428 E
APN-Configuration-Profile 1429 G
APN-Configuration 1430 G
EPS-Subscribed-QoS-Profile 1431 G
VPLMN-Dynamic-Address-Allowed 1432 E
STN-SR 1433 O
Alert-Reason 1434 E
AMBR 1435 G
CSG-Subscription-Data 1436 G
CSG-Id 1437 U32
PDN-GW-Allocation-Type 1438 E
Expiration-Date 1439 O
RAT-Frequency-Selection-Priority-ID 1440 U32
IDA-Flags 1441 U32
PUA-Flags 1442 U32
NOR-Flags 1443 U32
User-Id 1444 O
Equipment-Status 1445 E
Regional-Subscription-Zone-Code 1446 O
RAND 1447 O
XRES 1448 O
AUTN 1449 O
KASME 1450 O
Trace-Collection-Entity 1452 O
Kc 1453 O
SRES 1454 O
PDN-Type 1456 E
Roaming-Restricted-Due-To-Unsupported-Feature 1457 E
Trace-Data 1458 G
Trace-Reference 1459 O
Trace-Depth 1462 E
Trace-NE-Type-List 1463 O
Trace-Interface-List 1464 O
Trace-Event-List 1465 O
OMC-Id 1466 O
GPRS-Subscription-Data 1467 G
Complete-Data-List-Included-Indicator 1468 E
PDP-Context 1469 G
PDP-Type 1470 O
3GPP2-MEID 1471 O
Specific-APN-Info 1472 G
LCS-Info 1473 G
GMLC-Number 1474 O
LCS-PrivacyException 1475 G
SS-Code 1476 O
SS-Status 1477 O
Notification-To-UE-User 1478 E
External-Client 1479 G
Client-Identity 1480 O
GMLC-Restriction 1481 E
PLMN-Client 1482 E
Service-Type 1483 G
ServiceTypeIdentity 1484 U32
MO-LR 1485 G
Teleservice-List 1486 G
TS-Code 1487 O
Call-Barring-Info 1488 G
SGSN-Number 1489 O
IDR-Flags 1490 U32
ICS-Indicator 1491 E
IMS-Voice-Over-PS-Sessions-Supported 1492 E
Homogeneous-Support-of-IMS-Voice-Over-PS-Sessions 1493 E
Last-UE-Activity-Time 1494 O
EPS-User-State 1495 G
EPS-Location-Information 1496 G
MME-User-State 1497 G
SGSN-User-State 1498 G
User-State 1499 E
MME-Location-Information 1600 G
SGSN-Location-Information 1601 G
E-UTRAN-Cell-Global-Identity 1602 O
Tracking-Area-Identity 1603 O
Cell-Global-Identity 1604 O
Routing-Area-Identity 1605 O
Location-Area-Identity 1606 O
Service-Area-Identity 1607 O
Geographical-Information 1608 O
Geodetic-Information 1609 O
Current-Location-Retrieved 1610 E
Age-Of-Location-Information 1611 U32
Active-APN 1612 G
SIPTO-Permission 1613 E
Error-Diagnostic 1614 E
UE-SRVCC-Capability 1615 E
MPS-Priority 1616 U32
VPLMN-LIPA-Allowed 1617 E
LIPA-Permission 1618 E
Subscribed-Periodic-RAU-TAU-Timer 1619 U32
Ext-PDP-Type 1620 O
Ext-PDP-Address 1621 O
MDT-Configuration 1622 G
Job-Type 1623 E
Area-Scope 1624 G
List-Of-Measurements 1625 U32
Reporting-Trigger 1626 U32
Report-Interval 1627 E
Report-Amount 1628 E
Event-Threshold-RSRP 1629 U32
Event-Threshold-RSRQ 1630 U32
Logging-Interval 1631 E
Logging-Duration 1632 E
Relay-Node-Indicator 1633 E
MDT-User-Consent 1634 E
PUR-Flags 1635 U32
Subscribed-VSRVCC 1636 E
Equivalent-PLMN-List 1637 G
CLR-Flags 1638 U32
UVR-Flags 1639 U32
UVA-Flags 1640 U32
VPLMN-CSG-Subscription-Data 1641 G
Time-Zone 1642 O
A-MSISDN 1643 O
MME-Number-for-MT-SMS 1645 O
SMS-Register-Request 1648 E
Local-Time-Zone 1649 G
Daylight-Saving-Time 1650 E
Subscription-Data-Flags 1654 U32
Measurement-Period-LTE 1655 E
Measurement-Period-UMTS 1656 E
Collection-Period-RRM-LTE 1657 E
Collection-Period-RRM-UMTS 1658 E
Positioning-Method 1659 O
Measurement-Quantity 1660 O
Event-Threshold-Event-1F 1661 I32
Event-Threshold-Event-1I 1662 I32
Restoration-Priority 1663 U32
SGs-MME-Identity 1664 O
SIPTO-Local-Network-Permission 1665 U32
Coupled-Node-Diameter-ID 1666 O
WLAN-offloadability 1667 G
WLAN-offloadability-EUTRAN 1668 U32
WLAN-offloadability-UTRAN 1669 U32
Reset-ID 1670 O
MDT-Allowed-PLMN-Id 1671 O
Adjacent-PLMNs 1672 G
Adjacent-Access-Restriction-Data 1673 G
DL-Buffering-Suggested-Packet-Count 1674 I32
IMSI-Group-Id 1675 G
Group-Service-Id 1676 U32
Group-PLMN-Id 1677 O
Local-Group-Id 1678 O
AIR-Flags 1679 U32
UE-Usage-Type 1680 U32
Non-IP-PDN-Type-Indicator 1681 E
Non-IP-Data-Delivery-Mechanism 1682 U32
Additional-Context-ID 1683 U32
SCEF-Realm 1684 O
Subscription-Data-Deletion 1685 G
Preferred-Data-Mode 1686 U32
Emergency-Info 1687 G
V2X-Subscription-Data 1688 G
V2X-Permission 1689 U32
PDN-Connection-Continuity 1690 U32
""")
S6A_FOREIGN = avps(TGPP, """
Visited-Network-Identifier 600 O
GMLC-Address 2405 O
""")

# IMS registration and authentication (Cx/Dx), also used by SWx and Sh.
CX = avps(TGPP, """
Visited-Network-Identifier 600 O
Public-Identity 601 O
Server-Name 602 O
Server-Capabilities 603 G
Mandatory-Capability 604 U32
Optional-Capability 605 U32
User-Data 606 O
SIP-Number-Auth-Items 607 U32
SIP-Authentication-Scheme 608 O
SIP-Authenticate 609 O
SIP-Authorization 610 O
SIP-Authentication-Context 611 O
SIP-Auth-Data-Item 612 G
SIP-Item-Number 613 U32
Server-Assignment-Type 614 E
Deregistration-Reason 615 G
Reason-Code 616 E
Reason-Info 617 O
Charging-Information 618 G
Primary-Event-Charging-Function-Name 619 O
Secondary-Event-Charging-Function-Name 620 O
Primary-Charging-Collection-Function-Name 621 O
Secondary-Charging-Collection-Function-Name 622 O
User-Authorization-Type 623 E
User-Data-Already-Available 624 E
Confidentiality-Key 625 O
Integrity-Key 626 O
Supported-Applications 631 G
Associated-Identities 632 G
Originating-Request 633 E
Wildcarded-Public-Identity 634 O
SIP-Digest-Authenticate 635 G
Wildcarded-IMPU 636 O
UAR-Flags 637 U32
Loose-Route-Indication 638 E
SCSCF-Restoration-Info 639 G
Path 640 O
Contact 641 O
Subscription-Info 642 G
Call-ID-SIP-Header 643 O
From-SIP-Header 644 O
To-SIP-Header 645 O
Record-Route 646 O
Associated-Registered-Identities 647 G
Multiple-Registration-Indication 648 E
Restoration-Info 649 G
Session-Priority 650 E
Identity-with-Emergency-Registration 651 G
Privileged-Sender-Indication 652 E
LIA-Flags 653 U32
Initial-CSeq-Sequence-Number 654 U32
SAR-Flags 655 U32
""")
DIGEST = avps(0, """
Digest-Realm 104 O
Digest-QoP 110 O
Digest-Algorithm 111 O
Digest-HA1 121 O
""")

SH = avps(TGPP, """
User-Identity 700 G
MSISDN 701 O
User-Data 702 O
Data-Reference 703 E
Service-Indication 704 O
Subs-Req-Type 705 E
Requested-Domain 706 E
Current-Location 707 E
Identity-Set 708 E
Expiry-Time 709 O
Send-Data-Indication 710 E
DSAI-Tag 711 O
One-Time-Notification 712 E
Requested-Nodes 713 U32
Serving-Node-Indication 714 E
Repository-Data-ID 715 G
Sequence-Number 716 U32
UDR-Flags 719 U32
""")

# Non-3GPP access (SWx, STa, SWm, S6b).
NON3GPP = avps(TGPP, """
Non-3GPP-User-Data 1500 G
Non-3GPP-IP-Access 1501 E
Non-3GPP-IP-Access-APN 1502 E
AN-Trusted 1503 E
ANID 1504 O
Trace-Info 1505 G
PPR-Flags 1508 U32
Full-Network-Name 1516 O
Short-Network-Name 1517 O
AAA-Failure-Indication 1518 U32
Transport-Access-Type 1519 E
DER-Flags 1520 U32
DEA-Flags 1521 U32
RAR-Flags 1522 U32
DER-S6b-Flags 1523 U32
""")

# Policy and charging control (Gx, Rx).
GX = avps(TGPP, """
Bearer-Usage 1000 E
Charging-Rule-Install 1001 G
Charging-Rule-Remove 1002 G
Charging-Rule-Definition 1003 G
Charging-Rule-Base-Name 1004 O
Charging-Rule-Name 1005 O
Event-Trigger 1006 E
Metering-Method 1007 E
Offline 1008 E
Online 1009 E
Precedence 1010 U32
Reporting-Level 1011 E
TFT-Filter 1012 O
TFT-Packet-Filter-Information 1013 G
ToS-Traffic-Class 1014 O
PDP-Session-Operation 1015 E
QoS-Information 1016 G
Charging-Rule-Report 1018 G
PCC-Rule-Status 1019 E
Bearer-Identifier 1020 O
Bearer-Operation 1021 E
Access-Network-Charging-Identifier-Gx 1022 G
Bearer-Control-Mode 1023 E
Network-Request-Support 1024 E
IP-CAN-Type 1027 E
Rule-Failure-Code 1031 E
Event-Report-Indication 1033 G
CoA-IP-Address 1035 O
Tunnel-Header-Filter 1036 O
Tunnel-Header-Length 1037 U32
Tunnel-Information 1038 G
CoA-Information 1039 G
Revalidation-Time 1042 O
Rule-Activation-Time 1043 O
Rule-Deactivation-Time 1044 O
Session-Release-Cause 1045 E
Default-EPS-Bearer-QoS 1049 G
AN-GW-Address 1050 O
Security-Parameter-Index 1056 O
Flow-Label 1057 O
Flow-Information 1058 G
Packet-Filter-Content 1059 O
Packet-Filter-Identifier 1060 O
Packet-Filter-Information 1061 G
Packet-Filter-Operation 1062 E
Resource-Allocation-Notification 1063 E
Monitoring-Key 1066 O
Usage-Monitoring-Information 1067 G
Usage-Monitoring-Level 1068 E
Usage-Monitoring-Report 1069 E
Usage-Monitoring-Support 1070 E
CSG-Information-Reporting 1071 E
Flow-Direction 1080 E
""")
RX = avps(TGPP, """
Abort-Cause 500 E
Access-Network-Charging-Address 501 O
Access-Network-Charging-Identifier 502 G
Access-Network-Charging-Identifier-Value 503 O
AF-Application-Identifier 504 O
AF-Charging-Identifier 505 O
Flow-Description 507 O
Flow-Number 509 U32
Flows 510 G
Flow-Status 511 E
Flow-Usage 512 E
Specific-Action 513 E
Media-Component-Description 517 G
Media-Component-Number 518 U32
Media-Sub-Component 519 G
Media-Type 520 E
RR-Bandwidth 521 U32
RS-Bandwidth 522 U32
SIP-Forking-Indication 523 E
Codec-Data 524 O
Service-URN 525 O
Acceptable-Service-Info 526 G
Service-Info-Status 527 E
MPS-Identifier 528 O
AF-Signalling-Protocol 529 E
Sponsored-Connectivity-Data 530 G
Sponsor-Identity 531 O
Application-Service-Provider-Identity 532 O
Rx-Request-Type 533 E
Min-Requested-Bandwidth-DL 534 U32
Min-Requested-Bandwidth-UL 535 U32
Required-Access-Info 536 E
IP-Domain-Id 537 O
""")
RX_IN_GX = [a for a in RX if a[1] in (501, 503, 507, 509, 510, 511, 518)]
TGPP_GPRS = avps(TGPP, """
3GPP-Charging-Id 2 O
3GPP-PDP-Type 3 E
3GPP-GPRS-Negotiated-QoS-Profile 5 O
3GPP-SGSN-Address 6 O
3GPP-GGSN-Address 7 O
3GPP-GGSN-MCC-MNC 9 O
3GPP-NSAPI 10 O
3GPP-Selection-Mode 12 O
3GPP-Charging-Characteristics 13 O
3GPP-SGSN-MCC-MNC 18 O
3GPP-RAT-Type 21 O
3GPP-User-Location-Info 22 O
3GPP-MS-TimeZone 23 O
""")
TGPP_LOCATION = [a for a in TGPP_GPRS if a[1] in (18, 22, 23)]
CALLED_STATION = avps(0, "Called-Station-Id 30 O")
CALLING_STATION = avps(0, "Calling-Station-Id 31 O")
STATE = avps(0, "State 24 O")

# Online charging (Gy, Ro).
CHARGING = avps(TGPP, """
Event-Type 823 G
SIP-Method 824 O
Event 825 O
Content-Type 826 O
Content-Length 827 U32
Content-Disposition 828 O
Role-of-Node 829 E
User-Session-Id 830 O
Calling-Party-Address 831 O
Called-Party-Address 832 O
Time-Stamps 833 G
SIP-Request-Timestamp 834 O
SIP-Response-Timestamp 835 O
IMS-Charging-Identifier 841 O
CG-Address 846 O
GGSN-Address 847 O
Node-Functionality 862 E
Time-Quota-Threshold 868 U32
Volume-Quota-Threshold 869 U32
Trigger-Type 870 E
Quota-Holding-Time 871 U32
Reporting-Reason 872 E
Service-Information 873 G
PS-Information 874 G
IMS-Information 876 G
Quota-Consumption-Time 881 U32
Unit-Quota-Threshold 1226 U32
PDP-Address 1227 O
SGSN-Address 1228 O
PDP-Context-Type 1247 E
Service-Specific-Info 1249 G
Trigger 1264 G
Time-Quota-Mechanism 1270 G
Serving-Node-Type 2047 E
AoC-Request-Type 2055 E
""")

APPS = [
    # file, application id, what it is, its AVPs beside the base protocol's
    ("base", 3, "Diameter base accounting", []),
    ("s6a", 16777251, "S6a/S6d", S6A + S6A_FOREIGN + SUPPORTED_FEATURES + QOS + RAT_TYPE + MSISDN + MIP6[4:6]),
    ("cx", 16777216, "Cx/Dx", CX + DIGEST + SUPPORTED_FEATURES),
    ("sh", 16777217, "Sh/Dh", SH + [a for a in CX if a[1] in (601, 602, 634, 636, 650)] + SUPPORTED_FEATURES),
    ("swx", 16777265, "SWx", [a for a in CX if a[1] in (600, 602, 607, 608, 609, 610, 611, 612, 613, 614, 615, 616,
                                                         617, 625, 626)] + NON3GPP[:7] + SUPPORTED_FEATURES + RAT_TYPE
     + [a for a in S6A if a[1] in (1401, 1402, 1403, 1423, 1430, 1435, 1471)] + MSISDN + QOS + MIP6[4:6]),
    ("gx", 16777238, "Gx", GX + QOS + RAT_TYPE + RX_IN_GX + SUPPORTED_FEATURES + FRAMED + SUBSCRIPTION_ID
     + EQUIPMENT_INFO + TGPP_LOCATION + CALLED_STATION
     + [a for a in CREDIT_CONTROL if a[1] in (412, 414, 415, 416, 420, 421, 431, 432, 439, 446)]),
    ("rx", 16777236, "Rx", RX + [a for a in QOS if a[1] in (515, 516, 1028)] + RAT_TYPE + SUPPORTED_FEATURES
     + FRAMED + SUBSCRIPTION_ID + TGPP_LOCATION + [a for a in GX if a[1] in (1014, 1031, 1066)]),
    ("gy_ro", 4, "Credit-Control (Gy, Ro)", CREDIT_CONTROL + CHARGING + TGPP_GPRS + RAT_TYPE + CALLED_STATION
     + [a for a in GX if a[1] in (1004, 1016, 1027)] + QOS),
    ("s13", 16777252, "S13/S13'", [a for a in S6A if a[1] in (1401, 1402, 1403, 1445, 1471)] + SUPPORTED_FEATURES),
    ("sta", 16777250, "STa", EAP + MIP6 + NON3GPP + QOS + RAT_TYPE + MSISDN + SUPPORTED_FEATURES + CALLING_STATION
     + STATE + FRAMED + [a for a in S6A if a[1] in (1401, 1402, 1403, 1423, 1430, 1435)]),
    ("swm", 16777264, "SWm", EAP + MIP6 + NON3GPP + QOS + RAT_TYPE + MSISDN + SUPPORTED_FEATURES + STATE + FRAMED
     + [a for a in S6A if a[1] in (1401, 1402, 1403, 1423, 1430, 1435)]),
    ("s6b", 16777272, "S6b", MIP6 + NON3GPP + QOS + RAT_TYPE + MSISDN + SUPPORTED_FEATURES + FRAMED
     + [a for a in S6A if a[1] in (1423, 1430, 1435)] + [a for a in CX if a[1] == 600]),
]


def render(app_id, what, own):
    entries, seen = [], {}
    for name, code, vendor, kind in BASE + own:
        if code in seen:
            # The engine looks types up by code alone within an application.
            if seen[code] != (name, vendor, kind):
                raise SystemExit("application %d: code %d is both %s and %s" % (app_id, code, seen[code][0], name))
            continue
        seen[code] = (name, vendor, kind)
        entries.append({"Code": code, "Name": name, "VendorId": vendor, "DataType": kind})
    entries.sort(key=lambda e: e["Code"])
    doc = [{"ApplicationId": app_id, "Name": what, "AVPs": entries}]
    lines = ["[", '  {"ApplicationId": %d, "Name": %s, "AVPs": [' % (app_id, json.dumps(what))]
    for i, e in enumerate(entries):
        lines.append("    " + json.dumps(e) + ("," if i + 1 < len(entries) else ""))
    lines += ["  ]}", "]", ""]
    text = "\n".join(lines)
    assert json.loads(text) == doc
    return text


def main():
    check = "--check" in sys.argv[1:]
    stale = []
    os.makedirs(OUT, exist_ok=True)
    for file, app_id, what, own in APPS:
        path = os.path.join(OUT, file + ".json")
        text = render(app_id, what, own)
        old = open(path).read() if os.path.exists(path) else None
        if old == text:
            continue
        if check:
            stale.append(path)
        else:
            with open(path, "w") as f:
                f.write(text)
    if stale:
        print("not as generated: " + " ".join(stale))
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
