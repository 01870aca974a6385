/* What the header's points are made of. */
#define TRACEPOINT_CREATE_PROBES
#define TRACEPOINT_DEFINE
#include "bench/peers/lttng_points.h"
