/* Events from other processes: what a program sends to whoever collects on this machine.
 *
 *   zandor_client* c = zandor_client_open("solver-3");
 *   zandor_event e = zandor_client_start(c, "assemble", keys, values, n_context);
 *   zandor_client_stop(c, e);
 *   zandor_client_instant(c, "checkpoint", NULL, NULL, 0);
 *   zandor_client_close(c);
 *
 *   your code -> a ring of shared memory for each thread -> aggregator -> recorder, profiler, ...
 *
 * Nothing here fails hard, and producing never waits: with no aggregator that wants events a call
 * is two loads; else it is a copy into the thread's ring. What finds no room is dropped and
 * counted, by cause, where the aggregator sees it. Only a thread's first event for an aggregator
 * makes system calls, to make its ring.
 *
 * Threads: every function may be called from any thread. Start, stop, instant and is_wanted may be
 * called in signal handlers, too: an event in a handler that interrupts one of these functions on
 * its own thread is dropped and counted. Open and close are not for handlers.
 *
 * Fork: a child's clients are new ones of the same name, with the child's process id. The stop of
 * an event that the parent started does nothing in the child. A child made without handlers of
 * fork being run (vfork, a raw clone) must not produce events.
 *
 * Where client and aggregator meet: the folder named by ZANDOR_RUNTIME_DIR if that is set; else
 * "zandor" in XDG_RUNTIME_DIR; else /tmp/zandor-UID. It must be the user's own and closed to
 * others.
 */
#ifndef ZANDOR_CLIENT_CLIENT_H
#define ZANDOR_CLIENT_CLIENT_H

#include <stddef.h>
#include <stdint.h>

#define ZANDOR_CLIENT_API __attribute__((visibility("default")))

/* Functions that frequent events call: without a step in between. */
#if defined(__has_attribute)
#if __has_attribute(noplt)
#define ZANDOR_CLIENT_DIRECT ZANDOR_CLIENT_API __attribute__((noplt))
#endif
#endif
#ifndef ZANDOR_CLIENT_DIRECT
#define ZANDOR_CLIENT_DIRECT ZANDOR_CLIENT_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Stands for an open client. After close it stands for nothing, and every function accepts it and
 * does nothing; so do all with a null. */
typedef struct zandor_client zandor_client;

/* A started event. It may be copied, handed to another thread, or dropped. One whose serial is 0
 * was not delivered to anyone, and its stop does nothing. */
typedef struct zandor_event {
    uint64_t serial;
    uint64_t origin;
} zandor_event;

/* Becomes a client of that name (UTF-8; the first 63 bytes count; null is ""). Never waits: a
 * thread of the client's own finds aggregators, now and later. Null when the process has 16 open
 * ones already, or the system gives no thread. */
ZANDOR_CLIENT_API zandor_client* zandor_client_open(const char* name);

/* Ends it. What was published stays for aggregators to collect. */
ZANDOR_CLIENT_API void zandor_client_close(zandor_client* client);

/* Whether an aggregator wants events now: to skip the making of context that nobody reads. */
ZANDOR_CLIENT_API int zandor_client_is_wanted(const zandor_client* client);

/* Names the calling thread in what it publishes from its first event for an aggregator on; else it
 * has the kernel's name. */
ZANDOR_CLIENT_API void zandor_client_name_thread(const char* name);

/* Starts an event with `n_context` context entries, of which keys and values are the names and
 * texts. All texts are copied before it returns. A name or key has up to 1,023 bytes, an event up
 * to 64 entries and 16 KiB of values: one with more is dropped and counted. */
ZANDOR_CLIENT_DIRECT zandor_event zandor_client_start(zandor_client* client, const char* name,
                                                      const char* const* keys,
                                                      const char* const* values, size_t n_context);

/* Stops it, from any thread. */
ZANDOR_CLIENT_DIRECT void zandor_client_stop(zandor_client* client, zandor_event event);

ZANDOR_CLIENT_DIRECT void zandor_client_instant(zandor_client* client, const char* name,
                                                const char* const* keys, const char* const* values,
                                                size_t n_context);

#ifdef __cplusplus
}
#endif

#endif
