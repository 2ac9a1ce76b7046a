/* Every function of the C interface: MODULE STORE URL. Run by reporter_edges_test.cpp, whose server checks
 * what arrives. */
#define _DEFAULT_SOURCE /* fork */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#ifndef _WIN32
#include <sys/wait.h>
#include <unistd.h>
#endif

#include "veld_report/veld_report.h"

static char error[256];

#define CHECK(condition)                                                                       \
  do {                                                                                         \
    if (condition) break;                                                                      \
    fprintf(stderr, "%s:%d: %s; the last error: %s\n", __FILE__, __LINE__, #condition, error); \
    _exit(1);                                                                                  \
  } while (0)

static const char record[] = "{\"from\":\"C\",\"text\":\"gr\\u00fc\\u00df\"}";
static const int32_t invalid_argument = (int32_t)0x80000046;

static int32_t send(veld_report_handle* reporter, const char* consumer) {
  return veld_report_send_json(reporter, consumer, record, sizeof record - 1, error, sizeof error);
}

static void listen_to(void* context, const veld_report_request* request) {
  CHECK(request->struct_size == sizeof *request && request->result == 0);
  CHECK(request->status == 200 && strcmp(request->endpoint, request->url) == 0 && *request->text == 0);
  CHECK(request->records == 1 && request->bytes == sizeof record - 1);
  ++*(int*)context;
}

static void count_sends(void* context, uint32_t level, const char* text) {
  if (level == 700 && strncmp(text, "veld_rep\tSendStatistic", 22) == 0) ++*(int*)context;
}

static void hear_losses(void* context, const veld_report_loss* loss) {
  CHECK(loss->struct_size == sizeof *loss && *loss->why);
  sprintf((char*)context + strlen(context), "%s %ld; ", loss->reason, (long)loss->count.items);
}

static void collect(void* context, const veld_report_endpoint_statistics* endpoint) {
  char* text = context;
  sprintf(text + strlen(text), "%s %ld %u; ", endpoint->consumer, (long)endpoint->queue.waiting.bytes,
          endpoint->last_status);
}

static void check_open(veld_report_options options) {
  veld_report_handle* reporter = NULL;
  char cut[5] = "";
  CHECK(veld_report_open(NULL, &reporter, NULL, 0) == invalid_argument);
  CHECK(veld_report_open(&options, &reporter, cut, sizeof cut) == invalid_argument && strlen(cut) == 4);
  options.store = NULL;
  options.struct_size = sizeof options;
  CHECK(veld_report_open(&options, &reporter, error, sizeof error) == invalid_argument && !reporter);
  CHECK(strstr(error, "no store"));
}

static void check_settings(veld_report_handle* reporter) {
  const char* const pin = "sha256//AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA=";
  veld_report_settings before = {.struct_size = sizeof before};
  CHECK(veld_report_get_settings(reporter, &before) == 0 && before.packet_limit == 100);
  const veld_report_endpoint endpoints[] = {before.endpoints[0],
                                            {.url = "https://127.0.0.1:1/",
                                             .consumer = "other",
                                             .certificates = &pin,
                                             .certificate_count = 1,
                                             .compress = "zstd"}};
  veld_report_settings changed = before;
  changed.endpoints = endpoints;
  changed.endpoint_count = 2;
  changed.packet_limit = UINT32_MAX;
  const veld_report_member late = {.name = "late", .value = "1"};
  changed.common = &late;
  changed.common_count = 1;
  changed.send_every_s = 0x7fffffff;
  CHECK(veld_report_set_settings(reporter, &changed, error, sizeof error) == invalid_argument);
  CHECK(strstr(error, "sendEvery"));
  changed.send_every_s = 2;
  CHECK(veld_report_set_settings(reporter, &changed, error, sizeof error) == 0);
  veld_report_settings now = {.struct_size = sizeof now};
  CHECK(veld_report_get_settings(reporter, &now) == 0 && now.common_count == 1);
  CHECK(strcmp(now.common->name, "late") == 0 && strcmp(now.common->value, "1") == 0);
  veld_report_free_settings(&now);
  /* The first header ended before. */
  changed.struct_size = offsetof(veld_report_settings, common);
  CHECK(veld_report_set_settings(reporter, &changed, error, sizeof error) == 0);
  CHECK(veld_report_get_settings(reporter, &now) == 0 && now.common_count == 0);
  veld_report_free_settings(&now);
  veld_report_free_settings(&before);
}

#ifndef _WIN32
static void check_fork(veld_report_handle* reporter) {
  const int32_t invalid_state = (int32_t)0x8000006a;
  int status = -1;
  const pid_t child = fork();
  if (child == 0) {
    CHECK(send(reporter, NULL) == invalid_state && strstr(error, "forked"));
    CHECK(veld_report_flush(reporter, 60000) == 0 && veld_report_flush_to_store(reporter, 60000) == 0);
    CHECK(veld_report_allow_sending(reporter, 1) == invalid_state);
    CHECK(veld_report_endpoint_stats(reporter, collect, NULL) == invalid_state);
    CHECK(veld_report_close(reporter, 60000) == 0);
    veld_report_free(reporter);
    _exit(0);
  }
  CHECK(waitpid(child, &status, 0) == child && status == 0);
}
#endif

int main(int count, char** arguments) {
  CHECK(count == 4);
  const char* const header = "X-Product: C";
  const veld_report_endpoint endpoint = {.url = arguments[3], .consumer = "product"};
  int finished[2] = {0, 0}, sends = 0;
  char losses[100] = "";
  veld_report_options options = {.store = arguments[2], .module_path = arguments[1]};
  check_open(options);

  options.struct_size = sizeof options;
  options.endpoints = &endpoint;
  options.endpoint_count = 1;
  options.headers = &header;
  options.header_count = 1;
  options.user_agent = "reporter_c_program";
  options.proxy = "";
  options.listener = listen_to;
  options.listener_context = &finished[0];
  options.store_limit_bytes = sizeof record; /* room for one */
  options.hold_sending = 1;
  options.trace_level = 700;
  options.log = count_sends;
  options.log_context = &sends;
  options.loss_listener = hear_losses;
  options.loss_context = losses;
  veld_report_handle* reporter;
  CHECK(veld_report_open(&options, &reporter, error, sizeof error) == 0);
  check_settings(reporter);
  CHECK(send(reporter, "product") == 0 && send(reporter, "product") == 0);
  CHECK(send(reporter, "x") < 0 && veld_report_send_json(reporter, NULL, record, 3, NULL, 0) < 0);
  CHECK(veld_report_flush_to_store(reporter, 30000) == 1);
  veld_report_statistics stats = {.struct_size = sizeof stats};
  CHECK(veld_report_stats(reporter, &stats) == 0 && stats.submitted == 2 && stats.refused == 2);
  CHECK(stats.accepted == 2 && stats.evicted == 1 && stats.waiting == 1);
  CHECK(stats.total.waiting.bytes == sizeof record - 1 && stats.total.evicted.items == 1);
#ifndef _WIN32
  check_fork(reporter);
#endif

  CHECK(veld_report_allow_sending(reporter, 1) == 0 && veld_report_flush(reporter, 30000) == 1);
  char text[100] = "";
  CHECK(veld_report_endpoint_stats(reporter, collect, text) == 0 &&
        strcmp(text, "product 0 200; other 0 0; ") == 0);
  CHECK(veld_report_set_listener(reporter, listen_to, &finished[1]) == 0);
  CHECK(send(reporter, "product") == 0 && veld_report_flush(reporter, 30000) == 1);
  CHECK(veld_report_allow_sending(reporter, 0) == 0 && send(reporter, "product") == 0);
  CHECK(veld_report_set_loss_listener(reporter, hear_losses, losses) == 0);
  CHECK(veld_report_forget(reporter, error, sizeof error) == 0);
  CHECK(veld_report_stats(reporter, &stats) == 0 && stats.delivered == 2 && stats.total.removed.items == 1);
  CHECK(veld_report_is_closed(reporter) == 0);
  CHECK(veld_report_close(reporter, 30000) == 1 && veld_report_is_closed(reporter) == 1);
  CHECK(veld_report_stats(reporter, &stats) < 0);
  CHECK(strcmp(losses, "evicted 1; removed 1; ") == 0);
  CHECK(finished[0] == 1 && finished[1] == 1 && sends >= 4);
  veld_report_free(reporter);

  veld_report_code_text(0, error, sizeof error);
  CHECK(strcmp(error, "0x00000000 No error") == 0);
  veld_report_free(NULL);
  CHECK(veld_report_flush(NULL, 1) == 0 && veld_report_close(NULL, 1) == 0);
  CHECK(veld_report_endpoint_stats(NULL, collect, text) == invalid_argument);
  return 0;
}
