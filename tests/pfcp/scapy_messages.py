#!/usr/bin/python3
"""Answers and reports a UPF sends, built by scapy's PFCP layers (an encoder that is not ours).

Prints one line per message: a name, then the datagram in hexadecimal.
"""

from scapy.contrib.pfcp import (
    IE_Cause, IE_CreatedPDR, IE_DownlinkDataReport, IE_DownlinkDataServiceInformation, IE_DurationMeasurement,
    IE_FSEID, IE_FTEID, IE_NodeId, IE_NodeReportType, IE_PDR_Id, IE_RecoveryTimeStamp, IE_RemoteGTP_U_Peer,
    IE_ReportType, IE_UPFunctionFeatures, IE_UR_SEQN, IE_URR_Id, IE_UsageReport_SDR, IE_UsageReport_SMR,
    IE_UsageReport_SRR, IE_UsageReportTrigger, IE_UserPlanePathFailureReport, IE_VolumeMeasurement, PFCP,
    PFCPAssociationSetupResponse, PFCPHeartbeatRequest, PFCPHeartbeatResponse, PFCPNodeReportRequest,
    PFCPSessionDeletionResponse, PFCPSessionEstablishmentResponse, PFCPSessionModificationResponse,
    PFCPSessionReportRequest)

UP = "10.200.0.2"


def usage(cls, urr, seqn, total):
    return cls(IE_list=[IE_URR_Id(id=urr), IE_UR_SEQN(number=seqn), IE_UsageReportTrigger(VOLTH=1),
                        IE_VolumeMeasurement(TOVOL=1, ULVOL=1, DLVOL=1, total=total, uplink=total // 4,
                                             downlink=total - total // 4),
                        IE_DurationMeasurement(duration=30)])


MESSAGES = [
    ("association_setup_response", PFCP(version=1, S=0, seq=103) / PFCPAssociationSetupResponse(IE_list=[
        IE_NodeId(id_type=0, ipv4=UP), IE_Cause(cause=1), IE_RecoveryTimeStamp(timestamp=3911484802),
        IE_UPFunctionFeatures(BUCP=1)])),
    ("association_setup_rejected", PFCP(version=1, S=0, seq=104) / PFCPAssociationSetupResponse(IE_list=[
        IE_NodeId(id_type=0, ipv4=UP), IE_Cause(cause=64), IE_RecoveryTimeStamp(timestamp=3911484802)])),
    ("heartbeat_request", PFCP(version=1, S=0, seq=7001) / PFCPHeartbeatRequest(IE_list=[
        IE_RecoveryTimeStamp(timestamp=3911484802)])),
    ("heartbeat_response", PFCP(version=1, S=0, seq=105) / PFCPHeartbeatResponse(IE_list=[
        IE_RecoveryTimeStamp(timestamp=3911484802)])),
    ("session_establishment_response", PFCP(version=1, S=1, seid=502, seq=109) / PFCPSessionEstablishmentResponse(
        IE_list=[IE_NodeId(id_type=0, ipv4=UP), IE_Cause(cause=1), IE_FSEID(v4=1, seid=0xABCDEF, ipv4=UP),
                 IE_CreatedPDR(IE_list=[IE_PDR_Id(id=2), IE_FTEID(V4=1, TEID=1000, ipv4=UP)])])),
    ("session_establishment_rejected", PFCP(version=1, S=1, seid=502, seq=110) / PFCPSessionEstablishmentResponse(
        IE_list=[IE_NodeId(id_type=0, ipv4=UP), IE_Cause(cause=73)])),
    ("session_modification_response", PFCP(version=1, S=1, seid=502, seq=111) / PFCPSessionModificationResponse(
        IE_list=[IE_Cause(cause=1), usage(IE_UsageReport_SMR, 1, 1, 8192)])),
    ("session_deletion_response", PFCP(version=1, S=1, seid=502, seq=112) / PFCPSessionDeletionResponse(
        IE_list=[IE_Cause(cause=1), usage(IE_UsageReport_SDR, 1, 2, 12288)])),
    ("session_report_request", PFCP(version=1, S=1, seid=502, seq=7002) / PFCPSessionReportRequest(
        IE_list=[IE_ReportType(USAR=1), usage(IE_UsageReport_SRR, 1, 3, 4096)])),
    ("downlink_data_report", PFCP(version=1, S=1, seid=502, seq=7003) / PFCPSessionReportRequest(
        IE_list=[IE_ReportType(DLDR=1), IE_DownlinkDataReport(IE_list=[
            IE_PDR_Id(id=1), IE_DownlinkDataServiceInformation(QFII=1, qfi_val=1)])])),
    ("node_report_request", PFCP(version=1, S=0, seq=7004) / PFCPNodeReportRequest(IE_list=[
        IE_NodeId(id_type=0, ipv4=UP), IE_NodeReportType(UPFR=1),
        IE_UserPlanePathFailureReport(IE_list=[IE_RemoteGTP_U_Peer(V4=1, ipv4="10.0.0.9")])])),
]

if __name__ == "__main__":
    for name, msg in MESSAGES:
        print(name, bytes(msg).hex())
