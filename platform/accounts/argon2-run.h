// Where Argon2 computations get their memory, and how many run at once.
//
// Each run maps its block memory (19 MiB at today's cost) for itself and
// unmaps it when done, so the kernel has it back at once: with malloc, every
// thread that ever checked a password kept its own 19 MiB in its arena.
// At most kArgon2Slots runs go on at once in a process; further callers wait
// for a slot, so a burst of sign-ins holds at most that many blocks. A forked
// child starts with every slot free.
#ifndef KOVA_ACCOUNTS_ARGON2_RUN_H
#define KOVA_ACCOUNTS_ARGON2_RUN_H

#include <argon2.h>

namespace kova_accounts {

constexpr unsigned kArgon2Slots = 2;

// argon2id over ctx (its allocation callbacks are set here); the Argon2
// result code.
int RunArgon2id(argon2_context &ctx);

// Runs so far, and the most that went on at once, in this process: for
// tests and the benchmark.
unsigned long long Argon2Runs();
unsigned Argon2PeakRunning();

} // namespace kova_accounts

#endif
