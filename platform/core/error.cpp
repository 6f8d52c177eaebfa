// Per-thread last error: code, and the file and line that raised it.
#include "kova/klibc.h"

#include <cstring>

namespace {
struct LastError {
    int code = 0;
    char file[128] = {0};
    int line = 0;
};
thread_local LastError t_last;
} // namespace

extern "C" int KLIBCErrGet(void) { return t_last.code; }
extern "C" const char *KLIBCErrorGetFile(void) { return t_last.file; }
extern "C" int KLIBCErrorGetLine(void) { return t_last.line; }

extern "C" void KLIBCErrSetEx(int code, const char *file, int line) {
    t_last.code = code;
    if (file) {
        std::strncpy(t_last.file, file, sizeof(t_last.file) - 1);
        t_last.file[sizeof(t_last.file) - 1] = '\0';
    } else {
        t_last.file[0] = '\0';
    }
    t_last.line = line;
}
