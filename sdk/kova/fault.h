/*
 * Fault injection for tests.
 *
 * Every exported platform call (C functions and the methods of the platform
 * classes) passes through one check, keyed by the call's exported name, at
 * its very start. A test arms a fault for a name; when it fires, the call
 * returns the chosen result at once, having set the chosen last error, and
 * does nothing else. Call sites are untouched.
 *
 * - nth = 0 fires on every matching call; nth = N fires once, on the Nth
 *   matching call from now, and then disarms.
 * - The name "*" matches every platform call, so a test can fail call N of
 *   an operation, then N+1, until the operation succeeds.
 * - For a call returning a pointer the result is returned as NULL; for a
 *   bool-returning method, 0 means false and anything else true.
 * - Faults are process-wide and inherited by forked children. A process
 *   started by exec reads "$KOVA_FAULTS" once: entries
 *   "name:nth:result:error" separated by ",", numbers in C syntax.
 */
#ifndef KOVA_FAULT_H
#define KOVA_FAULT_H

#include "kova/export.h"

#ifdef __cplusplus
extern "C" {
#endif
KOVA_API_BEGIN

int  KLIBCFaultSet(const char *szCall, int nth, long result, int error);
void KLIBCFaultClearAll(void);
/* Number of platform calls that passed the check since the last clear
 * (counts every call, armed or not). */
long KLIBCFaultCallCount(void);
/* Checks the named call; returns 1 and sets *pResult and the last error
 * when a fault fires, 0 otherwise. Used by the platform at each call. */
int  KLIBCFaultHit(const char *szCall, long *pResult);

KOVA_API_END
#ifdef __cplusplus
}
#endif

#endif
