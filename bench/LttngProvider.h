// The events that LTTng-UST records for bench/TraceBench.cpp: a decision, and one that no session
// enables. The macros read this file several times, so it has no ordinary guard.
#undef LTTNG_UST_TRACEPOINT_PROVIDER
#define LTTNG_UST_TRACEPOINT_PROVIDER bench
#undef LTTNG_UST_TRACEPOINT_INCLUDE
#define LTTNG_UST_TRACEPOINT_INCLUDE "bench/LttngProvider.h"

#if !defined(BENCH_LTTNG_PROVIDER_H) || defined(LTTNG_UST_TRACEPOINT_HEADER_MULTI_READ)
#define BENCH_LTTNG_PROVIDER_H

#include <lttng/tracepoint.h>

LTTNG_UST_TRACEPOINT_EVENT_CLASS(bench, index, LTTNG_UST_TP_ARGS(unsigned, index),
                                 LTTNG_UST_TP_FIELDS(lttng_ust_field_integer(unsigned, index,
                                                                             index)))
LTTNG_UST_TRACEPOINT_EVENT_INSTANCE(bench, index, bench, decision,
                                    LTTNG_UST_TP_ARGS(unsigned, index))
LTTNG_UST_TRACEPOINT_EVENT_INSTANCE(bench, index, bench, off, LTTNG_UST_TP_ARGS(unsigned, index))

#endif

#include <lttng/tracepoint-event.h>
