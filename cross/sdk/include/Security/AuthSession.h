#pragma once

/// The declaration of the Security framework that this program uses, written from its public
/// documentation.

#include <CoreFoundation/CoreFoundation.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef UInt32 SecuritySessionId;
typedef UInt32 SessionAttributeBits;

enum { callerSecuritySession = (SecuritySessionId)-1 };
enum { sessionHasGraphicAccess = 0x0010 };

OSStatus SessionGetInfo(SecuritySessionId session, SecuritySessionId* session_id,
                        SessionAttributeBits* attributes);

#ifdef __cplusplus
}
#endif
