// String lists: a growable array of owned C strings with an item count.
#include "kova/klibc.h"
#include "kova/errcode.h"
#include "kova-internal/fault-point.h"

#include <cstdlib>
#include <cstring>

extern "C" PKLIBC_SZLIST KLIBCSzListAlloc(int cbHint) {
    KOVA_FAULT_POINT_NULL("KLIBCSzListAlloc");
    if (cbHint < 0) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return nullptr;
    }
    auto *list = static_cast<PKLIBC_SZLIST>(std::calloc(1, sizeof(KLIBC_SZLIST)));
    if (!list) {
        KOVA_FAIL(KOVA_ERR_NOMEM);
        return nullptr;
    }
    int capacity = cbHint / 32 > 8 ? cbHint / 32 : 8;
    list->ppszItem = static_cast<char **>(std::calloc(static_cast<size_t>(capacity), sizeof(char *)));
    if (!list->ppszItem) {
        std::free(list);
        KOVA_FAIL(KOVA_ERR_NOMEM);
        return nullptr;
    }
    list->nCapacity = capacity;
    return list;
}

extern "C" void KLIBCSzListFree(PKLIBC_SZLIST list) {
    if (!list) return;
    for (int i = 0; i < list->nItem; ++i) std::free(list->ppszItem[i]);
    std::free(list->ppszItem);
    std::free(list);
}

extern "C" const char *KLIBCSzListGet(PKLIBC_SZLIST list, int idx) {
    if (!list || idx < 0 || idx >= list->nItem) return nullptr;
    return list->ppszItem[idx];
}

extern "C" int KLIBCSzListPush(PKLIBC_SZLIST *ppList, const char *sz) {
    KOVA_FAULT_POINT("KLIBCSzListPush", int);
    if (!ppList || !*ppList) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return -1;
    }
    PKLIBC_SZLIST list = *ppList;
    if (list->nItem == list->nCapacity) {
        int capacity = list->nCapacity * 2;
        auto *grown = static_cast<char **>(std::realloc(list->ppszItem, static_cast<size_t>(capacity) * sizeof(char *)));
        if (!grown) {
            KOVA_FAIL(KOVA_ERR_NOMEM);
            return -1;
        }
        list->ppszItem = grown;
        list->nCapacity = capacity;
    }
    char *copy = nullptr;
    if (sz) {
        copy = strdup(sz);
        if (!copy) {
            KOVA_FAIL(KOVA_ERR_NOMEM);
            return -1;
        }
    }
    list->ppszItem[list->nItem++] = copy;
    return list->nItem;
}
