/* The reporter for C, and for everything that can call C.
 *
 * It is the C++ reporter (reporter.h), less the described records: what is sent is JSON text. All text is
 * UTF-8 and NUL-terminated unless a length goes with it, no exception crosses, and every pointer that is
 * passed in is only read during the call. Link with libveld_report_c, or load it.
 *
 * A result below zero is a failure: one of the codes of types/result_code.h. Functions that can fail in more
 * than one way take a buffer for a sentence about it; it may be NULL, and the sentence is cut to fit. Nothing
 * is written to it on success.
 */
#ifndef VELD_REPORT_VELD_REPORT_H
#define VELD_REPORT_VELD_REPORT_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define VELD_REPORT_API __attribute__((visibility("default")))

/* Threads: any, for all functions but veld_report_free, which nobody else may be using the handle with. */
typedef struct veld_report_handle veld_report_handle;

typedef struct veld_report_endpoint {
  const char* url;      /* http:// or https:// */
  const char* consumer; /* NULL or "": takes only what is for all */
} veld_report_endpoint;

/* Fill it with zeros, set struct_size, store and the endpoints; everything else has a default, which 0 or
 * NULL stands for. */
typedef struct veld_report_options {
  size_t struct_size; /* sizeof(veld_report_options) */
  const char* store;  /* folder of the store; made if it isn't there */
  const veld_report_endpoint* endpoints;
  size_t endpoint_count;
  uint32_t packet_limit;        /* most records in one request; default 100 */
  uint32_t queue_limit_kb;      /* of each endpoint's queue; default 10240 */
  uint32_t retry_after_s;       /* from a failed cycle to the next; default 30 */
  const char* signing_key_file; /* Ed25519 private key, PEM; default: unsigned */
  const char* trace_file;       /* default: stderr */
  uint32_t trace_level;         /* 300: failures, 700: everything; default: nothing */
  const char* module_path;      /* of libveld_report.so; default: where it is usually found */
} veld_report_options;

/* Opens a store and starts sending. *out gets a handle, for veld_report_free. 0 or a failure. */
VELD_REPORT_API int32_t veld_report_open(const veld_report_options* options, veld_report_handle** out,
                                         char* error, size_t error_size);

/* Takes one JSON value of `length` bytes. consumer: NULL or "" for all endpoints. 0 or a failure. Waits for
 * neither disk nor network. */
VELD_REPORT_API int32_t veld_report_send_json(veld_report_handle* reporter, const char* consumer,
                                              const char* json, size_t length, char* error,
                                              size_t error_size);

/* Starts a send cycle and waits. 1: everything that was accepted before has been answered 200 or was dropped
 * by a stated rule; 0: not within the time. */
VELD_REPORT_API int32_t veld_report_flush(veld_report_handle* reporter, uint32_t deadline_ms);

/* The same, but content when everything is in the store's file, safe from a crash of the process. */
VELD_REPORT_API int32_t veld_report_flush_to_store(veld_report_handle* reporter, uint32_t deadline_ms);

/* Over the whole life of the store; a record that goes to two endpoints counts twice. At every moment
 * accepted = delivered + evicted + rejected + removed + waiting. */
typedef struct veld_report_statistics {
  size_t struct_size; /* sizeof(veld_report_statistics), set by the caller */
  uint64_t submitted; /* taken by veld_report_send_json, in this process */
  uint64_t refused;   /* refused by it */
  int64_t accepted;
  int64_t delivered;
  int64_t evicted;
  int64_t rejected;
  int64_t removed;
  int64_t waiting;
  int64_t waiting_bytes;
} veld_report_statistics;

/* 0 or a failure, also after veld_report_close. */
VELD_REPORT_API int32_t veld_report_stats(veld_report_handle* reporter, veld_report_statistics* out);

/* Takes no more records, flushes as long as it may, and stops; what is undelivered stays in the store. Takes
 * at most the deadline plus 5 seconds. 1: all was flushed; 0: not. The handle stays, for veld_report_free. */
VELD_REPORT_API int32_t veld_report_close(veld_report_handle* reporter, uint32_t deadline_ms);

/* Ends the handle, after a close without waiting if there was none. NULL does nothing. */
VELD_REPORT_API void veld_report_free(veld_report_handle* reporter);

#ifdef __cplusplus
}
#endif

#endif
