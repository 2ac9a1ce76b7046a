/* A delivered record from C. Usage: c_program STORE URL */
#include <stdio.h>
#include <veld_report/veld_report.h>

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  const veld_report_endpoint endpoint = {.url = argv[2]};
  const veld_report_options options = {
      .struct_size = sizeof options, .store = argv[1], .endpoints = &endpoint, .endpoint_count = 1};
  veld_report_handle* reporter = NULL;
  char error[512];
  if (veld_report_open(&options, &reporter, error, sizeof error) < 0) {
    fprintf(stderr, "c_program: %s\n", error);
    return 1;
  }
  const char json[] = "{\"event\":\"started\",\"language\":\"C\"}";
  const int sent = veld_report_send_json(reporter, NULL, json, sizeof json - 1, error, sizeof error) >= 0;
  if (!sent) fprintf(stderr, "c_program: %s\n", error);
  const int delivered = veld_report_flush(reporter, 5000);
  veld_report_free(reporter);
  return sent && delivered ? 0 : 1;
}
