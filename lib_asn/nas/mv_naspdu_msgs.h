// The NAS messages: one list per message of its elements in the standard's order. Each list makes both
// the message record (one member per element) and the table the encoder and decoder walk, so the two
// cannot disagree.
//
// X(kind, IE type, member, IEI). Half-octet IEIs are given as their nibble (0xC for "C-").
//   M  mandatory: written and read in order, without identifier
//   U  mandatory in the form the UE sends; the network's form of the message lacks it
//   O  optional: written when set, read by the decoder
//   E  optional: written when set; the decoder does not take it (status 5)
//   R  optional: not written; read by the decoder
//   K  optional: written when set; the decoder steps over it
//   S  no member: the decoder steps over the IE
#pragma once

#include "mv_naspdu_ies.h"

// ---------------------------------------------------------------- 5GMM (TS 24.501 8.2)

#define NAS_FGMM_RegistrationRequest(X)                                  \
    X(M, RAW8, b1, 0) /* 5GS registration type, ngKSI */                 \
    X(M, FGSMobileIdentity, mFGSMobileIdentity, 0)                       \
    X(O, NASKeySetIdentifier, mNonCurrentNativeNASKeySetIdentifier, 0xC) \
    X(O, FGMMCapability, mFGMMCapability, 0x10)                          \
    X(E, FGUESecurityCapability, mUESecurityCapability, 0x2E)            \
    X(O, NSSAI, mRequestedNSSAI, 0x2F)                                   \
    X(E, FGSTrackingAreaIdentity, mLastVisitedRegisteredTAI, 0x52)       \
    X(E, S1UENetworkCapability, mS1UENetworkCapability, 0x17)            \
    X(E, UplinkDataStatus, mUplinkDataStatus, 0x40)                      \
    X(E, PDUSessionStatus, mPDUSessionStatus, 0x50)                      \
    X(K, MICOIndication, mMICOIndication, 0xB)                           \
    X(E, UEStatus, mUEStatus, 0x2B)                                      \
    X(E, FGSMobileIdentity, mAdditionalGUTI, 0x77)                       \
    X(E, AllowedPDUSessionStatus, mAllowedPDUSessionStatus, 0x25)        \
    X(E, UEUsageSetting, mUEUsageSetting, 0x18)                          \
    X(E, FGSDRXParameters, mRequestedDRXParameters, 0x51)                \
    X(O, EPSNASMessageContainer, mEPSNASMessageContainer, 0x70)          \
    X(E, LADNIndication, mLADNIndication, 0x74)                          \
    X(K, PayloadContainerType, mPayloadContainerType, 0x8)               \
    X(E, PayloadContainer, mPayloadContainer, 0x7B)                      \
    X(K, NetworkSlicingIndication, mNetworkSlicingIndication, 0x9)       \
    X(O, FGSUpdateType, mFGSUpdateType, 0x53)                            \
    X(E, MobileStationClassmark2, mMobileStationClassmark2, 0x41)        \
    X(E, SupportedCodecList, mSupportedCodecs, 0x42)                     \
    X(E, NASMessageContainer, mNASMessageContainer, 0x71)                \
    X(E, EPSBearerContextStatus, mEPSBearerContextStatus, 0x60)          \
    X(E, ExtendedDRXParameters, mRequestedExtendedDRXParameters, 0x6E)   \
    X(E, GPRSTimer3, mT3324Value, 0x6A)                                  \
    X(E, UERadioCapabilityID, mUERadioCapabilityID, 0x67)                \
    X(E, N5GCIndication, mN5GCIndication, 0xA)

// Only the GUTI and the two timers are looked at; an IE the UE does not read ends the walk.
#define NAS_FGMM_RegistrationAccept(X)                         \
    X(M, FGSRegistrationResult, mFGSRegistrationResult, 0)     \
    X(O, FGSMobileIdentity, mFGGUTI, 0x77)                     \
    X(S, MICOIndication, skip, 0xB)                            \
    X(S, NetworkSlicingIndication, skip, 0x9)                  \
    X(O, GPRSTimer3, mT3512Value, 0x5E)                        \
    X(O, GPRSTimer2, mT3502Value, 0x16)                        \
    X(S, NetworkSlicingIndication, skip, 0xA) /* NSSAI inclusion mode */ \
    X(S, NetworkSlicingIndication, skip, 0xD) /* non-3GPP NW policies */

#define NAS_FGMM_RegistrationComplete(X)

#define NAS_FGMM_RegistrationReject(X)        \
    X(M, FGMMCause, mFGMMCause, 0)            \
    X(E, GPRSTimer2, mT3346Value, 0x5F)       \
    X(E, GPRSTimer2, mT3502Value, 0x16)       \
    X(E, EAPMessage, mEAPMessage, 0x78)

#define NAS_FGMM_DeregistrationRequestUEI(X) \
    X(M, RAW8, b1, 0) /* de-registration type, ngKSI */ \
    X(M, FGSMobileIdentity, mFGSMobileIdentity, 0)

#define NAS_FGMM_DeregistrationAcceptUEI(X)

#define NAS_FGMM_DeregistrationRequestUET(X) X(M, RAW8, b1, 0) /* de-registration type, spare */

#define NAS_FGMM_DeregistrationAcceptUET(X)

#define NAS_FGMM_ServiceRequest(X)  \
    X(M, RAW8, b1, 0) /* service type (high nibble), ngKSI */ \
    X(M, FGSMobileIdentity, mFGSTMSI, 0)

#define NAS_FGMM_ServiceReject(X) X(M, FGMMCause, mFGMMCause, 0)

#define NAS_FGMM_ServiceAccept(X)

#define NAS_FGMM_ConfigurationUpdateCommand(X)                           \
    X(O, FGSMobileIdentity, mFGGUTI, 0x77)                               \
    X(O, NetworkName, mFullNameForNetwork, 0x43)                         \
    X(O, NetworkName, mShortNameForNetwork, 0x45)                        \
    X(O, TimeZoneAndTime, mUniversalTimeAndLocalTimeZone, 0x47)          \
    X(O, DaylightSavingTime, mNetworkDaylightSavingTime, 0x49)

#define NAS_FGMM_ConfigurationUpdateComplete(X)

#define NAS_FGMM_AuthenticationRequest(X) \
    X(M, RAW8, b1, 0) /* ngKSI, spare */  \
    X(M, ABBA, mABBA, 0)                  \
    X(O, RAND, mRAND, 0x21)               \
    X(O, AUTN, mAUTN, 0x20)               \
    X(O, EAPMessage, mEAPMessage, 0x78)

#define NAS_FGMM_AuthenticationResponse(X)                                     \
    X(E, AuthenticationResponseParameter, mAuthenticationResponseParameter, 0x2D) \
    X(E, EAPMessage, mEAPMessage, 0x78)

#define NAS_FGMM_AuthenticationReject(X) X(E, EAPMessage, mEAPMessage, 0x78)

#define NAS_FGMM_AuthenticationFailure(X) \
    X(M, FGMMCause, mFGMMCause, 0)        \
    X(E, AuthenticationFailureParameter, mAuthenticationFailureParameter, 0x30)

#define NAS_FGMM_AuthenticationResult(X)  \
    X(M, RAW8, b1, 0) /* ngKSI, spare */  \
    X(M, EAPMessage, mEAPMessage, 0)      \
    X(E, ABBA, mABBA, 0x38)

#define NAS_FGMM_IdentityRequest(X) X(M, RAW8, b1, 0) /* identity type, spare */

#define NAS_FGMM_IdentityResponse(X) X(M, FGSMobileIdentity, mFGSMobileIdentity, 0)

// Besides the two IEs read, the IEs the standard gives this message are stepped over whole; anything
// else is skipped one octet at a time without an error.
#define NAS_FGMM_SecurityModeCommand(X)                                        \
    X(M, NASSecurityAlgorithms, mSelectedNASSecurityAlgorithms, 0)             \
    X(M, RAW8, mNgKSI, 0) /* ngKSI, spare */                                   \
    X(M, FGUESecurityCapability, mReplayedUESecurityCapabilities, 0)           \
    X(O, IMEISVRequest, mIMEISVRequest, 0xE)                                   \
    X(S, NASSecurityAlgorithms, skip, 0x57) /* selected EPS algorithms */      \
    X(O, Additional5GSecurityInformation, mAdditional5GSecurityInformation, 0x36) \
    X(S, EAPMessage, skip, 0x78)                                               \
    X(S, ABBA, skip, 0x38)                                                     \
    X(S, S1UENetworkCapability, skip, 0x19) /* replayed S1 UE security capabilities */

#define NAS_FGMM_SecurityModeComplete(X)              \
    X(O, FGSMobileIdentity, mIMEISV, 0x77)            \
    X(O, NASMessageContainer, mNASMessageContainer, 0x71)

#define NAS_FGMM_SecurityModeReject(X) X(M, FGMMCause, mFGMMCause, 0)

#define NAS_FGMM_5GMMStatus(X) X(M, FGMMCause, mFGMMCause, 0)

#define NAS_FGMM_Notification(X) X(M, RAW8, b1, 0) /* access type, spare */

#define NAS_FGMM_NotificationResponse(X)

#define NAS_FGMM_ULNASTransport(X)                         \
    X(M, RAW8, b1, 0) /* payload container type, spare */  \
    X(M, PayloadContainer, mPayloadContainer, 0)           \
    X(E, PDUSessionIdentity2, mPDUSessionID, 0x12)         \
    X(E, RequestType, mRequestType, 0x8)                   \
    X(E, SNSSAI, mSNSSAI, 0x22)                            \
    X(E, DNN, mDNN, 0x25)

// An IE it does not take is stepped over and the walk goes on.
#define NAS_FGMM_DLNASTransport(X)                         \
    X(M, RAW8, b1, 0) /* payload container type, spare */  \
    X(M, PayloadContainer, mPayloadContainer, 0)           \
    X(R, PDUSessionIdentity2, mPDUSessionID, 0x12)         \
    X(R, FGMMCause, mFGMMCause, 0x58)                      \
    X(R, GPRSTimer3, mBackOffTimerValue, 0x37)             \
    X(S, RequestType, skip, 0x8)

// name, message type
#define NAS_FGMM_MESSAGES(X)                 \
    X(RegistrationRequest, 65)               \
    X(RegistrationAccept, 66)                \
    X(RegistrationComplete, 67)              \
    X(RegistrationReject, 68)                \
    X(DeregistrationRequestUEI, 69)          \
    X(DeregistrationAcceptUEI, 70)           \
    X(DeregistrationRequestUET, 71)          \
    X(DeregistrationAcceptUET, 72)           \
    X(ServiceRequest, 76)                    \
    X(ServiceReject, 77)                     \
    X(ServiceAccept, 78)                     \
    X(ConfigurationUpdateCommand, 84)        \
    X(ConfigurationUpdateComplete, 85)       \
    X(AuthenticationRequest, 86)             \
    X(AuthenticationResponse, 87)            \
    X(AuthenticationReject, 88)              \
    X(AuthenticationFailure, 89)             \
    X(AuthenticationResult, 90)              \
    X(IdentityRequest, 91)                   \
    X(IdentityResponse, 92)                  \
    X(SecurityModeCommand, 93)               \
    X(SecurityModeComplete, 94)              \
    X(SecurityModeReject, 95)                \
    X(5GMMStatus, 100)                       \
    X(Notification, 101)                     \
    X(NotificationResponse, 102)             \
    X(ULNASTransport, 103)                   \
    X(DLNASTransport, 104)

// ---------------------------------------------------------------- 5GSM (TS 24.501 8.3)

#define NAS_FGSM_PDUSessionEstablishmentRequest(X)                                         \
    X(M, IntegrityProtectionMaximumDataRate, mIntegrityProtectionMaximumDataRate, 0)       \
    X(E, PDUSessionType, mPDUSessionType, 0x9)                                             \
    X(E, SSCMode, mSSCMode, 0xA)                                                           \
    X(O, FGSMCapability, mFGSMCapability, 0x28)                                            \
    X(E, MaximumNumberOfSupportedPacketFilters, mMaximumNumberOfSupportedPacketFilters, 0x55) \
    X(E, AlwaysOnPDUSessionRequested, mAlwaysOnPDUSessionRequested, 0xB)                   \
    X(E, ExtendedProtocolConfigurationOptions, mExtendedProtocolConfigurationOptions, 0x7B)

#define NAS_FGSM_PDUSessionEstablishmentAccept(X)                                          \
    X(M, RAW8, b1, 0) /* selected PDU session type (low), SSC mode (high) */               \
    X(M, QoSRules, mAuthorizedQoSRules, 0)                                                 \
    X(M, SessionAMBR, mSessionAMBR, 0)                                                     \
    X(O, FGSMCause, mFGSMCause, 0x59)                                                      \
    X(O, PDUAddress, mPDUAddress, 0x29)                                                    \
    X(O, GPRSTimer, mRQTimerValue, 0x56)                                                   \
    X(O, SNSSAI, mSNSSAI, 0x22)                                                            \
    X(S, AlwaysOnPDUSessionIndication, skip, 0x8)                                          \
    X(O, MappedEPSBearerContexts, mMappedEPSBearerContexts, 0x75)                          \
    X(O, EAPMessage, mEAPMessage, 0x78)                                                    \
    X(R, QoSFlowDescriptions, mQFDA, 0x79)                                                 \
    X(O, ExtendedProtocolConfigurationOptions, mExtendedProtocolConfigurationOptions, 0x7B) \
    X(O, DNN, mDNN, 0x25)

#define NAS_FGSM_PDUSessionEstablishmentReject(X)  \
    X(M, FGSMCause, mFGSMCause, 0)                 \
    X(E, GPRSTimer3, mBackOffTimerValue, 0x37)     \
    X(E, AllowedSSCMode, mAllowedSSCMode, 0xF)     \
    X(E, EAPMessage, mEAPMessage, 0x78)            \
    X(E, ExtendedProtocolConfigurationOptions, mExtendedProtocolConfigurationOptions, 0x7B)

#define NAS_FGSM_PDUSessionAuthenticationCommand(X) \
    X(M, EAPMessage, mEAPMessage, 0)                \
    X(E, ExtendedProtocolConfigurationOptions, mExtendedProtocolConfigurationOptions, 0x7B)

#define NAS_FGSM_PDUSessionAuthenticationComplete(X) NAS_FGSM_PDUSessionAuthenticationCommand(X)

#define NAS_FGSM_PDUSessionAuthenticationResult(X) \
    X(O, EAPMessage, mEAPMessage, 0x78)            \
    X(O, ExtendedProtocolConfigurationOptions, mExtendedProtocolConfigurationOptions, 0x7B)

#define NAS_FGSM_PDUSessionModificationRequest(X)                                            \
    X(E, FGSMCapability, mFGSMCapability, 0x28)                                              \
    X(E, FGSMCause, mFGSMCause, 0x59)                                                        \
    X(E, MaximumNumberOfSupportedPacketFilters, mMaximumNumberOfSupportedPacketFilters, 0x55) \
    X(E, AlwaysOnPDUSessionRequested, mAlwaysOnPDUSessionRequested, 0xB)                     \
    X(E, IntegrityProtectionMaximumDataRate, mIntegrityProtectionMaximumDataRate, 0x13)      \
    X(E, QoSRules, mRequestedQoSRules, 0x7A)                                                 \
    X(E, QoSFlowDescriptions, mRequestedQoSFlowDescriptions, 0x79)                           \
    X(E, ExtendedProtocolConfigurationOptions, mExtendedProtocolConfigurationOptions, 0x7B)

#define NAS_FGSM_PDUSessionModificationReject(X)                                 \
    X(M, FGSMCause, mFGSMCause, 0)                                               \
    X(E, GPRSTimer3, mBackOffTimerValue, 0x37)                                   \
    X(E, FGSMCongestionReattemptIndicator, mFGSMCongestionReattemptIndicator, 0x61) \
    X(E, ExtendedProtocolConfigurationOptions, mExtendedProtocolConfigurationOptions, 0x7B)

#define NAS_FGSM_PDUSessionModificationCommand(X)                     \
    X(E, FGSMCause, mFGSMCause, 0x59)                                 \
    X(E, SessionAMBR, mSessionAMBR, 0x2A)                             \
    X(E, GPRSTimer, mRQTimerValue, 0x56)                              \
    X(E, QoSRules, mAuthorizedQoSRules, 0x7A)                         \
    X(E, MappedEPSBearerContexts, mMappedEPSBearerContexts, 0x75)     \
    X(E, ExtendedProtocolConfigurationOptions, mExtendedProtocolConfigurationOptions, 0x7B)

#define NAS_FGSM_PDUSessionModificationComplete(X) \
    X(E, ExtendedProtocolConfigurationOptions, mExtendedProtocolConfigurationOptions, 0x7B)

#define NAS_FGSM_PDUSessionModificationCommandReject(X) \
    X(M, FGSMCause, mFGSMCause, 0)                      \
    X(E, ExtendedProtocolConfigurationOptions, mExtendedProtocolConfigurationOptions, 0x7B)

#define NAS_FGSM_PDUSessionReleaseRequest(X) \
    X(E, FGSMCause, mFGSMCause, 0x59)        \
    X(E, ExtendedProtocolConfigurationOptions, mExtendedProtocolConfigurationOptions, 0x7B)

#define NAS_FGSM_PDUSessionReleaseReject(X) NAS_FGSM_PDUSessionModificationCommandReject(X)

#define NAS_FGSM_PDUSessionReleaseCommand(X)   \
    X(M, FGSMCause, mFGSMCause, 0)             \
    X(E, GPRSTimer3, mBackOffTimerValue, 0x37) \
    X(E, EAPMessage, mEAPMessage, 0x78)        \
    X(E, ExtendedProtocolConfigurationOptions, mExtendedProtocolConfigurationOptions, 0x7B)

#define NAS_FGSM_PDUSessionReleaseComplete(X) NAS_FGSM_PDUSessionReleaseRequest(X)

#define NAS_FGSM_Status(X) X(M, FGSMCause, mFGSMCause, 0)

#define NAS_FGSM_MESSAGES(X)                    \
    X(PDUSessionEstablishmentRequest, 193)      \
    X(PDUSessionEstablishmentAccept, 194)       \
    X(PDUSessionEstablishmentReject, 195)       \
    X(PDUSessionAuthenticationCommand, 197)     \
    X(PDUSessionAuthenticationComplete, 198)    \
    X(PDUSessionAuthenticationResult, 199)      \
    X(PDUSessionModificationRequest, 201)       \
    X(PDUSessionModificationReject, 202)        \
    X(PDUSessionModificationCommand, 203)       \
    X(PDUSessionModificationComplete, 204)      \
    X(PDUSessionModificationCommandReject, 205) \
    X(PDUSessionReleaseRequest, 209)            \
    X(PDUSessionReleaseReject, 210)             \
    X(PDUSessionReleaseCommand, 211)            \
    X(PDUSessionReleaseComplete, 212)           \
    X(Status, 214)

// ---------------------------------------------------------------- EMM (TS 24.301 8.2)

// Optional IEs shared by the attach and tracking area update requests, in their order there.
#define NAS_EMM_REQUEST_TAIL(X)                                                   \
    X(O, NetworkResourceIdentifierContainer, mTMSIBasedNRIContainer, 0x10)        \
    X(O, GPRSTimer2, mT3324Value, 0x6A)                                           \
    X(O, GPRSTimer3, mT3412ExtendedValue, 0x5E)                                   \
    X(O, ExtendedDRXParameters, mExtendedDRXParameters, 0x6E)                     \
    X(O, UEAdditionalSecurityCapability, mUEAdditionalSecurityCapability, 0x6F)   \
    X(O, UEStatus, mUEStatus, 0x6D)                                               \
    X(O, AdditionalInformationRequested, mAdditionalInformationRequested, 0x17)   \
    X(O, N1UENetworkCapability, mN1UENetworkCapability, 0x32)                     \
    X(O, UERadioCapabilityIDAvailability, mUERadioCapabilityIDAvailability, 0x34) \
    X(O, WUSAssistanceInformation, mRequestedWUSAssistanceInformation, 0x35)      \
    X(O, NBS1DRXParameter, mDRXParameterInNBS1Mode, 0x36)

#define NAS_EMM_AttachRequest(X)                                                 \
    X(M, RAW8, b1, 0) /* EPS attach type (low), NAS key set identifier (high) */ \
    X(M, EPSMobileIdentity, mEPSMobileIdentity, 0)                               \
    X(M, UENetworkCapability, mUENetworkCapability, 0)                           \
    X(M, ESMMessageContainer, mESMMessageContainer, 0)                           \
    X(O, PTMSISignature, mOldPTMSISignature, 0x19)                               \
    X(O, EPSMobileIdentity, mAdditionalGUTI, 0x50)                               \
    X(O, TrackingAreaIdentity, mLastVisitedRegisteredTAI, 0x52)                  \
    X(O, DRXParameter, mDRXParameter, 0x5C)                                      \
    X(O, MSNetworkCapability, mMSNetworkCapability, 0x31)                        \
    X(O, LocationAreaIdentification, mOldLocationAreaIdentification, 0x13)       \
    X(O, TMSIStatus, mTMSIStatus, 0x9)                                           \
    X(O, MobileStationClassmark2, mMobileStationClassmark2, 0x11)                \
    X(O, MobileStationClassmark3, mMobileStationClassmark3, 0x20)                \
    X(O, SupportedCodecList, mSupportedCodecs, 0x40)                             \
    X(O, AdditionalUpdateType, mAdditionalUpdateType, 0xF)                       \
    X(O, VoiceDomainPreference, mVoiceDomainPreference, 0x5D)                    \
    X(O, DeviceProperties, mDeviceProperties, 0xD)                               \
    X(O, GUTIType, mOldGUTIType, 0xE)                                            \
    X(O, MSNetworkFeatureSupport, mMSNetworkFeatureSupport, 0xC)                 \
    NAS_EMM_REQUEST_TAIL(X)

// Optional IEs shared by the attach and tracking area update accepts, from the EMM cause on.
#define NAS_EMM_ACCEPT_TAIL(X)                                                             \
    X(O, EMMCause, mEMMCause, 0x53)                                                        \
    X(O, GPRSTimer, mT3402Value, 0x17)                                                     \
    X(O, GPRSTimer, mT3423Value, 0x59)                                                     \
    X(O, PLMNList, mEquivalentPLMNs, 0x4A)                                                 \
    X(O, EmergencyNumberList, mEmergencyNumberList, 0x34)                                  \
    X(O, EPSNetworkFeatureSupport, mEPSNetworkFeatureSupport, 0x64)                        \
    X(O, AdditionalUpdateResult, mAdditionalUpdateResult, 0xF)                             \
    X(O, GPRSTimer3, mT3412ExtendedValue, 0x5E)                                            \
    X(O, GPRSTimer2, mT3324Value, 0x6A)                                                    \
    X(O, ExtendedDRXParameters, mExtendedDRXParameters, 0x6E)

#define NAS_EMM_ACCEPT_TAIL2(X)                                                            \
    X(O, DCNID, mDCNID, 0x65)                                                              \
    X(O, SMSServicesStatus, mSMSServicesStatus, 0xE)                                       \
    X(O, Non3GPPNWProvidedPolicies, mNon3GPPNWProvidedPolicies, 0xD)                       \
    X(O, GPRSTimer2, mT3448Value, 0x6B)                                                    \
    X(O, NetworkPolicy, mNetworkPolicy, 0xC)                                               \
    X(O, GPRSTimer3, mT3447Value, 0x6C)                                                    \
    X(O, ExtendedEmergencyNumberList, mExtendedEmergencyNumberList, 0x7A)                  \
    X(O, CipheringKeyData, mCipheringKeyData, 0x7C)                                        \
    X(O, UERadioCapabilityID, mUERadioCapabilityID, 0x66)                                  \
    X(O, UERadioCapabilityIDDeletionIndication, mUERadioCapabilityIDDeletionIndication, 0xB) \
    X(O, WUSAssistanceInformation, mNegotiatedWUSAssistanceInformation, 0x35)              \
    X(O, NBS1DRXParameter, mNegotiatedDRXParameterInNBS1Mode, 0x36)

#define NAS_EMM_AttachAccept(X)                                            \
    X(M, RAW8, b1, 0) /* EPS attach result, spare */                       \
    X(M, GPRSTimer, mT3412Value, 0)                                        \
    X(M, TrackingAreaIdentityList, mTAIList, 0)                            \
    X(M, ESMMessageContainer, mESMMessageContainer, 0)                     \
    X(O, EPSMobileIdentity, mGUTI, 0x50)                                   \
    X(O, LocationAreaIdentification, mLocationAreaIdentification, 0x13)    \
    X(O, MobileIdentity, mMSIdentity, 0x23)                                \
    NAS_EMM_ACCEPT_TAIL(X)                                                 \
    NAS_EMM_ACCEPT_TAIL2(X)

#define NAS_EMM_AttachComplete(X) X(M, ESMMessageContainer, mESMMessageContainer, 0)

#define NAS_EMM_AttachReject(X)                                 \
    X(M, EMMCause, mEMMCause, 0)                                \
    X(O, ESMMessageContainer, mESMMessageContainer, 0x78)       \
    X(O, GPRSTimer2, mT3346Value, 0x5F)                         \
    X(O, GPRSTimer2, mT3402Value, 0x16)                         \
    X(O, ExtendedEMMCause, mExtendedEMMCause, 0xA)

// The UE's form: detach type and key set identifier, identity. The network's: detach type, cause.
#define NAS_EMM_DetachRequest(X)                       \
    X(M, RAW8, b1, 0)                                  \
    X(U, EPSMobileIdentity, mEPSMobileIdentity, 0)     \
    X(O, EMMCause, mEMMCause, 0x53)

#define NAS_EMM_DetachAccept(X)

#define NAS_EMM_TrackingAreaUpdateRequest(X)                                             \
    X(M, RAW8, b1, 0) /* EPS update type (low), NAS key set identifier (high) */         \
    X(M, EPSMobileIdentity, mOldGUTI, 0)                                                 \
    X(O, NASKeySetIdentifier, mNonCurrentNativeNASKeySetIdentifier, 0xB)                 \
    X(O, CipheringKeySequenceNumber, mGPRSCipheringKeySequenceNumber, 0x8)               \
    X(O, PTMSISignature, mOldPTMSISignature, 0x19)                                       \
    X(O, EPSMobileIdentity, mAdditionalGUTI, 0x50)                                       \
    X(O, Nonce, mNonceUE, 0x55)                                                          \
    X(O, UENetworkCapability, mUENetworkCapability, 0x58)                                \
    X(O, TrackingAreaIdentity, mLastVisitedRegisteredTAI, 0x52)                          \
    X(O, DRXParameter, mDRXParameter, 0x5C)                                              \
    X(O, UERadioCapabilityInformationUpdateNeeded, mUERadioCapabilityInformationUpdateNeeded, 0xA) \
    X(O, EPSBearerContextStatus, mEPSBearerContextStatus, 0x57)                          \
    X(O, MSNetworkCapability, mMSNetworkCapability, 0x31)                                \
    X(O, LocationAreaIdentification, mOldLocationAreaIdentification, 0x13)               \
    X(O, TMSIStatus, mTMSIStatus, 0x9)                                                   \
    X(O, MobileStationClassmark2, mMobileStationClassmark2, 0x11)                        \
    X(O, MobileStationClassmark3, mMobileStationClassmark3, 0x20)                        \
    X(O, SupportedCodecList, mSupportedCodecs, 0x40)                                     \
    X(O, AdditionalUpdateType, mAdditionalUpdateType, 0xF)                               \
    X(O, VoiceDomainPreference, mVoiceDomainPreference, 0x5D)                            \
    X(O, GUTIType, mOldGUTIType, 0xE)                                                    \
    X(O, DeviceProperties, mDeviceProperties, 0xD)                                       \
    X(O, MSNetworkFeatureSupport, mMSNetworkFeatureSupport, 0xC)                         \
    NAS_EMM_REQUEST_TAIL(X)

#define NAS_EMM_TrackingAreaUpdateAccept(X)                                \
    X(M, RAW8, b1, 0) /* EPS update result, spare */                       \
    X(O, GPRSTimer, mT3412Value, 0x5A)                                     \
    X(O, EPSMobileIdentity, mGUTI, 0x50)                                   \
    X(O, TrackingAreaIdentityList, mTAIList, 0x54)                         \
    X(O, EPSBearerContextStatus, mEPSBearerContextStatus, 0x57)            \
    X(O, LocationAreaIdentification, mLocationAreaIdentification, 0x13)    \
    X(O, MobileIdentity, mMSIdentity, 0x23)                                \
    NAS_EMM_ACCEPT_TAIL(X)                                                 \
    X(O, HeaderCompressionConfigurationStatus, mHeaderCompressionConfigurationStatus, 0x68) \
    NAS_EMM_ACCEPT_TAIL2(X)

#define NAS_EMM_TrackingAreaUpdateComplete(X)

#define NAS_EMM_TrackingAreaUpdateReject(X) \
    X(M, EMMCause, mEMMCause, 0)            \
    X(O, GPRSTimer2, mT3346Value, 0x5F)     \
    X(O, ExtendedEMMCause, mExtendedEMMCause, 0xA)

#define NAS_EMM_ExtendedServiceRequest(X)                                  \
    X(M, RAW8, b1, 0) /* service type (low), NAS key set identifier (high) */ \
    X(M, MobileIdentity, mMTMSI, 0)                                        \
    X(O, CSFBResponse, mCSFBResponse, 0xB)                                 \
    X(O, EPSBearerContextStatus, mEPSBearerContextStatus, 0x57)            \
    X(O, DeviceProperties, mDeviceProperties, 0xD)

#define NAS_EMM_ControlPlaneServiceRequest(X)                             \
    X(M, RAW8, b1, 0) /* control plane service type, NAS key set identifier */ \
    X(O, ESMMessageContainer, mESMMessageContainer, 0x78)                 \
    X(O, EMMNASMessageContainer, mNASMessageContainer, 0x67)              \
    X(O, EPSBearerContextStatus, mEPSBearerContextStatus, 0x57)           \
    X(O, DeviceProperties, mDeviceProperties, 0xD)

#define NAS_EMM_ServiceReject(X)            \
    X(M, EMMCause, mEMMCause, 0)            \
    X(O, GPRSTimer, mT3442Value, 0x5B)      \
    X(O, GPRSTimer2, mT3346Value, 0x5F)     \
    X(O, GPRSTimer2, mT3448Value, 0x6B)

#define NAS_EMM_ServiceAccept(X)                                \
    X(O, EPSBearerContextStatus, mEPSBearerContextStatus, 0x57) \
    X(O, GPRSTimer2, mT3448Value, 0x6B)

#define NAS_EMM_GUTIReallocationCommand(X)                                 \
    X(M, EPSMobileIdentity, mGUTI, 0)                                      \
    X(O, TrackingAreaIdentityList, mTAIList, 0x54)                         \
    X(O, DCNID, mDCNID, 0x65)                                              \
    X(O, UERadioCapabilityID, mUERadioCapabilityID, 0x66)                  \
    X(O, UERadioCapabilityIDDeletionIndication, mUERadioCapabilityIDDeletionIndication, 0xB)

#define NAS_EMM_GUTIReallocationComplete(X)

#define NAS_EMM_AuthenticationRequest(X)              \
    X(M, RAW8, b1, 0) /* NAS key set identifier, spare */ \
    X(M, RAND, mRAND, 0)                              \
    X(M, AUTN, mAUTN, 0)

#define NAS_EMM_AuthenticationResponse(X) X(M, AuthenticationResponseParameter, mRES, 0)

#define NAS_EMM_AuthenticationReject(X)

#define NAS_EMM_IdentityRequest(X) X(M, RAW8, b1, 0) /* identity type, spare */

#define NAS_EMM_IdentityResponse(X) X(M, MobileIdentity, mMobileIdentity, 0)

#define NAS_EMM_AuthenticationFailure(X) \
    X(M, EMMCause, mEMMCause, 0)         \
    X(O, AuthenticationFailureParameter, mAuthenticationFailureParameter, 0x30)

#define NAS_EMM_SecurityModeCommand(X)                                                   \
    X(M, NASSecurityAlgorithms, mSelectedNASSecurityAlgorithms, 0)                       \
    X(M, RAW8, mNASKeySetIdentifier, 0) /* NAS key set identifier, spare */              \
    X(M, EPSUESecurityCapability, mReplayedUESecurityCapabilities, 0)                    \
    X(O, IMEISVRequest, mIMEISVRequest, 0xC)                                             \
    X(O, Nonce, mReplayedNonceUE, 0x55)                                                  \
    X(O, Nonce, mNonceMME, 0x56)                                                         \
    X(O, HashMME, mHashMME, 0x4F)                                                        \
    X(O, UEAdditionalSecurityCapability, mReplayedUEAdditionalSecurityCapability, 0x6F)

#define NAS_EMM_SecurityModeComplete(X)                                       \
    X(O, MobileIdentity, mIMEISV, 0x23)                                       \
    X(O, ReplayedNASMessageContainer, mReplayedNASMessageContainer, 0x79)     \
    X(O, UERadioCapabilityID, mUERadioCapabilityID, 0x66)

#define NAS_EMM_SecurityModeReject(X) X(M, EMMCause, mEMMCause, 0)

#define NAS_EMM_EMMStatus(X) X(M, EMMCause, mEMMCause, 0)

#define NAS_EMM_EMMInformation(X)                                       \
    X(O, NetworkName, mFullNameForNetwork, 0x43)                        \
    X(O, NetworkName, mShortNameForNetwork, 0x45)                       \
    X(O, TimeZone, mLocalTimeZone, 0x46)                                \
    X(O, TimeZoneAndTime, mUniversalTimeAndLocalTimeZone, 0x47)         \
    X(O, DaylightSavingTime, mNetworkDaylightSavingTime, 0x49)

#define NAS_EMM_DownlinkNASTransport(X) X(M, EMMNASMessageContainer, mNASMessageContainer, 0)

#define NAS_EMM_UplinkNASTransport(X) X(M, EMMNASMessageContainer, mNASMessageContainer, 0)

#define NAS_EMM_CSServiceNotification(X)                     \
    X(M, PagingIdentity, mPagingIdentity, 0)                 \
    X(O, CLI, mCLI, 0x60)                                    \
    X(O, SSCode, mSSCode, 0x61)                              \
    X(O, LCSIndicator, mLCSIndicator, 0x62)                  \
    X(O, LCSClientIdentity, mLCSClientIdentity, 0x63)

#define NAS_EMM_DownlinkGenericNASTransport(X)                         \
    X(M, GenericMessageContainerType, mGenericMessageContainerType, 0) \
    X(M, GenericMessageContainer, mGenericMessageContainer, 0)         \
    X(O, AdditionalInformation, mAdditionalInformation, 0x65)

#define NAS_EMM_UplinkGenericNASTransport(X) NAS_EMM_DownlinkGenericNASTransport(X)

// record and encoder name, decoder name, message type
#define NAS_EMM_MESSAGES(X)                                                         \
    X(AttachRequest, Attach_request, 65)                                            \
    X(AttachAccept, Attach_accept, 66)                                              \
    X(AttachComplete, Attach_complete, 67)                                          \
    X(AttachReject, Attach_reject, 68)                                              \
    X(DetachRequest, Detach_request, 69)                                            \
    X(DetachAccept, Detach_accept, 70)                                              \
    X(TrackingAreaUpdateRequest, Tracking_area_update_request, 72)                  \
    X(TrackingAreaUpdateAccept, Tracking_area_update_accept, 73)                    \
    X(TrackingAreaUpdateComplete, Tracking_area_update_complete, 74)                \
    X(TrackingAreaUpdateReject, Tracking_area_update_reject, 75)                    \
    X(ExtendedServiceRequest, Extended_service_request, 76)                         \
    X(ControlPlaneServiceRequest, Control_plane_service_request, 77)                \
    X(ServiceReject, Service_reject, 78)                                            \
    X(ServiceAccept, Service_accept, 79)                                            \
    X(GUTIReallocationCommand, GUTI_reallocation_command, 80)                       \
    X(GUTIReallocationComplete, GUTI_reallocation_complete, 81)                     \
    X(AuthenticationRequest, Authentication_request, 82)                            \
    X(AuthenticationResponse, Authentication_response, 83)                          \
    X(AuthenticationReject, Authentication_reject, 84)                              \
    X(IdentityRequest, Identity_request, 85)                                        \
    X(IdentityResponse, Identity_response, 86)                                      \
    X(AuthenticationFailure, Authentication_failure, 92)                            \
    X(SecurityModeCommand, Security_mode_command, 93)                               \
    X(SecurityModeComplete, Security_mode_complete, 94)                             \
    X(SecurityModeReject, Security_mode_reject, 95)                                 \
    X(EMMStatus, EMM_status, 96)                                                    \
    X(EMMInformation, EMM_information, 97)                                          \
    X(DownlinkNASTransport, Downlink_NAS_transport, 98)                             \
    X(UplinkNASTransport, Uplink_NAS_transport, 99)                                 \
    X(CSServiceNotification, CS_Service_notification, 100)                          \
    X(DownlinkGenericNASTransport, Downlink_generic_NAS_transport, 104)             \
    X(UplinkGenericNASTransport, Uplink_generic_NAS_transport, 105)

// ---------------------------------------------------------------- ESM (TS 24.301 8.3)

#define NAS_ESM_PCO_EPCO(X)                                                          \
    X(O, ProtocolConfigurationOptions, mProtocolConfigurationOptions, 0x27)          \
    X(O, ExtendedProtocolConfigurationOptions, mExtendedProtocolConfigurationOptions, 0x7B)

#define NAS_ESM_PCO_NBIFOM_EPCO(X)                                                   \
    X(O, ProtocolConfigurationOptions, mProtocolConfigurationOptions, 0x27)          \
    X(O, NBIFOMContainer, mNBIFOMContainer, 0x33)                                    \
    X(O, ExtendedProtocolConfigurationOptions, mExtendedProtocolConfigurationOptions, 0x7B)

#define NAS_ESM_BEARER_SETUP(X)                                                      \
    X(O, TransactionIdentifier, mTransactionIdentifier, 0x5D)                        \
    X(O, QualityOfService, mNegotiatedQoS, 0x30)                                     \
    X(O, LLCServiceAccessPointIdentifier, mNegotiatedLLCSAPI, 0x32)                  \
    X(O, RadioPriority, mRadioPriority, 0x8)                                         \
    X(O, PacketFlowIdentifier, mPacketFlowIdentifier, 0x34)

#define NAS_ESM_ActivateDefaultEPSBearerContextRequest(X)                            \
    X(M, EPSQoS, mEPSQoS, 0)                                                         \
    X(M, AccessPointName, mAccessPointName, 0)                                       \
    X(M, PDNAddress, mPDNAddress, 0)                                                 \
    NAS_ESM_BEARER_SETUP(X)                                                          \
    X(O, APNAggregateMaximumBitRate, mAPNAMBR, 0x5E)                                 \
    X(O, ESMCause, mESMCause, 0x58)                                                  \
    X(O, ProtocolConfigurationOptions, mProtocolConfigurationOptions, 0x27)          \
    X(O, ConnectivityType, mConnectivityType, 0xB)                                   \
    X(O, WLANOffloadAcceptability, mWLANOffloadIndication, 0xC)                      \
    X(O, NBIFOMContainer, mNBIFOMContainer, 0x33)                                    \
    X(O, HeaderCompressionConfiguration, mHeaderCompressionConfiguration, 0x66)      \
    X(O, ControlPlaneOnlyIndication, mControlPlaneOnlyIndication, 0x9)               \
    X(O, ExtendedProtocolConfigurationOptions, mExtendedProtocolConfigurationOptions, 0x7B) \
    X(O, ServingPLMNRateControl, mServingPLMNRateControl, 0x6E)                      \
    X(O, ExtendedAPNAggregateMaximumBitRate, mExtendedAPNAMBR, 0x5F)

#define NAS_ESM_ActivateDefaultEPSBearerContextAccept(X) NAS_ESM_PCO_EPCO(X)

#define NAS_ESM_ActivateDefaultEPSBearerContextReject(X) \
    X(M, ESMCause, mESMCause, 0)                         \
    NAS_ESM_PCO_EPCO(X)

#define NAS_ESM_ActivateDedicatedEPSBearerContextRequest(X)                          \
    X(M, RAW8, b1, 0) /* linked EPS bearer identity, spare */                        \
    X(M, EPSQoS, mEPSQoS, 0)                                                         \
    X(M, TrafficFlowTemplate, mTFT, 0)                                               \
    NAS_ESM_BEARER_SETUP(X)                                                          \
    X(O, ProtocolConfigurationOptions, mProtocolConfigurationOptions, 0x27)          \
    X(O, WLANOffloadAcceptability, mWLANOffloadIndication, 0xC)                      \
    X(O, NBIFOMContainer, mNBIFOMContainer, 0x33)                                    \
    X(O, ExtendedProtocolConfigurationOptions, mExtendedProtocolConfigurationOptions, 0x7B) \
    X(O, ExtendedEPSQoS, mExtendedEPSQoS, 0x5C)

#define NAS_ESM_ActivateDedicatedEPSBearerContextAccept(X) NAS_ESM_PCO_NBIFOM_EPCO(X)

#define NAS_ESM_ActivateDedicatedEPSBearerContextReject(X) \
    X(M, ESMCause, mESMCause, 0)                           \
    NAS_ESM_PCO_NBIFOM_EPCO(X)

#define NAS_ESM_ModifyEPSBearerContextRequest(X)                                     \
    X(O, EPSQoS, mNewEPSQoS, 0x5B)                                                   \
    X(O, TrafficFlowTemplate, mTFT, 0x36)                                            \
    X(O, QualityOfService, mNewQoS, 0x30)                                            \
    X(O, LLCServiceAccessPointIdentifier, mNegotiatedLLCSAPI, 0x32)                  \
    X(O, RadioPriority, mRadioPriority, 0x8)                                         \
    X(O, PacketFlowIdentifier, mPacketFlowIdentifier, 0x34)                          \
    X(O, APNAggregateMaximumBitRate, mAPNAMBR, 0x5E)                                 \
    X(O, ProtocolConfigurationOptions, mProtocolConfigurationOptions, 0x27)          \
    X(O, WLANOffloadAcceptability, mWLANOffloadIndication, 0xC)                      \
    X(O, NBIFOMContainer, mNBIFOMContainer, 0x33)                                    \
    X(O, HeaderCompressionConfiguration, mHeaderCompressionConfiguration, 0x66)      \
    X(O, ExtendedProtocolConfigurationOptions, mExtendedProtocolConfigurationOptions, 0x7B) \
    X(O, ExtendedAPNAggregateMaximumBitRate, mExtendedAPNAMBR, 0x5F)                 \
    X(O, ExtendedEPSQoS, mExtendedEPSQoS, 0x5C)

#define NAS_ESM_ModifyEPSBearerContextAccept(X) NAS_ESM_PCO_NBIFOM_EPCO(X)

#define NAS_ESM_ModifyEPSBearerContextReject(X) \
    X(M, ESMCause, mESMCause, 0)                \
    NAS_ESM_PCO_NBIFOM_EPCO(X)

#define NAS_ESM_DeactivateEPSBearerContextRequest(X)                                 \
    X(M, ESMCause, mESMCause, 0)                                                     \
    X(O, ProtocolConfigurationOptions, mProtocolConfigurationOptions, 0x27)          \
    X(O, GPRSTimer3, mT3396Value, 0x37)                                              \
    X(O, WLANOffloadAcceptability, mWLANOffloadIndication, 0xC)                      \
    X(O, NBIFOMContainer, mNBIFOMContainer, 0x33)                                    \
    X(O, ExtendedProtocolConfigurationOptions, mExtendedProtocolConfigurationOptions, 0x7B)

#define NAS_ESM_DeactivateEPSBearerContextAccept(X) NAS_ESM_PCO_EPCO(X)

#define NAS_ESM_PDNConnectivityRequest(X)                                            \
    X(M, RAW8, b1, 0) /* request type (low), PDN type (high) */                      \
    X(O, ESMInformationTransferFlag, mESMInformationTransferFlag, 0xD)               \
    X(O, AccessPointName, mAccessPointName, 0x28)                                    \
    X(O, ProtocolConfigurationOptions, mProtocolConfigurationOptions, 0x27)          \
    X(O, DeviceProperties, mDeviceProperties, 0xC)                                   \
    X(O, NBIFOMContainer, mNBIFOMContainer, 0x33)                                    \
    X(O, HeaderCompressionConfiguration, mHeaderCompressionConfiguration, 0x66)      \
    X(O, ExtendedProtocolConfigurationOptions, mExtendedProtocolConfigurationOptions, 0x7B)

// PDN connectivity, bearer resource allocation and modification rejects.
#define NAS_ESM_REJECT_WITH_BACKOFF(X)                                               \
    X(M, ESMCause, mESMCause, 0)                                                     \
    X(O, ProtocolConfigurationOptions, mProtocolConfigurationOptions, 0x27)          \
    X(O, GPRSTimer3, mBackOffTimerValue, 0x37)                                       \
    X(O, ReAttemptIndicator, mReAttemptIndicator, 0x6B)                              \
    X(O, NBIFOMContainer, mNBIFOMContainer, 0x33)                                    \
    X(O, ExtendedProtocolConfigurationOptions, mExtendedProtocolConfigurationOptions, 0x7B)

#define NAS_ESM_PDNConnectivityReject(X) NAS_ESM_REJECT_WITH_BACKOFF(X)

#define NAS_ESM_PDNDisconnectRequest(X)                       \
    X(M, RAW8, b1, 0) /* linked EPS bearer identity, spare */ \
    NAS_ESM_PCO_EPCO(X)

#define NAS_ESM_PDNDisconnectReject(X) \
    X(M, ESMCause, mESMCause, 0)       \
    NAS_ESM_PCO_EPCO(X)

#define NAS_ESM_BearerResourceAllocationRequest(X)                                   \
    X(M, RAW8, b1, 0) /* linked EPS bearer identity, spare */                        \
    X(M, TrafficFlowTemplate, mTrafficFlowAggregate, 0)                              \
    X(M, EPSQoS, mRequiredTrafficFlowQoS, 0)                                         \
    X(O, ProtocolConfigurationOptions, mProtocolConfigurationOptions, 0x27)          \
    X(O, DeviceProperties, mDeviceProperties, 0xC)                                   \
    X(O, NBIFOMContainer, mNBIFOMContainer, 0x33)                                    \
    X(O, ExtendedProtocolConfigurationOptions, mExtendedProtocolConfigurationOptions, 0x7B) \
    X(O, ExtendedEPSQoS, mExtendedEPSQoS, 0x5C)

#define NAS_ESM_BearerResourceAllocationReject(X) NAS_ESM_REJECT_WITH_BACKOFF(X)

#define NAS_ESM_BearerResourceModificationRequest(X)                                 \
    X(M, RAW8, b1, 0) /* EPS bearer identity for packet filter, spare */             \
    X(M, TrafficFlowTemplate, mTrafficFlowAggregate, 0)                              \
    X(O, EPSQoS, mRequiredTrafficFlowQoS, 0x5B)                                      \
    X(O, ESMCause, mESMCause, 0x58)                                                  \
    X(O, ProtocolConfigurationOptions, mProtocolConfigurationOptions, 0x27)          \
    X(O, DeviceProperties, mDeviceProperties, 0xC)                                   \
    X(O, NBIFOMContainer, mNBIFOMContainer, 0x33)                                    \
    X(O, HeaderCompressionConfiguration, mHeaderCompressionConfiguration, 0x66)      \
    X(O, ExtendedProtocolConfigurationOptions, mExtendedProtocolConfigurationOptions, 0x7B) \
    X(O, ExtendedEPSQoS, mExtendedEPSQoS, 0x5C)

#define NAS_ESM_BearerResourceModificationReject(X) NAS_ESM_REJECT_WITH_BACKOFF(X)

#define NAS_ESM_ESMInformationRequest(X)

#define NAS_ESM_ESMInformationResponse(X)                          \
    X(O, AccessPointName, mAccessPointName, 0x28)                  \
    NAS_ESM_PCO_EPCO(X)

#define NAS_ESM_ESMDummyMessage(X)

#define NAS_ESM_ESMStatus(X) X(M, ESMCause, mESMCause, 0)

#define NAS_ESM_RemoteUEReport(X)                                             \
    X(O, RemoteUEContextList, mRemoteUEContextConnected, 0x79)                \
    X(O, RemoteUEContextList, mRemoteUEContextDisconnected, 0x7A)             \
    X(O, PKMFAddress, mProSeKeyManagementFunctionAddress, 0x6F)

#define NAS_ESM_RemoteUEReportResponse(X)

#define NAS_ESM_ESMDataTransport(X)                    \
    X(M, UserDataContainer, mUserDataContainer, 0)     \
    X(O, ReleaseAssistanceIndication, mReleaseAssistanceIndication, 0xF)

#define NAS_ESM_MESSAGES(X)                                                                       \
    X(ActivateDefaultEPSBearerContextRequest, Activate_default_EPS_bearer_context_request, 193)   \
    X(ActivateDefaultEPSBearerContextAccept, Activate_default_EPS_bearer_context_accept, 194)     \
    X(ActivateDefaultEPSBearerContextReject, Activate_default_EPS_bearer_context_reject, 195)     \
    X(ActivateDedicatedEPSBearerContextRequest, Activate_dedicated_EPS_bearer_context_request, 197) \
    X(ActivateDedicatedEPSBearerContextAccept, Activate_dedicated_EPS_bearer_context_accept, 198) \
    X(ActivateDedicatedEPSBearerContextReject, Activate_dedicated_EPS_bearer_context_reject, 199) \
    X(ModifyEPSBearerContextRequest, Modify_EPS_bearer_context_request, 201)                      \
    X(ModifyEPSBearerContextAccept, Modify_EPS_bearer_context_accept, 202)                        \
    X(ModifyEPSBearerContextReject, Modify_EPS_bearer_context_reject, 203)                        \
    X(DeactivateEPSBearerContextRequest, Deactivate_EPS_bearer_context_request, 205)              \
    X(DeactivateEPSBearerContextAccept, Deactivate_EPS_bearer_context_accept, 206)                \
    X(PDNConnectivityRequest, PDN_connectivity_request, 208)                                      \
    X(PDNConnectivityReject, PDN_connectivity_reject, 209)                                        \
    X(PDNDisconnectRequest, PDN_disconnect_request, 210)                                          \
    X(PDNDisconnectReject, PDN_disconnect_reject, 211)                                            \
    X(BearerResourceAllocationRequest, Bearer_resource_allocation_request, 212)                   \
    X(BearerResourceAllocationReject, Bearer_resource_allocation_reject, 213)                     \
    X(BearerResourceModificationRequest, Bearer_resource_modification_request, 214)               \
    X(BearerResourceModificationReject, Bearer_resource_modification_reject, 215)                 \
    X(ESMInformationRequest, ESM_information_request, 217)                                        \
    X(ESMInformationResponse, ESM_information_response, 218)                                      \
    X(ESMDummyMessage, ESM_dummy_message, 220)                                                    \
    X(ESMStatus, ESM_status, 232)                                                                 \
    X(RemoteUEReport, Remote_UE_report, 233)                                                      \
    X(RemoteUEReportResponse, Remote_UE_report_response, 234)                                     \
    X(ESMDataTransport, ESM_data_transport, 235)
