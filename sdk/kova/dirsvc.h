/*
 * Directory-service state (libkovawins.so.7): LDAP binding and the Windows
 * domain membership, as recorded under the platform root by kova-admin.
 *
 * Contract: yes/no calls return non-zero for yes and 0 for no (also when
 * the state cannot be read, with the last error set). List calls append to
 * caller-owned string lists and return the number of items added, negative
 * on failure (KOVA_ERR_DIRSVC when the service is unreachable).
 */
#ifndef KOVA_DIRSVC_H
#define KOVA_DIRSVC_H

#include "kova/klibc.h"

#include "kova/export.h"

#ifdef __cplusplus
extern "C" {
#endif
KOVA_API_BEGIN

int KOVALDAPIsBinded(void);
/* The login suffix (for example "example.com") into szBuf. Negative when not
 * bound or the buffer is too small. */
int KOVALDAPLoginSuffixGet(char *szBuf, int cbBuf);

int KOVAWinsIsJoined(void);
int KOVAWinIsEnableTrustDomain(void);
/* Every known domain (the joined one first, then trusted ones). */
int KOVAWinsEnumAllDomains(PKLIBC_SZLIST *ppList);
/* Organisational units: names and details at the same indexes (a detail
 * slot may be empty). */
int KOVAWinsEnumOU(PKLIBC_SZLIST *ppNames, PKLIBC_SZLIST *ppDetails);
/* Non-zero when the domain controller is the platform's own directory server. */
int KOVAWinsIsKovaADS(void);

KOVA_API_END
#ifdef __cplusplus
}
#endif

#endif
