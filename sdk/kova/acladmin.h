/*
 * Administration of the kernel's enforcement of stored ACLs (libkovaacl.so),
 * for kova-admin and the library's own runner program: the drift check of
 * kernel ACLs against the stored ACLs, and the background propagation jobs
 * that carry a folder's inheritable change to its descendants.
 *
 * Contract:
 * - Every call needs root (all ids 0).
 * - Integer results: negative is failure with the last error set.
 * - Strings handed to a callback live for the call only; a job list is the
 *   caller's, freed with KOVAACLPropagationListFree.
 */
#ifndef KOVA_ACLADMIN_H
#define KOVA_ACLADMIN_H

#include <stddef.h>

#include "kova/export.h"

#ifdef __cplusplus
extern "C" {
#endif
KOVA_API_BEGIN

/* One entry whose kernel ACL (its mode, without one) differs from the
 * projection of its stored ACL. ACLs in getfacl's short form, "access" or
 * "access default" on folders. */
typedef struct _tag_KOVA_ACL_DRIFT {
    const char *szPath;
    const char *szKernel;
    const char *szProjection;
    int repaired;  /* 1 when written again (repair asked and done) */
} KOVA_ACL_DRIFT, *PKOVA_ACL_DRIFT;

typedef void (*KOVA_ACL_DRIFT_FN)(const KOVA_ACL_DRIFT *pDrift, void *pCtx);

typedef struct _tag_KOVA_ACL_VERIFY_COUNTS {
    size_t checked;    /* entries with a stored ACL */
    size_t differing;
    size_t repaired;
    size_t failed;     /* could not be read or repaired */
} KOVA_ACL_VERIFY_COUNTS;

/* Walks the tree at szPath (resolved as a set resolves it; the walk stays
 * on its file system and inside its share) and hands every drift to fn
 * (may be NULL); with repair, writes the projection. Negative when the
 * path cannot be resolved; the counts say the rest. */
int KOVAACLVerifyTree(const char *szPath, int repair, KOVA_ACL_DRIFT_FN fn, void *pCtx,
                      KOVA_ACL_VERIFY_COUNTS *pCounts);

/* A propagation job: the folder whose change it follows, its state
 * ("queued", "running", "stopped", "done", "gone"), its counters, and the
 * folder being walked now ("" when none). */
typedef struct _tag_KOVA_ACL_PROPAGATION {
    char *szPath;
    const char *szState;
    unsigned long long visited;      /* entries looked at */
    unsigned long long rewritten;    /* projections written */
    unsigned long long failed;       /* entries that could not be read or written */
    unsigned long long beyondDepth;  /* folders left because the tree is deeper than the walk goes */
    char *szCurrent;
} KOVA_ACL_PROPAGATION;

/* Every job record; *ppJobs is NULL when there is none. */
int KOVAACLPropagationList(KOVA_ACL_PROPAGATION **ppJobs, size_t *pCount);
void KOVAACLPropagationListFree(KOVA_ACL_PROPAGATION *pJobs, size_t count);

/* Marks the unfinished job of the folder at szPath stopped; the runner
 * leaves it at its resume point. KOVA_ERR_NOENT when there is none. */
int KOVAACLPropagationStop(const char *szPath);

/* Queues every stopped job and every job whose runner died again and makes
 * sure a runner works on them; *pCount: how many jobs now wait or run. */
int KOVAACLPropagationResume(size_t *pCount);

/* 1 when a runner process is there (working, or waiting for more jobs). */
int KOVAACLPropagationRunnerAlive(void);

/* The body of the runner program (kova-acl-runner), which the library
 * starts detached with all ids 0: the jobs, with every permitted capability
 * effective. 0 when it ended normally, 2 when not started as root. */
int KOVAACLPropagationRunnerMain(void);

KOVA_API_END
#ifdef __cplusplus
}
#endif

#endif
