/* The reporter for C, and for every language that can call C.
 *
 * It is the C++ reporter (reporter.h) without described records: records are JSON text. All text is UTF-8 and
 * NUL-terminated unless it comes with a length. No exception crosses, and pointers that are passed in are
 * only read during the call. Link with libveld_report_c, or load it.
 *
 * A negative result is a failure: one of the codes of types/result_code.h. Functions that can fail in more
 * than one way take a buffer for a sentence about the failure. It may be NULL, and the sentence is cut to
 * fit. Nothing is written to it on success.
 */
#ifndef VELD_REPORT_VELD_REPORT_H
#define VELD_REPORT_VELD_REPORT_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define VELD_REPORT_API __attribute__((visibility("default")))

/* Threads: any, for all functions except veld_report_free, during which nobody may use the handle. */
typedef struct veld_report_handle veld_report_handle;

typedef struct veld_report_endpoint {
  const char* url;      /* https://, or http:// to this machine or with allow_http */
  const char* consumer; /* NULL or "": only gets the records for all */
} veld_report_endpoint;

/* Fill it with zeros and set struct_size, store and the endpoints. Everything else has a default, which 0 or
 * NULL selects. */
typedef struct veld_report_options {
  size_t struct_size; /* sizeof(veld_report_options); that of an earlier header will do */
  const char* store;  /* folder of the store; created if it doesn't exist */
  const veld_report_endpoint* endpoints;
  size_t endpoint_count;
  uint32_t packet_limit;        /* maximum records in a request; default 100 */
  uint32_t queue_limit_kb;      /* of each endpoint's queue; default 10240 */
  uint32_t retry_after_s;       /* delay after a failed cycle; default 30 */
  const char* signing_key_file; /* Ed25519 private key, PEM; default: unsigned */
  const char* trace_file;       /* default: stderr */
  uint32_t trace_level;         /* 300: failures, 700: everything; default: nothing */
  const char* module_path;      /* of libveld_report.so; default: the usual places */
  uint32_t packet_limit_kb;     /* maximum size of a request's records; default 256 */
  uint32_t send_every_s;        /* minimum time between requests to a url; default: none */
  uint32_t allow_http; /* not 0: http:// urls to other machines too, which anyone on the way can read */
  uint32_t reserved;   /* 0 */
} veld_report_options;

/* Opens a store and starts sending. *out receives a handle, for veld_report_free. 0 or a failure. */
VELD_REPORT_API int32_t veld_report_open(const veld_report_options* options, veld_report_handle** out,
                                         char* error, size_t error_size);

/* Accepts one JSON value of `length` bytes. consumer: NULL or "" for all endpoints. 0 or a failure. Waits for
 * neither disk nor network. */
VELD_REPORT_API int32_t veld_report_send_json(veld_report_handle* reporter, const char* consumer,
                                              const char* json, size_t length, char* error,
                                              size_t error_size);

/* Starts a send cycle and waits. 1: everything that was accepted before was answered 200 or dropped by a
 * documented rule; 0: not in time. */
VELD_REPORT_API int32_t veld_report_flush(veld_report_handle* reporter, uint32_t deadline_ms);

/* The same, but only waits until everything is in the store's file, safe from a crash of the process. */
VELD_REPORT_API int32_t veld_report_flush_to_store(veld_report_handle* reporter, uint32_t deadline_ms);

/* Over the whole life of the store; a record for two endpoints counts twice. At any time
 * accepted = delivered + evicted + rejected + removed + waiting. */
typedef struct veld_report_statistics {
  size_t struct_size; /* sizeof(veld_report_statistics), set by the caller */
  uint64_t submitted; /* accepted by veld_report_send_json, in this process */
  uint64_t refused;   /* refused by it */
  int64_t accepted;
  int64_t delivered;
  int64_t evicted;
  int64_t rejected;
  int64_t removed;
  int64_t waiting;
  int64_t waiting_bytes;
} veld_report_statistics;

/* 0 or a failure; after veld_report_close always a failure. */
VELD_REPORT_API int32_t veld_report_stats(veld_report_handle* reporter, veld_report_statistics* out);

/* Accepts no more records, flushes until the deadline, and stops; undelivered records stay in the store.
 * Takes at most the deadline plus 5 seconds. 1: all was flushed; 0: not. The handle stays, for
 * veld_report_free. */
VELD_REPORT_API int32_t veld_report_close(veld_report_handle* reporter, uint32_t deadline_ms);

/* Frees the handle. If it isn't closed, closes it first without waiting. Does nothing for NULL. */
VELD_REPORT_API void veld_report_free(veld_report_handle* reporter);

#ifdef __cplusplus
}
#endif

#endif
