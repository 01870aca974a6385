/* The points of the peer: an edge with a number, and one that nobody enables. */
#undef TRACEPOINT_PROVIDER
#define TRACEPOINT_PROVIDER bench
#undef TRACEPOINT_INCLUDE
#define TRACEPOINT_INCLUDE "bench/peers/lttng_points.h"

#if !defined(BENCH_PEERS_LTTNG_POINTS_H) || defined(TRACEPOINT_HEADER_MULTI_READ)
#define BENCH_PEERS_LTTNG_POINTS_H

#include <lttng/tracepoint.h>

TRACEPOINT_EVENT(bench, begin, TP_ARGS(int, name), TP_FIELDS(ctf_integer(int, name, name)))
TRACEPOINT_EVENT(bench, end, TP_ARGS(int, name), TP_FIELDS(ctf_integer(int, name, name)))
TRACEPOINT_EVENT(bench, off, TP_ARGS(int, name), TP_FIELDS(ctf_integer(int, name, name)))

#endif

#include <lttng/tracepoint-event.h>
