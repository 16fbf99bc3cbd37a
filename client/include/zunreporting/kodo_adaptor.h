/* The C interface between zunreportingd and its metrics adaptor.
 *
 * The adaptor is a shared object that you supply. The daemon loads it when the first
 * session asks for its metrics backend, makes one object of your class per backend and
 * hands that object every event. docs/adaptor.md shows how to build and install one; a
 * whole adaptor stands in packaging/adaptor/.
 *
 * The module exports one symbol, the function zun_kodo_class_named. Everything else goes
 * through the function tables below.
 *
 * Threads.   One object is used by one thread at a time, but not always by the same one.
 *            Several objects are used at the same time, and `create` may be called on
 *            several threads at once: what your objects share needs your own lock. Calls
 *            run on the thread that serves the client, which waits for them. Return soon;
 *            hand slow work (files, sockets) to a thread of your own.
 * Ownership. What the daemon passes (texts, values, the accessor table's results) is the
 *            daemon's, is read-only and ends with the call: copy what you keep. What you
 *            return (the class, descriptions) stays yours.
 * Errors.    No exception may leave a function of yours, and none leaves one of the
 *            daemon's. One that does ends the daemon. In C++, declare your functions
 *            noexcept.
 * Lifetime.  A loaded module is never unloaded, so threads and thread-local data of yours
 *            are safe. `destroy` is called for every object while the daemon runs; objects
 *            that are left when the process ends are not destroyed. Replace an installed
 *            module by renaming a new file over it, never by writing into it; a running
 *            daemon keeps the one that it has loaded.
 * Versions.  ZUN_KODO_ABI_VERSION changes when something here changes its meaning or its
 *            place. Functions that are added go to the end of zun_kodo_accessors and change
 *            its `size` only.
 *
 * An event's payload comes as typed values that you walk through, not as text: integers
 * keep all their 64 bits, data and dates stay what they are, an adaptor that only counts
 * pays for nothing, and none needs a parser.
 */
#ifndef ZUNREPORTING_KODO_ADAPTOR_H
#define ZUNREPORTING_KODO_ADAPTOR_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define ZUN_KODO_ABI_VERSION 1u

/* The exported function. */
#define ZUN_KODO_ENTRY_POINT "zun_kodo_class_named"

/* The class that the daemon asks for, and the operation that it calls on its objects. */
#define ZUN_KODO_CLASS "KodoAdaptor"
#define ZUN_KODO_SEND_MESSAGE "sendMessageWithMethod:respCode:dict:"

#define ZUN_KODO_EXPORT __attribute__((visibility("default")))

/* What a value is. A kind that you do not know is one to pass over. */
enum {
  ZUN_KODO_NONE = 0,
  ZUN_KODO_BOOLEAN = 1,
  ZUN_KODO_INTEGER = 2,
  ZUN_KODO_REAL = 3,
  ZUN_KODO_STRING = 4,
  ZUN_KODO_DATA = 5,
  ZUN_KODO_DATE = 6,
  ZUN_KODO_ARRAY = 7,
  ZUN_KODO_DICTIONARY = 8
};

/* A value of the daemon's. Read it through the accessors. */
typedef struct zun_kodo_value zun_kodo_value;

/* So many bytes, not ended by a NUL; text is UTF-8 and may contain NULs. */
typedef struct zun_kodo_bytes {
  const char* bytes; /* may be null where length is 0 */
  size_t length;
} zun_kodo_bytes;

/* A place in an array or a dictionary. All zeros stand before the first element. */
typedef struct zun_kodo_cursor {
  const void* place[2];
} zun_kodo_cursor;

/* How values are read. Any thread, during the call that passed the value. Asked for what
 * a value is not, an accessor gives the nearest thing: a number of another kind is
 * converted, a text's leading number counts, everything else is 0 or empty.
 */
typedef struct zun_kodo_accessors {
  size_t size; /* of this table in the daemon that calls you */

  int (*kind)(const zun_kodo_value* value);

  int (*boolean)(const zun_kodo_value* value);
  int64_t (*integer)(const zun_kodo_value* value);
  /* 1 for an integer above INT64_MAX: cast `integer` to uint64_t. */
  int (*is_unsigned)(const zun_kodo_value* value);
  double (*real)(const zun_kodo_value* value);
  zun_kodo_bytes (*string)(const zun_kodo_value* value);
  zun_kodo_bytes (*data)(const zun_kodo_value* value);
  double (*date)(const zun_kodo_value* value); /* seconds since 1970 UTC */

  /* Elements of an array or a dictionary. */
  size_t (*count)(const zun_kodo_value* container);
  /* Goes to the next element: 1 and the element, or 0 after the last. `key` is empty for
   * an array's elements; `key` and `value` may be null. Order is the sender's.
   */
  int (*next)(const zun_kodo_value* container, zun_kodo_cursor* cursor, zun_kodo_bytes* key,
              const zun_kodo_value** value);
  /* What a dictionary holds under a key of `length` bytes; null if nothing. */
  const zun_kodo_value* (*value_for_key)(const zun_kodo_value* dictionary, const char* key, size_t length);
} zun_kodo_accessors;

/* A class: how the daemon makes, asks, calls and ends objects of it. No function may be
 * null.
 */
typedef struct zun_kodo_class {
  uint32_t abi_version; /* ZUN_KODO_ABI_VERSION */

  /* A new object, or null if that is not possible; the next session tries again. */
  void* (*create)(void);
  void (*destroy)(void* object);

  /* Text in UTF-8 for the daemon's log, or null. Good until the next call on the object. */
  const char* (*description)(void* object);

  /* 1 if `perform` takes the operation of that name, else 0. Asked before every event, so
   * an adaptor may turn itself on and off. The daemon writes an error line for each event
   * that finds it off.
   */
  int (*responds_to)(void* object, const char* operation);

  /* An event: its category ("method"), its type ("respCode") and its payload, a dictionary
   * that may be empty.
   */
  void (*perform)(void* object, const char* operation, uint16_t method, uint16_t resp_code,
                  const zun_kodo_value* dict, const zun_kodo_accessors* accessors);
} zun_kodo_class;

/* The module's entry point: the class of that name, or null if there is none for this
 * version of the interface. Any thread. The class lasts as long as the process.
 */
ZUN_KODO_EXPORT const zun_kodo_class* zun_kodo_class_named(uint32_t abi_version, const char* name);

#ifdef __cplusplus
}
#endif

#endif
