#pragma once

/// The declaration of CoreServices that this program uses, written from its public documentation.

#include <CoreFoundation/CoreFoundation.h>

#ifdef __cplusplus
extern "C" {
#endif

OSErr Gestalt(OSType selector, SInt32* response);

#ifdef __cplusplus
}
#endif
