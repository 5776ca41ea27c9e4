// What the NAS module's files share and nothing outside uses: counting, and the one way a
// NAS message leaves (protection, then the gNB below).
#pragma once

#include "KsEngine_step.h"
#include "KsNAS.h"

namespace ksnas {

// An engine-wide N1 counter (may be null before start-up).
void countN1(MV_Counter* c);
// A counter of the UE's test, when it runs in one.
void countTest(MV_KsUE* ue, MV_Counter KsTestExec::*field);
// Protects (when asked and the access has a context) and sends buffer[0..pos); the send's
// result, below 1 when it did not go (the run has then been ended).
int send(MV_KsUE* ue, __mv_asn_coding_context& ctx, uint8_t bearer, bool protect, uint32_t type, uint32_t child,
         uint32_t category, uint8_t initial);
void releaseRan(MV_KsUE* ue, uint8_t bearer);

// Registration request IEs that have a default, for registrationDefaults' `which`.
inline constexpr unsigned kRegDefaultFGMMCapability = 1, kRegDefaultSecurityCapability = 2,
                          kRegDefaultUpdateType = 4, kRegDefaultNssai = 8, kRegDefaultAll = 15;
void registrationDefaults(KsStep* st, NASPduFGMM_RegistrationRequest& r, unsigned which);
// The step's registration template in place of the defaults: only the IEs it names are set.
void applyRegistrationTemplate(KsStep* st, const MV_Template* t, NASPduFGMM_RegistrationRequest& r);
// Leaves only the IEs a request without a security context may carry in clear.
void keepCleartextOnly(NASPduFGMM_RegistrationRequest& r);
// A session step's templates by element index: the establishment template replaces the
// defaults (false when t is no establishment template), the modification and UL NAS transport
// templates add to them.
bool applyEstablishmentTemplate(const MV_Template* t, NASPduFGSM_PDUSessionEstablishmentRequest& r);
void applyModificationTemplate(const MV_Template* t, NASPduFGSM_PDUSessionModificationRequest& r);
void applyUlTransportTemplate(const MV_Template* t, NASPduFGMM_ULNASTransport& x);

}  // namespace ksnas
