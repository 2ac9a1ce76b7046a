/* Every function of the C interface: MODULE STORE URL. Run by reporter_close_test.cpp. */
#include <stdio.h>
#include <string.h>

#include "veld_report/veld_report.h"

static int failed(const char* what, const char* error) {
  fprintf(stderr, "reporter_c_program: %s: %s\n", what, error);
  return 1;
}

int main(int count, char** arguments) {
  char error[256] = "";
  veld_report_handle* reporter = NULL;
  if (count != 4) return 2;
  const veld_report_endpoint endpoint = {arguments[3], "product"};
  veld_report_options options = {.struct_size = sizeof options,
                                 .endpoints = &endpoint,
                                 .endpoint_count = 1,
                                 .module_path = arguments[1]};
  if (veld_report_open(&options, &reporter, error, sizeof error) >= 0 || reporter ||
      !strstr(error, "no store")) {
    return failed("open without a store", error);
  }
  char shortError[5] = "";
  if (veld_report_open(&options, &reporter, shortError, sizeof shortError) >= 0 || strlen(shortError) != 4) {
    return failed("a sentence that doesn't fit", shortError);
  }
  options.store = arguments[2];
  if (veld_report_open(&options, &reporter, error, sizeof error) != 0) return failed("open", error);
  const char* const good = "{\"from\":\"C\",\"text\":\"gr\\u00fc\\u00df\"}";
  if (veld_report_send_json(reporter, "product", good, strlen(good), error, sizeof error) != 0) {
    return failed("send", error);
  }
  if (veld_report_send_json(reporter, NULL, good, 3, error, sizeof error) >= 0)
    return failed("send half", error);
  if (veld_report_send_json(reporter, "x", good, strlen(good), NULL, 0) >= 0)
    return failed("send to x", error);
  if (veld_report_flush_to_store(reporter, 30000) != 1) return failed("flush to store", "not in time");
  if (veld_report_flush(reporter, 30000) != 1) return failed("flush", "not in time");
  veld_report_statistics stats = {.struct_size = sizeof stats};
  if (veld_report_stats(reporter, &stats) != 0) return failed("stats", "");
  if (stats.submitted != 1 || stats.refused != 2 || stats.delivered != 1 || stats.waiting != 0) {
    return failed("stats", "wrong figures");
  }
  if (veld_report_close(reporter, 5000) != 1) return failed("close", "not flushed");
  if (veld_report_stats(reporter, &stats) >= 0) return failed("stats behind the close", "");
  veld_report_free(reporter);
  veld_report_free(NULL);
  if (veld_report_flush(NULL, 1) != 0 || veld_report_close(NULL, 1) != 0) return failed("NULL", "");
  return 0;
}
