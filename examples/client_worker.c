/* A worker in C whose events another process records: sums a series in many steps.
 *
 *   client_worker NAME
 */
#include <stdio.h>

#include "zandor/client/client.h"

enum { steps = 80, terms = 400000 };

static double sum_of(long first) {
    double sum = 0;
    for (long i = first; i < first + terms; ++i)
        sum += (i % 2 ? -4.0 : 4.0) / (2.0 * (double)i + 1.0);
    return sum;
}

int main(int count, char** arguments) {
    zandor_client* const client = zandor_client_open(count > 1 ? arguments[1] : "c-worker");
    const zandor_event whole = zandor_client_start(client, "series", NULL, NULL, 0);
    double sum = 0;
    for (long step = 0; step < steps; ++step) {
        char number[24];
        const char* key = "step";
        const char* value = number;
        snprintf(number, sizeof number, "%ld", step);
        const zandor_event event = zandor_client_start(client, "sum", &key, &value, 1);
        sum += sum_of(step * terms);
        zandor_client_stop(client, event);
    }
    zandor_client_instant(client, "summed", NULL, NULL, 0);
    zandor_client_stop(client, whole);
    zandor_client_close(client);
    printf("C: %.6f\n", sum);
    return 0;
}
