// NAS information elements: the record shapes and the list of IE types of TS 24.501 and TS 24.301 with
// the format each takes on the wire. Every IE record ends with `isset`; the encoder writes an IE only when
// it is 1, and the decoder sets it when it took the IE.
#pragma once

#include <cstdint>

// Wire formats. An optional IE has its identifier in front; a mandatory one (iei 0) has none.
enum NasFmt : uint8_t {
    NAS_F_RAW8,  // a whole octet held in a plain uint8_t member (half-octet pairs such as type and ngKSI)
    NAS_F_HALF,  // type 1: identifier in the high nibble, value in the low nibble
    NAS_F_V,     // type 3: a fixed number of value octets
    NAS_F_LV,    // type 4: one length octet
    NAS_F_LVE,   // type 6: two length octets, big-endian
};
// IEs whose value is not copied as it stands.
enum NasKind : uint8_t {
    NAS_K_PLAIN,
    NAS_K_FGMMCAP,    // 5GMM capability: Length counts the octets after the first
    NAS_K_UESECCAP,   // 5G UE security capability: at most four octets are written
    NAS_K_PDUADDR,    // PDU address: the type octet apart from the address
    NAS_K_AMBR,       // session-AMBR: units and rates
};

// Record shapes. Length holds the value octets received or to send.
struct __attribute__((packed)) __naspdu_ie_half {
    uint8_t IEI;
    uint8_t Value;  // low nibble
    uint8_t isset;
};
struct __attribute__((packed)) __naspdu_ie_byte {
    uint8_t IEI;
    uint8_t Length;
    uint8_t Value;
    uint8_t isset;
};
template <unsigned N>
struct __attribute__((packed)) __naspdu_ie_l8 {
    uint8_t IEI;
    uint8_t Length;
    uint8_t data[N];
    uint8_t isset;
};
template <unsigned N>
struct __attribute__((packed)) __naspdu_ie_l16 {
    uint8_t IEI;
    uint16_t Length;
    uint8_t data[N];
    uint8_t isset;
};

typedef __naspdu_ie_l16<255> __naspdu_fgs_mobile_identity;
typedef __naspdu_ie_l8<255> __naspdu_nssai;
typedef __naspdu_ie_l8<255> __naspdu_fgmm_abba;
typedef __naspdu_ie_l16<8192> __naspdu_payload_container;

// Length covers the type octet and the address, as on the wire; data holds the address alone.
struct __attribute__((packed)) __naspdu_pdu_address {
    uint8_t IEI;
    uint8_t Length;
    uint8_t PDUSessionType;  // low three bits: 1 IPv4, 2 IPv6, 3 IPv4v6
    uint8_t data[40];
    uint8_t isset;
};
// Rates in host order; units as TS 24.501 codes them (6 is Mbps).
struct __attribute__((packed)) __naspdu_session_ambr {
    uint8_t IEI;
    uint8_t Length;
    uint8_t DownlinkUnit;
    uint16_t Downlink;
    uint8_t UplinkUnit;
    uint16_t Uplink;
    uint8_t isset;
};

// name, record type, format, kind, fixed number of value octets (0: as Length says)
#define NAS_IE_TYPES(X)                                                              \
    X(RAW8, uint8_t, NAS_F_RAW8, NAS_K_PLAIN, 1)                                     \
    /* TS 24.501, 5GMM */                                                            \
    X(FGSMobileIdentity, __naspdu_fgs_mobile_identity, NAS_F_LVE, NAS_K_PLAIN, 0)   \
    X(NASKeySetIdentifier, __naspdu_ie_half, NAS_F_HALF, NAS_K_PLAIN, 0)             \
    X(FGMMCapability, __naspdu_ie_l8<13>, NAS_F_LV, NAS_K_FGMMCAP, 0)                \
    X(FGUESecurityCapability, __naspdu_ie_l8<8>, NAS_F_LV, NAS_K_UESECCAP, 0)        \
    X(NSSAI, __naspdu_nssai, NAS_F_LV, NAS_K_PLAIN, 0)                               \
    X(FGSTrackingAreaIdentity, __naspdu_ie_l8<6>, NAS_F_V, NAS_K_PLAIN, 6)           \
    X(S1UENetworkCapability, __naspdu_ie_l8<13>, NAS_F_LV, NAS_K_PLAIN, 0)           \
    X(UplinkDataStatus, __naspdu_ie_l8<32>, NAS_F_LV, NAS_K_PLAIN, 0)                \
    X(PDUSessionStatus, __naspdu_ie_l8<32>, NAS_F_LV, NAS_K_PLAIN, 0)                \
    X(MICOIndication, __naspdu_ie_half, NAS_F_HALF, NAS_K_PLAIN, 0)                  \
    X(UEStatus, __naspdu_ie_byte, NAS_F_LV, NAS_K_PLAIN, 1)                          \
    X(AllowedPDUSessionStatus, __naspdu_ie_l8<32>, NAS_F_LV, NAS_K_PLAIN, 0)         \
    X(UEUsageSetting, __naspdu_ie_byte, NAS_F_LV, NAS_K_PLAIN, 1)                    \
    X(FGSDRXParameters, __naspdu_ie_byte, NAS_F_LV, NAS_K_PLAIN, 1)                  \
    X(EPSNASMessageContainer, __naspdu_ie_l16<1024>, NAS_F_LVE, NAS_K_PLAIN, 0)      \
    X(LADNIndication, __naspdu_ie_l16<811>, NAS_F_LVE, NAS_K_PLAIN, 0)               \
    X(PayloadContainerType, __naspdu_ie_half, NAS_F_HALF, NAS_K_PLAIN, 0)            \
    X(PayloadContainer, __naspdu_payload_container, NAS_F_LVE, NAS_K_PLAIN, 0)       \
    X(NetworkSlicingIndication, __naspdu_ie_half, NAS_F_HALF, NAS_K_PLAIN, 0)        \
    X(FGSUpdateType, __naspdu_ie_byte, NAS_F_LV, NAS_K_PLAIN, 1)                     \
    X(MobileStationClassmark2, __naspdu_ie_l8<3>, NAS_F_LV, NAS_K_PLAIN, 3)          \
    X(SupportedCodecList, __naspdu_ie_l8<64>, NAS_F_LV, NAS_K_PLAIN, 0)              \
    X(NASMessageContainer, __naspdu_ie_l16<4096>, NAS_F_LVE, NAS_K_PLAIN, 0)         \
    X(EPSBearerContextStatus, __naspdu_ie_l8<2>, NAS_F_LV, NAS_K_PLAIN, 2)           \
    X(ExtendedDRXParameters, __naspdu_ie_l8<2>, NAS_F_LV, NAS_K_PLAIN, 0)            \
    X(GPRSTimer, __naspdu_ie_byte, NAS_F_V, NAS_K_PLAIN, 1)                          \
    X(GPRSTimer2, __naspdu_ie_byte, NAS_F_LV, NAS_K_PLAIN, 1)                        \
    X(GPRSTimer3, __naspdu_ie_byte, NAS_F_LV, NAS_K_PLAIN, 1)                        \
    X(UERadioCapabilityID, __naspdu_ie_l8<64>, NAS_F_LV, NAS_K_PLAIN, 0)             \
    X(N5GCIndication, __naspdu_ie_half, NAS_F_HALF, NAS_K_PLAIN, 0)                  \
    X(FGSRegistrationResult, __naspdu_ie_byte, NAS_F_LV, NAS_K_PLAIN, 1)             \
    X(FGMMCause, __naspdu_ie_byte, NAS_F_V, NAS_K_PLAIN, 1)                          \
    X(NetworkName, __naspdu_ie_l8<255>, NAS_F_LV, NAS_K_PLAIN, 0)                    \
    X(TimeZone, __naspdu_ie_byte, NAS_F_V, NAS_K_PLAIN, 1)                           \
    X(TimeZoneAndTime, __naspdu_ie_l8<7>, NAS_F_V, NAS_K_PLAIN, 7)                   \
    X(DaylightSavingTime, __naspdu_ie_byte, NAS_F_LV, NAS_K_PLAIN, 1)                \
    X(ABBA, __naspdu_fgmm_abba, NAS_F_LV, NAS_K_PLAIN, 0)                            \
    X(RAND, __naspdu_ie_l8<16>, NAS_F_V, NAS_K_PLAIN, 16)                            \
    X(AUTN, __naspdu_ie_l8<16>, NAS_F_LV, NAS_K_PLAIN, 16)                           \
    X(EAPMessage, __naspdu_ie_l16<1500>, NAS_F_LVE, NAS_K_PLAIN, 0)                  \
    X(AuthenticationResponseParameter, __naspdu_ie_l8<16>, NAS_F_LV, NAS_K_PLAIN, 0) \
    X(AuthenticationFailureParameter, __naspdu_ie_l8<14>, NAS_F_LV, NAS_K_PLAIN, 14) \
    X(NASSecurityAlgorithms, __naspdu_ie_byte, NAS_F_V, NAS_K_PLAIN, 1)              \
    X(Additional5GSecurityInformation, __naspdu_ie_byte, NAS_F_LV, NAS_K_PLAIN, 1)   \
    X(IMEISVRequest, __naspdu_ie_half, NAS_F_HALF, NAS_K_PLAIN, 0)                   \
    X(PDUSessionIdentity2, __naspdu_ie_byte, NAS_F_V, NAS_K_PLAIN, 1)                \
    X(RequestType, __naspdu_ie_half, NAS_F_HALF, NAS_K_PLAIN, 0)                     \
    X(SNSSAI, __naspdu_ie_l8<8>, NAS_F_LV, NAS_K_PLAIN, 0)                           \
    X(DNN, __naspdu_ie_l8<102>, NAS_F_LV, NAS_K_PLAIN, 0) /* templates may give 102 */ \
    X(AdditionalInformation, __naspdu_ie_l8<255>, NAS_F_LV, NAS_K_PLAIN, 0)          \
    X(ConfigurationUpdateIndication, __naspdu_ie_half, NAS_F_HALF, NAS_K_PLAIN, 0)   \
    /* TS 24.501, 5GSM */                                                            \
    X(IntegrityProtectionMaximumDataRate, __naspdu_ie_l8<2>, NAS_F_V, NAS_K_PLAIN, 2) \
    X(PDUSessionType, __naspdu_ie_half, NAS_F_HALF, NAS_K_PLAIN, 0)                  \
    X(SSCMode, __naspdu_ie_half, NAS_F_HALF, NAS_K_PLAIN, 0)                         \
    X(FGSMCapability, __naspdu_ie_l8<13>, NAS_F_LV, NAS_K_PLAIN, 0)                  \
    X(MaximumNumberOfSupportedPacketFilters, __naspdu_ie_l8<2>, NAS_F_V, NAS_K_PLAIN, 2) \
    X(AlwaysOnPDUSessionRequested, __naspdu_ie_half, NAS_F_HALF, NAS_K_PLAIN, 0)     \
    X(ExtendedProtocolConfigurationOptions, __naspdu_ie_l16<1024>, NAS_F_LVE, NAS_K_PLAIN, 0) \
    X(QoSRules, __naspdu_ie_l16<1024>, NAS_F_LVE, NAS_K_PLAIN, 0)                    \
    X(SessionAMBR, __naspdu_session_ambr, NAS_F_LV, NAS_K_AMBR, 0)                   \
    X(FGSMCause, __naspdu_ie_byte, NAS_F_V, NAS_K_PLAIN, 1)                          \
    X(PDUAddress, __naspdu_pdu_address, NAS_F_LV, NAS_K_PDUADDR, 0)                  \
    X(MappedEPSBearerContexts, __naspdu_ie_l16<1024>, NAS_F_LVE, NAS_K_PLAIN, 0)     \
    X(QoSFlowDescriptions, __naspdu_ie_l16<1024>, NAS_F_LVE, NAS_K_PLAIN, 0)         \
    X(AllowedSSCMode, __naspdu_ie_half, NAS_F_HALF, NAS_K_PLAIN, 0)                  \
    X(FGSMCongestionReattemptIndicator, __naspdu_ie_byte, NAS_F_LV, NAS_K_PLAIN, 1)  \
    X(AlwaysOnPDUSessionIndication, __naspdu_ie_half, NAS_F_HALF, NAS_K_PLAIN, 0)    \
    /* TS 24.301, EMM */                                                             \
    X(EPSMobileIdentity, __naspdu_ie_l8<16>, NAS_F_LV, NAS_K_PLAIN, 0)               \
    X(MobileIdentity, __naspdu_ie_l8<16>, NAS_F_LV, NAS_K_PLAIN, 0)                  \
    X(UENetworkCapability, __naspdu_ie_l8<13>, NAS_F_LV, NAS_K_PLAIN, 0)             \
    X(ESMMessageContainer, __naspdu_ie_l16<2048>, NAS_F_LVE, NAS_K_PLAIN, 0)         \
    X(PTMSISignature, __naspdu_ie_l8<3>, NAS_F_V, NAS_K_PLAIN, 3)                    \
    X(TrackingAreaIdentity, __naspdu_ie_l8<5>, NAS_F_V, NAS_K_PLAIN, 5)              \
    X(DRXParameter, __naspdu_ie_l8<2>, NAS_F_V, NAS_K_PLAIN, 2)                      \
    X(MSNetworkCapability, __naspdu_ie_l8<8>, NAS_F_LV, NAS_K_PLAIN, 0)              \
    X(LocationAreaIdentification, __naspdu_ie_l8<5>, NAS_F_V, NAS_K_PLAIN, 5)        \
    X(TMSIStatus, __naspdu_ie_half, NAS_F_HALF, NAS_K_PLAIN, 0)                      \
    X(MobileStationClassmark3, __naspdu_ie_l8<32>, NAS_F_LV, NAS_K_PLAIN, 0)         \
    X(AdditionalUpdateType, __naspdu_ie_half, NAS_F_HALF, NAS_K_PLAIN, 0)            \
    X(VoiceDomainPreference, __naspdu_ie_byte, NAS_F_LV, NAS_K_PLAIN, 1)             \
    X(DeviceProperties, __naspdu_ie_half, NAS_F_HALF, NAS_K_PLAIN, 0)                \
    X(GUTIType, __naspdu_ie_half, NAS_F_HALF, NAS_K_PLAIN, 0)                        \
    X(MSNetworkFeatureSupport, __naspdu_ie_half, NAS_F_HALF, NAS_K_PLAIN, 0)         \
    X(NetworkResourceIdentifierContainer, __naspdu_ie_l8<2>, NAS_F_LV, NAS_K_PLAIN, 2) \
    X(UEAdditionalSecurityCapability, __naspdu_ie_l8<4>, NAS_F_LV, NAS_K_PLAIN, 4)   \
    X(AdditionalInformationRequested, __naspdu_ie_byte, NAS_F_V, NAS_K_PLAIN, 1)     \
    X(N1UENetworkCapability, __naspdu_ie_l8<13>, NAS_F_LV, NAS_K_PLAIN, 0)           \
    X(UERadioCapabilityIDAvailability, __naspdu_ie_byte, NAS_F_LV, NAS_K_PLAIN, 1)   \
    X(WUSAssistanceInformation, __naspdu_ie_l8<32>, NAS_F_LV, NAS_K_PLAIN, 0)        \
    X(NBS1DRXParameter, __naspdu_ie_byte, NAS_F_LV, NAS_K_PLAIN, 1)                  \
    X(EMMCause, __naspdu_ie_byte, NAS_F_V, NAS_K_PLAIN, 1)                           \
    X(ExtendedEMMCause, __naspdu_ie_half, NAS_F_HALF, NAS_K_PLAIN, 0)                \
    X(TrackingAreaIdentityList, __naspdu_ie_l8<96>, NAS_F_LV, NAS_K_PLAIN, 0)        \
    X(PLMNList, __naspdu_ie_l8<45>, NAS_F_LV, NAS_K_PLAIN, 0)                        \
    X(EmergencyNumberList, __naspdu_ie_l8<48>, NAS_F_LV, NAS_K_PLAIN, 0)             \
    X(EPSNetworkFeatureSupport, __naspdu_ie_l8<2>, NAS_F_LV, NAS_K_PLAIN, 0)         \
    X(AdditionalUpdateResult, __naspdu_ie_half, NAS_F_HALF, NAS_K_PLAIN, 0)          \
    X(DCNID, __naspdu_ie_l8<2>, NAS_F_LV, NAS_K_PLAIN, 2)                            \
    X(SMSServicesStatus, __naspdu_ie_half, NAS_F_HALF, NAS_K_PLAIN, 0)               \
    X(Non3GPPNWProvidedPolicies, __naspdu_ie_half, NAS_F_HALF, NAS_K_PLAIN, 0)       \
    X(NetworkPolicy, __naspdu_ie_half, NAS_F_HALF, NAS_K_PLAIN, 0)                   \
    X(ExtendedEmergencyNumberList, __naspdu_ie_l16<1024>, NAS_F_LVE, NAS_K_PLAIN, 0) \
    X(CipheringKeyData, __naspdu_ie_l16<1024>, NAS_F_LVE, NAS_K_PLAIN, 0)            \
    X(UERadioCapabilityIDDeletionIndication, __naspdu_ie_half, NAS_F_HALF, NAS_K_PLAIN, 0) \
    X(HeaderCompressionConfigurationStatus, __naspdu_ie_l8<2>, NAS_F_LV, NAS_K_PLAIN, 2) \
    X(CipheringKeySequenceNumber, __naspdu_ie_half, NAS_F_HALF, NAS_K_PLAIN, 0)      \
    X(Nonce, __naspdu_ie_l8<4>, NAS_F_V, NAS_K_PLAIN, 4)                             \
    X(UERadioCapabilityInformationUpdateNeeded, __naspdu_ie_half, NAS_F_HALF, NAS_K_PLAIN, 0) \
    X(CSFBResponse, __naspdu_ie_half, NAS_F_HALF, NAS_K_PLAIN, 0)                    \
    X(EMMNASMessageContainer, __naspdu_ie_l8<251>, NAS_F_LV, NAS_K_PLAIN, 0)         \
    X(PagingIdentity, __naspdu_ie_byte, NAS_F_V, NAS_K_PLAIN, 1)                     \
    X(CLI, __naspdu_ie_l8<12>, NAS_F_LV, NAS_K_PLAIN, 0)                             \
    X(SSCode, __naspdu_ie_byte, NAS_F_V, NAS_K_PLAIN, 1)                             \
    X(LCSIndicator, __naspdu_ie_byte, NAS_F_V, NAS_K_PLAIN, 1)                       \
    X(LCSClientIdentity, __naspdu_ie_l8<255>, NAS_F_LV, NAS_K_PLAIN, 0)              \
    X(GenericMessageContainerType, __naspdu_ie_byte, NAS_F_V, NAS_K_PLAIN, 1)        \
    X(GenericMessageContainer, __naspdu_ie_l16<1024>, NAS_F_LVE, NAS_K_PLAIN, 0)     \
    X(EPSUESecurityCapability, __naspdu_ie_l8<5>, NAS_F_LV, NAS_K_PLAIN, 0)          \
    X(HashMME, __naspdu_ie_l8<8>, NAS_F_LV, NAS_K_PLAIN, 8)                          \
    X(ReplayedNASMessageContainer, __naspdu_ie_l16<1024>, NAS_F_LVE, NAS_K_PLAIN, 0) \
    /* TS 24.301, ESM */                                                             \
    X(EPSQoS, __naspdu_ie_l8<13>, NAS_F_LV, NAS_K_PLAIN, 0)                          \
    X(AccessPointName, __naspdu_ie_l8<100>, NAS_F_LV, NAS_K_PLAIN, 0)                \
    X(PDNAddress, __naspdu_ie_l8<13>, NAS_F_LV, NAS_K_PLAIN, 0)                      \
    X(TrafficFlowTemplate, __naspdu_ie_l8<255>, NAS_F_LV, NAS_K_PLAIN, 0)            \
    X(TransactionIdentifier, __naspdu_ie_l8<2>, NAS_F_LV, NAS_K_PLAIN, 0)            \
    X(QualityOfService, __naspdu_ie_l8<20>, NAS_F_LV, NAS_K_PLAIN, 0)                \
    X(LLCServiceAccessPointIdentifier, __naspdu_ie_byte, NAS_F_V, NAS_K_PLAIN, 1)    \
    X(RadioPriority, __naspdu_ie_half, NAS_F_HALF, NAS_K_PLAIN, 0)                   \
    X(PacketFlowIdentifier, __naspdu_ie_byte, NAS_F_LV, NAS_K_PLAIN, 1)              \
    X(APNAggregateMaximumBitRate, __naspdu_ie_l8<6>, NAS_F_LV, NAS_K_PLAIN, 0)       \
    X(ESMCause, __naspdu_ie_byte, NAS_F_V, NAS_K_PLAIN, 1)                           \
    X(ProtocolConfigurationOptions, __naspdu_ie_l8<251>, NAS_F_LV, NAS_K_PLAIN, 0)   \
    X(ConnectivityType, __naspdu_ie_half, NAS_F_HALF, NAS_K_PLAIN, 0)                \
    X(WLANOffloadAcceptability, __naspdu_ie_half, NAS_F_HALF, NAS_K_PLAIN, 0)        \
    X(NBIFOMContainer, __naspdu_ie_l8<255>, NAS_F_LV, NAS_K_PLAIN, 0)                \
    X(HeaderCompressionConfiguration, __naspdu_ie_l8<255>, NAS_F_LV, NAS_K_PLAIN, 0) \
    X(ControlPlaneOnlyIndication, __naspdu_ie_half, NAS_F_HALF, NAS_K_PLAIN, 0)      \
    X(ServingPLMNRateControl, __naspdu_ie_l8<2>, NAS_F_LV, NAS_K_PLAIN, 2)           \
    X(ExtendedAPNAggregateMaximumBitRate, __naspdu_ie_l8<6>, NAS_F_LV, NAS_K_PLAIN, 6) \
    X(ExtendedEPSQoS, __naspdu_ie_l8<10>, NAS_F_LV, NAS_K_PLAIN, 10)                 \
    X(ReAttemptIndicator, __naspdu_ie_byte, NAS_F_LV, NAS_K_PLAIN, 1)                \
    X(ESMInformationTransferFlag, __naspdu_ie_half, NAS_F_HALF, NAS_K_PLAIN, 0)      \
    X(UserDataContainer, __naspdu_ie_l16<1024>, NAS_F_LVE, NAS_K_PLAIN, 0)           \
    X(ReleaseAssistanceIndication, __naspdu_ie_half, NAS_F_HALF, NAS_K_PLAIN, 0)     \
    X(RemoteUEContextList, __naspdu_ie_l16<1024>, NAS_F_LVE, NAS_K_PLAIN, 0)         \
    X(PKMFAddress, __naspdu_ie_l8<17>, NAS_F_LV, NAS_K_PLAIN, 0)

// NASPdu_<IE> names the record of each IE type (NASPdu_NSSAI, NASPdu_FGSMobileIdentity, ...).
#define NAS_IE_ALIAS(Name, CType, fmt, kind, n) typedef CType NASPdu_##Name;
NAS_IE_TYPES(NAS_IE_ALIAS)
#undef NAS_IE_ALIAS
