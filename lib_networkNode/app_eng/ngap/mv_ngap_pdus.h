// The tables behind the NGAP node layer's generated operations: every NGAP PDU of the
// codec, in the codec's order, and every elementary procedure with its code. The send
// family (__mv_ngap_send_<PDU>) and the handler groups (__mv_amf_handle_<Procedure>_...)
// are stamped out from these lists, so a name exists exactly when it stands here.
#pragma once

// X(PDU): one entry per PDU record __mv_amf_dt_<PDU>, in the order of the codec's table.
#define MV_NGAP_PDU_LIST(X)                   \
    X(AMFConfigurationUpdate)                 \
    X(AMFConfigurationUpdateAcknowledge)      \
    X(AMFConfigurationUpdateFailure)          \
    X(AMFStatusIndication)                    \
    X(CellTrafficTrace)                       \
    X(DeactivateTrace)                        \
    X(DownlinkNASTransport)                   \
    X(DownlinkNonUEAssociatedNRPPaTransport)  \
    X(DownlinkRANConfigurationTransfer)       \
    X(DownlinkRANStatusTransfer)              \
    X(DownlinkUEAssociatedNRPPaTransport)     \
    X(ErrorIndication)                        \
    X(HandoverCancel)                         \
    X(HandoverCancelAcknowledge)              \
    X(HandoverNotify)                         \
    X(HandoverRequired)                       \
    X(HandoverCommand)                        \
    X(HandoverPreparationFailure)             \
    X(HandoverRequest)                        \
    X(HandoverRequestAcknowledge)             \
    X(HandoverFailure)                        \
    X(InitialContextSetupRequest)             \
    X(InitialContextSetupResponse)            \
    X(InitialContextSetupFailure)             \
    X(InitialUEMessage)                       \
    X(LocationReportingControl)               \
    X(LocationReportingFailureIndication)     \
    X(LocationReport)                         \
    X(NASNonDeliveryIndication)               \
    X(NGReset)                                \
    X(NGResetAcknowledge)                     \
    X(NGSetupRequest)                         \
    X(NGSetupResponse)                        \
    X(NGSetupFailure)                         \
    X(OverloadStart)                          \
    X(OverloadStop)                           \
    X(Paging)                                 \
    X(PathSwitchRequest)                      \
    X(PathSwitchRequestAcknowledge)           \
    X(PathSwitchRequestFailure)               \
    X(PDUSessionResourceModifyRequest)        \
    X(PDUSessionResourceModifyResponse)       \
    X(PDUSessionResourceModifyIndication)     \
    X(PDUSessionResourceModifyConfirm)        \
    X(PDUSessionResourceReleaseCommand)       \
    X(PDUSessionResourceReleaseResponse)      \
    X(PDUSessionResourceSetupRequest)         \
    X(PDUSessionResourceSetupResponse)        \
    X(PDUSessionResourceNotify)               \
    X(PrivateMessage)                         \
    X(PWSCancelRequest)                       \
    X(PWSCancelResponse)                      \
    X(PWSFailureIndication)                   \
    X(PWSRestartIndication)                   \
    X(RANConfigurationUpdate)                 \
    X(RANConfigurationUpdateAcknowledge)      \
    X(RANConfigurationUpdateFailure)          \
    X(RerouteNASRequest)                      \
    X(RRCInactiveTransitionReport)            \
    X(TraceFailureIndication)                 \
    X(TraceStart)                             \
    X(UEContextModificationRequest)           \
    X(UEContextModificationResponse)          \
    X(UEContextModificationFailure)           \
    X(UEContextReleaseCommand)                \
    X(UEContextReleaseComplete)               \
    X(UEContextReleaseRequest)                \
    X(UERadioCapabilityCheckRequest)          \
    X(UERadioCapabilityCheckResponse)         \
    X(UERadioCapabilityInfoIndication)        \
    X(UETNLABindingReleaseRequest)            \
    X(UplinkNASTransport)                     \
    X(UplinkNonUEAssociatedNRPPaTransport)    \
    X(UplinkRANConfigurationTransfer)         \
    X(UplinkRANStatusTransfer)                \
    X(UplinkUEAssociatedNRPPaTransport)       \
    X(WriteReplaceWarningRequest)             \
    X(WriteReplaceWarningResponse)            \
    X(SecondaryRATDataUsageReport)

// P(code, Procedure): the elementary procedures by procedure code, 0 to 52 in order.
// Which message forms a procedure has is the codec's business (its PDU table).
#define MV_NGAP_PROCEDURE_LIST(P)                   \
    P(0, AMFConfigurationUpdate)                    \
    P(1, AMFStatusIndication)                       \
    P(2, CellTrafficTrace)                          \
    P(3, DeactivateTrace)                           \
    P(4, DownlinkNASTransport)                      \
    P(5, DownlinkNonUEAssociatedNRPPaTransport)     \
    P(6, DownlinkRANConfigurationTransfer)          \
    P(7, DownlinkRANStatusTransfer)                 \
    P(8, DownlinkUEAssociatedNRPPaTransport)        \
    P(9, ErrorIndication)                           \
    P(10, HandoverCancel)                           \
    P(11, HandoverNotification)                     \
    P(12, HandoverPreparation)                      \
    P(13, HandoverResourceAllocation)               \
    P(14, InitialContextSetup)                      \
    P(15, InitialUEMessage)                         \
    P(16, LocationReportingControl)                 \
    P(17, LocationReportingFailureIndication)       \
    P(18, LocationReport)                           \
    P(19, NASNonDeliveryIndication)                 \
    P(20, NGReset)                                  \
    P(21, NGSetup)                                  \
    P(22, OverloadStart)                            \
    P(23, OverloadStop)                             \
    P(24, Paging)                                   \
    P(25, PathSwitchRequest)                        \
    P(26, PDUSessionResourceModify)                 \
    P(27, PDUSessionResourceModifyIndication)       \
    P(28, PDUSessionResourceRelease)                \
    P(29, PDUSessionResourceSetup)                  \
    P(30, PDUSessionResourceNotify)                 \
    P(31, PrivateMessage)                           \
    P(32, PWSCancel)                                \
    P(33, PWSFailureIndication)                     \
    P(34, PWSRestartIndication)                     \
    P(35, RANConfigurationUpdate)                   \
    P(36, RerouteNASRequest)                        \
    P(37, RRCInactiveTransitionReport)              \
    P(38, TraceFailureIndication)                   \
    P(39, TraceStart)                               \
    P(40, UEContextModification)                    \
    P(41, UEContextRelease)                         \
    P(42, UEContextReleaseRequest)                  \
    P(43, UERadioCapabilityCheck)                   \
    P(44, UERadioCapabilityInfoIndication)          \
    P(45, UETNLABindingRelease)                     \
    P(46, UplinkNASTransport)                       \
    P(47, UplinkNonUEAssociatedNRPPaTransport)      \
    P(48, UplinkRANConfigurationTransfer)           \
    P(49, UplinkRANStatusTransfer)                  \
    P(50, UplinkUEAssociatedNRPPaTransport)         \
    P(51, WriteReplaceWarning)                      \
    P(52, SecondaryRATDataUsageReport)

#define MV_NGAP_PROCEDURE_COUNT 53
