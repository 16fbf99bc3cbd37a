/* A metrics adaptor for tests. It appends a line to the file that ZUN_TEST_ADAPTOR_FILE
 * names for each object made ("create"), each event ("event N METHOD RESPCODE PAYLOAD",
 * where N counts the object's events) and each object ended ("destroy N"). The payload is
 * written as JSON; data is {"data": HEX}, a date {"date": SECONDS}. While
 * ZUN_TEST_ADAPTOR_OFF is set, objects offer no operation.
 */
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "zunreporting/kodo_adaptor.h"

typedef struct adaptor {
  unsigned events;
  char description[64];
} adaptor;

static FILE* open_record(void) {
  const char* path = getenv("ZUN_TEST_ADAPTOR_FILE");
  return path == NULL ? NULL : fopen(path, "ae");
}

static void record(const char* what, unsigned number) {
  FILE* file = open_record();
  if (file == NULL) return;
  fprintf(file, "%s %u\n", what, number);
  fclose(file);
}

static void write_text(FILE* file, zun_kodo_bytes text) {
  size_t i;
  fputc('"', file);
  for (i = 0; i < text.length; ++i) {
    const unsigned char byte = (unsigned char)text.bytes[i];
    if (byte < 0x20) {
      fprintf(file, "\\u%04x", byte);
    } else {
      if (byte == '"' || byte == '\\') fputc('\\', file);
      fputc(byte, file);
    }
  }
  fputc('"', file);
}

static void write_data(FILE* file, zun_kodo_bytes data) {
  size_t i;
  fputs("{\"data\":\"", file);
  for (i = 0; i < data.length; ++i) fprintf(file, "%02x", (unsigned char)data.bytes[i]);
  fputs("\"}", file);
}

static void write_value(FILE* file, const zun_kodo_value* value, const zun_kodo_accessors* values);

static void write_elements(FILE* file, const zun_kodo_value* container, const zun_kodo_accessors* values,
                           int has_keys) {
  zun_kodo_cursor cursor = {{NULL, NULL}};
  zun_kodo_bytes key;
  const zun_kodo_value* value;
  size_t left = values->count(container);
  fputc(has_keys ? '{' : '[', file);
  while (values->next(container, &cursor, &key, &value)) {
    if (has_keys) {
      write_text(file, key);
      fputc(':', file);
    }
    write_value(file, value, values);
    if (--left > 0) fputc(',', file);
  }
  fputc(has_keys ? '}' : ']', file);
}

static void write_integer(FILE* file, const zun_kodo_value* value, const zun_kodo_accessors* values) {
  if (values->is_unsigned(value)) {
    fprintf(file, "%" PRIu64, (uint64_t)values->integer(value));
  } else {
    fprintf(file, "%" PRId64, values->integer(value));
  }
}

static void write_value(FILE* file, const zun_kodo_value* value, const zun_kodo_accessors* values) {
  switch (values->kind(value)) {
    case ZUN_KODO_BOOLEAN: fputs(values->boolean(value) ? "true" : "false", file); break;
    case ZUN_KODO_INTEGER: write_integer(file, value, values); break;
    case ZUN_KODO_REAL: fprintf(file, "%.17g", values->real(value)); break;
    case ZUN_KODO_STRING: write_text(file, values->string(value)); break;
    case ZUN_KODO_DATA: write_data(file, values->data(value)); break;
    case ZUN_KODO_DATE: fprintf(file, "{\"date\":%.17g}", values->date(value)); break;
    case ZUN_KODO_ARRAY: write_elements(file, value, values, 0); break;
    case ZUN_KODO_DICTIONARY: write_elements(file, value, values, 1); break;
    default: fputs("null", file);
  }
}

static void* create(void) {
  adaptor* self = calloc(1, sizeof *self);
  if (self != NULL) record("create", 0);
  return self;
}

static void destroy(void* object) {
  record("destroy", ((adaptor*)object)->events);
  free(object);
}

static const char* description(void* object) {
  adaptor* self = object;
  snprintf(self->description, sizeof self->description, "recording adaptor (%u events)", self->events);
  return self->description;
}

static int responds_to(void* object, const char* operation) {
  (void)object;
  return getenv("ZUN_TEST_ADAPTOR_OFF") == NULL && strcmp(operation, ZUN_KODO_SEND_MESSAGE) == 0;
}

static void perform(void* object, const char* operation, uint16_t method, uint16_t resp_code,
                    const zun_kodo_value* dict, const zun_kodo_accessors* values) {
  adaptor* self = object;
  FILE* file = open_record();
  ++self->events;
  (void)operation;
  if (file == NULL) return;
  fprintf(file, "event %u %u %u ", self->events, method, resp_code);
  write_value(file, dict, values);
  fputc('\n', file);
  fclose(file);
}

static const zun_kodo_class recording_class = {
    .abi_version = ZUN_KODO_ABI_VERSION,
    .create = create,
    .destroy = destroy,
    .description = description,
    .responds_to = responds_to,
    .perform = perform,
};

const zun_kodo_class* zun_kodo_class_named(uint32_t abi_version, const char* name) {
  const int is_known = abi_version == ZUN_KODO_ABI_VERSION && strcmp(name, ZUN_KODO_CLASS) == 0;
  return is_known ? &recording_class : NULL;
}
