/* The reporter for C, and for every language that can call C.
 *
 * It is the C++ reporter (reporter.h) without described records: records are JSON text. All text is UTF-8 and
 * NUL-terminated unless it comes with a length. No exception crosses. Link with libveld_report_c, or load it.
 *
 * Memory: what you pass in is only read during the call. What a callback gets is valid until it returns.
 * There are two things to free: the handle, and what veld_report_get_settings has filled.
 *
 * Failures: a negative result is one of the codes of types/result_code.h. Functions that can fail in more
 * than one way take a buffer for a sentence about the failure. It may be NULL, and the sentence is cut to
 * fit. Nothing is written to it on success.
 *
 * Versions: a struct begins with its size. One that a program fills has the size of the header that the
 * program was compiled with; a later library serves it. One that a callback gets has the size of the
 * library's header; don't read beyond it. Members are only ever appended.
 *
 * fork: in a child, a handle of the parent is refused with 0x8000006a "Invalid state", or 0 by the functions
 * that wait. veld_report_free there frees it without touching the store.
 */
#ifndef VELD_REPORT_VELD_REPORT_H
#define VELD_REPORT_VELD_REPORT_H

#include <stddef.h>
#include <stdint.h>

#include "veld_report/version.h"

#ifdef __cplusplus
extern "C" {
#endif

#if defined(_WIN32)
#define VELD_REPORT_API
#else
#define VELD_REPORT_API __attribute__((visibility("default")))
#endif

/* Threads: any, for all functions except veld_report_free, during which nobody may use the handle. */
typedef struct veld_report_handle veld_report_handle;

/* A limit with this value, or with UINT32_MAX if it has 32 bits, is none. 0 selects the default. */
#define VELD_REPORT_NO_LIMIT UINT64_MAX

typedef struct veld_report_endpoint {
  const char* url;      /* https://, or http:// to this machine or with allow_http */
  const char* consumer; /* NULL or "": only gets the records for all */
  /* CA certificates as PEM texts, or pins of the server's key as "sha256//BASE64". With any given, only they
   * count for this url. */
  const char* const* certificates;
  size_t certificate_count;
  const char* compress; /* "gzip" or "zstd"; NULL, "" or "none": requests aren't compressed. See reporter.h */
  const void* reserved[1]; /* NULL */
} veld_report_endpoint;

/* A member that is added to every record, see reporter.h. */
typedef struct veld_report_member {
  const char* name;
  const char* value; /* becomes a JSON string */
} veld_report_member;

/* What can be changed at run time. Fill it with zeros and set struct_size, or let veld_report_get_settings
 * fill it. 0 selects a default; see veld_report_options. */
typedef struct veld_report_settings {
  size_t struct_size; /* sizeof(veld_report_settings) */
  const veld_report_endpoint* endpoints;
  size_t endpoint_count;
  uint32_t packet_limit;
  uint32_t queue_limit_kb;
  uint32_t retry_after_s;
  uint32_t packet_limit_kb;
  uint32_t send_every_s;
  uint32_t allow_http;
  void* memory; /* of veld_report_get_settings; otherwise not used */
  /* Ed25519 private key, PEM, from the next request on. NULL: the present key stays; "": unsigned. */
  const char* signing_key_file;
  const veld_report_member* common; /* added to every record */
  size_t common_count;
} veld_report_settings;

/* A completed request. */
typedef struct veld_report_request {
  size_t struct_size;
  const char* url;
  /* 0: answered with 200, and its items are gone from the queue. 0x80000071: another status. Any other code:
   * no answer. In the last two cases the items stay in their queue. */
  int32_t result;
  uint32_t status;      /* of the answer; 0: there was none */
  const char* endpoint; /* the url without user and password */
  const char* text;     /* how it failed, a sentence; "" for an answer of 200 */
  uint64_t records;     /* in the request */
  uint64_t bytes;       /* of these records as JSON */
} veld_report_request;

/* Called for each completed request, on a thread of the library, until veld_report_close returns; a call that
 * takes longer than the close may go on, see veld_report_is_closed. It should return soon and must not close
 * or free the handle. */
typedef void (*veld_report_listener)(void* context, const veld_report_request* request);

typedef struct veld_report_count {
  int64_t items;
  int64_t bytes;
} veld_report_count;

/* A loss of records. */
typedef struct veld_report_loss {
  size_t struct_size;
  const char* url;    /* of the endpoint, without user and password; "" if it isn't known */
  const char* reason; /* "evicted", "expired", "rejected", "removed" or "damaged" */
  const char* why;    /* a sentence */
  veld_report_count
      count; /* since the last call with this url and reason; 0 items: it isn't known how many */
} veld_report_loss;

/* Called soon after a loss, for each url and reason, and then at most once a second, on a thread of its own,
 * like veld_report_listener. */
typedef void (*veld_report_loss_listener)(void* context, const veld_report_loss* loss);

/* Called for each trace line with its level (300 failures, 700 everything else), without time and line end.
 * One call at a time, on whatever thread traces, which may be one in veld_report_send_json. It should return
 * soon, must not use the handle, and must not wait for a lock that is held around a call with the handle. */
typedef void (*veld_report_log)(void* context, uint32_t level, const char* text);

/* Fill it with zeros and set struct_size, store and the endpoints. Everything else has a default, which 0 or
 * NULL selects. */
typedef struct veld_report_options {
  size_t struct_size; /* sizeof(veld_report_options) */
  const char* store;  /* folder of the store; created if it doesn't exist */
  const veld_report_endpoint* endpoints;
  size_t endpoint_count;
  uint32_t packet_limit;        /* maximum records in a request; default 100 */
  uint32_t queue_limit_kb;      /* of each endpoint's queue; default 10240 */
  uint32_t retry_after_s;       /* delay after a failed cycle; default 30 */
  const char* signing_key_file; /* Ed25519 private key, PEM; default: unsigned */
  const char* trace_file;       /* default: stderr */
  uint32_t trace_level;         /* 300: failures, 700: everything; default: nothing */
  const char* module_path;      /* of libveld_report.so; default: it is looked for */
  uint32_t packet_limit_kb;     /* maximum size of a request's records; default 256 */
  uint32_t send_every_s;        /* minimum time between requests to a url; default: none */
  uint32_t allow_http; /* not 0: http:// urls to other machines too, which anyone on the way can read */
  uint32_t shared;     /* not 0: several processes may use the store, all with this set */
  const char* proxy;   /* default: from the environment; "": none */
  const char* const* headers; /* of every request, each "Name: value" */
  size_t header_count;
  const char* user_agent;        /* default: no header User-Agent */
  const char* ca_file;           /* trusted certificates; default: the system's */
  veld_report_listener listener; /* default: none */
  void* listener_context;
  uint64_t memory_limit_records; /* not yet in the store; beyond it records are refused. Default 100000 */
  uint64_t memory_limit_bytes;   /* default 64 MiB */
  uint64_t max_age_ms;           /* of a record in the store; default: no limit */
  uint64_t store_limit_bytes;    /* of all queues together; default: no limit */
  uint32_t commit_every_record;  /* not 0: each record is written by itself, not in groups of 10 ms */
  uint32_t sync_every_commit;    /* not 0: what is written survives a crash of the machine */
  uint32_t hold_sending;         /* not 0: sends nothing until veld_report_allow_sending */
  uint32_t stamp;                /* not 0: adds "recordId" and "recordTime" to each record, see reporter.h */
  veld_report_log log;           /* gets the trace in place of the file */
  void* log_context;
  veld_report_loss_listener loss_listener; /* default: none */
  void* loss_context;
  uint32_t store_within_ms; /* how soon a record is in the store's file; default: with the cycle that sends */
  uint32_t secure_delete;   /* not 0: records that have left the store are overwritten on the disk */
  const veld_report_member* common; /* added to every record */
  size_t common_count;
} veld_report_options;

/* Of the library, in the form of VELD_REPORT_VERSION. It isn't freed. */
VELD_REPORT_API const char* veld_report_version(void);

/* Writes the text of a code, such as "0x80000062 Out of space", cut to fit. */
VELD_REPORT_API void veld_report_code_text(int32_t code, char* text, size_t text_size);

/* Opens a store and starts sending. *out receives a handle, for veld_report_free. 0 or a failure. */
VELD_REPORT_API int32_t veld_report_open(const veld_report_options* options, veld_report_handle** out,
                                         char* error, size_t error_size);

/* Accepts one JSON object of `length` bytes. consumer: NULL or "" for all endpoints. 0 or a failure. Waits
 * for neither disk nor network. */
VELD_REPORT_API int32_t veld_report_send_json(veld_report_handle* reporter, const char* consumer,
                                              const char* json, size_t length, char* error,
                                              size_t error_size);

/* Starts a send cycle and waits. 1: everything that was accepted before was answered 200 or dropped by a
 * documented rule; 0: not in time, or the handle is closed or NULL. */
VELD_REPORT_API int32_t veld_report_flush(veld_report_handle* reporter, uint32_t deadline_ms);

/* The same, but only waits until everything is in the store's file, safe from a crash of the process. While
 * the disk doesn't answer, both wait for it beyond the deadline; veld_report_close doesn't. */
VELD_REPORT_API int32_t veld_report_flush_to_store(veld_report_handle* reporter, uint32_t deadline_ms);

/* Replaces the settings as a whole, from the next cycle on. The queue of a url that is gone is removed with
 * its records. 0, or a failure with nothing changed. */
VELD_REPORT_API int32_t veld_report_set_settings(veld_report_handle* reporter,
                                                 const veld_report_settings* settings, char* error,
                                                 size_t error_size);

/* Fills *out, whose struct_size is set, with the current settings. Free what it points to with
 * veld_report_free_settings, whatever you have changed in it meanwhile. 0, or a failure with nothing to free.
 */
VELD_REPORT_API int32_t veld_report_get_settings(veld_report_handle* reporter, veld_report_settings* out);
VELD_REPORT_API void veld_report_free_settings(veld_report_settings* settings);

/* Replaces the listener; NULL: none. The previous one may still be running after the return. 0 or a failure.
 */
VELD_REPORT_API int32_t veld_report_set_listener(veld_report_handle* reporter, veld_report_listener listener,
                                                 void* context);

/* The same for the loss listener. */
VELD_REPORT_API int32_t veld_report_set_loss_listener(veld_report_handle* reporter,
                                                      veld_report_loss_listener listener, void* context);

/* allowed = 0: no request starts after the return, and one in flight is cut. Records are still accepted and
 * stored. The last call counts. 0 or a failure. */
VELD_REPORT_API int32_t veld_report_allow_sending(veld_report_handle* reporter, uint32_t allowed);

/* Removes everything that is waiting, in memory and in the store, and leaves none of it readable on the disk.
 * 0 or a failure. */
VELD_REPORT_API int32_t veld_report_forget(veld_report_handle* reporter, char* error, size_t error_size);

/* At any time accepted = delivered + evicted + rejected + removed + waiting. */
typedef struct veld_report_ledger {
  veld_report_count accepted;
  veld_report_count delivered;
  veld_report_count evicted;  /* dropped to make room, or for their age */
  veld_report_count rejected; /* couldn't be stored */
  veld_report_count removed;  /* removed with their queue, or damaged */
  veld_report_count waiting;
  veld_report_count returned; /* given back after a failed request; they are waiting */
  veld_report_count expired;  /* of evicted: dropped for their age */
  veld_report_count damaged;  /* of removed: in a damaged file */
} veld_report_ledger;

/* Of the store over its whole life, including former endpoints; a record for two endpoints counts twice. */
typedef struct veld_report_statistics {
  size_t struct_size; /* sizeof(veld_report_statistics), set by the caller */
  uint64_t submitted; /* accepted by veld_report_send_json, in this process */
  uint64_t refused;   /* refused by it */
  int64_t accepted;   /* items of `total`, like the next six */
  int64_t delivered;
  int64_t evicted;
  int64_t rejected;
  int64_t removed;
  int64_t waiting;
  int64_t waiting_bytes;
  uint64_t in_memory; /* upper bound: of `submitted`, those not in the store yet */
  veld_report_ledger total;
} veld_report_statistics;

/* 0 or a failure; after veld_report_close always a failure. */
VELD_REPORT_API int32_t veld_report_stats(veld_report_handle* reporter, veld_report_statistics* out);

typedef struct veld_report_endpoint_statistics {
  size_t struct_size;
  const char* url;          /* without user and password */
  const char* consumer;     /* "" if it has none */
  const char* last_error;   /* "" after a good answer */
  uint32_t last_status;     /* 0: no answer yet */
  uint32_t reserved;        /* 0 */
  int64_t waits_until_ms;   /* since 1970: requests are held back until then; 0: they aren't */
  veld_report_ledger queue; /* of its queue, over the store's life */
} veld_report_endpoint_statistics;

typedef void (*veld_report_endpoint_visitor)(void* context, const veld_report_endpoint_statistics* endpoint);

/* Calls `visit` on this thread for each endpoint, in the order of the settings. Results as of
 * veld_report_stats. */
VELD_REPORT_API int32_t veld_report_endpoint_stats(veld_report_handle* reporter,
                                                   veld_report_endpoint_visitor visit, void* context);

/* Accepts no more records, flushes until the deadline, and stops; undelivered records stay in the store.
 * Takes at most the deadline plus 5 seconds. 1: all was flushed; 0: not. The handle stays, for
 * veld_report_free. If a disk or a listener takes longer, the end goes on in the background. */
VELD_REPORT_API int32_t veld_report_close(veld_report_handle* reporter, uint32_t deadline_ms);

/* 1: everything has ended after a close: the threads, the calls of the listener, and the lock on the store's
 * folder; 0: not. */
VELD_REPORT_API int32_t veld_report_is_closed(veld_report_handle* reporter);

/* Frees the handle. If it isn't closed, closes it first without waiting. Does nothing for NULL. */
VELD_REPORT_API void veld_report_free(veld_report_handle* reporter);

#ifdef __cplusplus
}
#endif

#endif
