/* Tells keld of a battery that is low.
 *
 *     cc producer.c $(pkg-config --cflags --libs kelproducer) -o producer
 *     ./producer 12
 */
#include <kelproducer.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

int main(int argc, char **argv)
{
    int percent = argc > 1 ? atoi(argv[1]) : 100;
    char message[64];
    KelProducer *producer;

    snprintf(message, sizeof message, "the battery is down to %d percent", percent);
    int error = KelProducer_Open(KELPRODUCER_USER_CONTEXT, &producer);
    if (error == 0)
        error = KelProducer_Emit(producer, "kel.external.error", "%s: see %s: %s", "acme-ups",
                                 "https://kb.example/1042", message);
    KelProducer_Close(producer);
    if (error != 0)
        fprintf(stderr, "producer: %s\n", strerror(error));
    return error == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
