// The platform root every harness runs against: made once per process in a fresh temporary directory
// ($KOVA_ROOT points to it), removed at exit. It holds a few accounts and one small share, so requests that
// name real principals and paths reach the code behind the checks; nothing outside the root is ever touched.
// Background tasks cannot start in it (their start is failed by fault injection), so no process outlives an
// input.
#ifndef KOVA_FUZZ_ROOT_H
#define KOVA_FUZZ_ROOT_H

#include <string>

namespace kova_fuzz {

struct FuzzRoot {
    std::string path;   // the platform root
    std::string share;  // absolute path of the share "docs"
};

// Creates the root on the first call; aborts the process when it cannot, since every later input would test
// nothing.
const FuzzRoot &Root();

// Replaces every "@SHARE@" in text with the share's path, so checked-in inputs can name files of a root whose
// path differs per run.
std::string WithSharePath(std::string text);

} // namespace kova_fuzz

#endif
