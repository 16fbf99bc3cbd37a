/* A metrics adaptor that counts zunreportingd's events at a StatsD server.
 *
 * Each event becomes one UDP datagram: a counter by category and type, and a timer where
 * the payload has a number under "duration" (milliseconds):
 *
 *   zun.event.2.7:1|c
 *   zun.duration.2.7:12.5|ms
 *
 * Datagrams go to 127.0.0.1, port 8125 or the one that STATSD_PORT names. Sending never
 * waits, so clients do not wait either; without a server events are not counted.
 *
 *   cc -shared -fPIC -O2 -Wall -I client/include -o QelPerformance.so statsd_adaptor.c
 */
#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "zunreporting/kodo_adaptor.h"

typedef struct adaptor {
  int socket;
} adaptor;

static uint16_t statsd_port(void) {
  const char* text = getenv("STATSD_PORT");
  const long port = text == NULL ? 0 : strtol(text, NULL, 10);
  return port > 0 && port <= UINT16_MAX ? (uint16_t)port : 8125;
}

static void destroy(void* object) {
  adaptor* self = object;
  if (self->socket >= 0) close(self->socket);
  free(self);
}

static void* create(void) {
  struct sockaddr_in server;
  adaptor* self = malloc(sizeof *self);
  if (self == NULL) return NULL;
  memset(&server, 0, sizeof server);
  server.sin_family = AF_INET;
  server.sin_port = htons(statsd_port());
  server.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  self->socket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (self->socket < 0 || connect(self->socket, (const struct sockaddr*)&server, sizeof server) != 0) {
    destroy(self);
    return NULL;
  }
  return self;
}

static const char* description(void* object) {
  (void)object;
  return "StatsD adaptor";
}

static int responds_to(void* object, const char* operation) {
  (void)object;
  return strcmp(operation, ZUN_KODO_SEND_MESSAGE) == 0;
}

static int is_number(int kind) {
  return kind == ZUN_KODO_INTEGER || kind == ZUN_KODO_REAL;
}

static void perform(void* object, const char* operation, uint16_t method, uint16_t resp_code,
                    const zun_kodo_value* dict, const zun_kodo_accessors* values) {
  adaptor* self = object;
  const zun_kodo_value* duration = values->value_for_key(dict, "duration", strlen("duration"));
  char text[128];
  int length = snprintf(text, sizeof text, "zun.event.%u.%u:1|c", method, resp_code);
  (void)operation;
  if (duration != NULL && is_number(values->kind(duration))) {
    length += snprintf(text + length, sizeof text - (size_t)length, "\nzun.duration.%u.%u:%.15g|ms", method,
                       resp_code, values->real(duration));
  }
  /* A server that is away or slow is its own loss. */
  (void)!send(self->socket, text, (size_t)length, MSG_NOSIGNAL);
}

static const zun_kodo_class statsd_class = {
    .abi_version = ZUN_KODO_ABI_VERSION,
    .create = create,
    .destroy = destroy,
    .description = description,
    .responds_to = responds_to,
    .perform = perform,
};

const zun_kodo_class* zun_kodo_class_named(uint32_t abi_version, const char* name) {
  const int is_known = abi_version == ZUN_KODO_ABI_VERSION && strcmp(name, ZUN_KODO_CLASS) == 0;
  return is_known ? &statsd_class : NULL;
}
