// SPDX-License-Identifier: MIT
#ifndef TESTS_SUPPORT_NOLEAKCHECK_H
#define TESTS_SUPPORT_NOLEAKCHECK_H

// Kills and faults jump, and what they jump over is not freed.
extern "C" int __lsan_is_turned_off()
{
    return 1;
}

#endif
