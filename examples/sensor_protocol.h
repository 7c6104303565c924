/* What sensor, monitor, gateway and inventory say to one another. */
#ifndef SENSOR_PROTOCOL_H
#define SENSOR_PROTOCOL_H

#include <stdint.h>

/* Applications; each program takes others as arguments. */
enum { SENSOR_APP = 100, MONITOR_APP = 101, GATEWAY_APP = 102, INVENTORY_APP = 110 };

/* Version of the messages below: the receiver's dispatcher is chosen by it. */
enum { SENSOR_PROTOCOL = 1 };

/* One-way message of a sensor. All fields are big-endian: nodes need not be of one kind. */
struct sensor_reading {
    uint32_t node; /* where it was measured; a gateway passes readings on from its own node */
    uint32_t number;
    int32_t millidegrees;
};

/* A sensor's answer to a request, which carries no data. */
struct sensor_status {
    uint32_t sent;
    uint32_t unheard; /* readings that nobody was there to take */
};

#endif
