// kova-acl-runner: the background propagation runner. libkovaacl starts it
// detached with all ids 0 when a job needs one; it is not meant to be run by
// hand. Being a program of its own, rather than a fork of the caller that
// runs on, it inherits no lock another thread of the caller held.
#include "kova/acladmin.h"

int main() { return KOVAACLPropagationRunnerMain(); }
