// SPDX-License-Identifier: MIT
// Linked only into the test build of the tool (morvlabel_faults): arms the
// library's seam from the environment so that end-to-end tests can fail the
// N-th allocation or device transfer of a real run.
//
//   MORV_FAULT_OPS   any of "alloc", "read", "write", comma-separated
//   MORV_FAULT_AT    N (1-based)
//
// At exit it reports on standard error whether the failure was delivered.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "support_unix.hpp"

namespace {

void report() {
  fprintf(stderr, "fault-injection: %s\n", morv_seam_failure_delivered() ? "delivered" : "not delivered");
}

struct Arm {
  Arm() {
    const char* ops = getenv("MORV_FAULT_OPS");
    const char* at = getenv("MORV_FAULT_AT");
    if (!ops || !at) return;
    unsigned mask = 0;
    if (strstr(ops, "alloc")) mask |= MORV_SEAM_ALLOC;
    if (strstr(ops, "read")) mask |= MORV_SEAM_READ;
    if (strstr(ops, "write")) mask |= MORV_SEAM_WRITE;
    morv_seam_fail_at(mask, strtoull(at, nullptr, 10));
    atexit(report);
  }
} arm;

}  // namespace
