/* SPDX-License-Identifier: Apache-2.0 */
/* Writes four log lines, as a program of the framework would, for the
 * filter and colour tests: they run it with HARVO_LOG set and standard
 * error on a pipe or a terminal. */
#include <dlog.h>

int main(void) {
    __dlog_print(LOG_ID_MAIN, DLOG_ERROR, "HarvoFW", "%s: %s(%d) > \033[31m [%s]red error\033[0m\n",
                 "probe.c", "main", 1, "nil");
    __dlog_print(LOG_ID_MAIN, DLOG_INFO, "HarvoFW", "%s: %s(%d) > \033[37m [%s]white info\033[0m\n",
                 "probe.c", "main", 2, "nil");
    __dlog_print(LOG_ID_MAIN, DLOG_ERROR, "WPERF", "perf trace");
    __dlog_print(LOG_ID_MAIN, DLOG_DEBUG, "Other", "other debug");
    return 0;
}
