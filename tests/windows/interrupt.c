/* Runs a program and presses Ctrl-C in its console once a file is there: interrupt FILE COMMAND-LINE. Ends as
 * it does. */
#include <windows.h>

int wmain(int count, wchar_t** arguments) {
  STARTUPINFOW startup = {.cb = sizeof startup, .dwFlags = STARTF_USESTDHANDLES};
  startup.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
  startup.hStdOutput = GetStdHandle(STD_OUTPUT_HANDLE);
  startup.hStdError = GetStdHandle(STD_ERROR_HANDLE);
  PROCESS_INFORMATION process;
  FreeConsole();
  if (count != 3 || !AllocConsole()) return 97;
  if (!CreateProcessW(NULL, arguments[2], NULL, NULL, TRUE, 0, NULL, NULL, &startup, &process)) return 98;
  for (int tries = 0; tries < 1000 && GetFileAttributesW(arguments[1]) == INVALID_FILE_ATTRIBUTES; ++tries)
    Sleep(20);
  SetConsoleCtrlHandler(NULL, TRUE); /* not for this program */
  GenerateConsoleCtrlEvent(CTRL_C_EVENT, 0);
  DWORD code = 99;
  if (WaitForSingleObject(process.hProcess, 30000) != WAIT_OBJECT_0) TerminateProcess(process.hProcess, 96);
  WaitForSingleObject(process.hProcess, INFINITE);
  GetExitCodeProcess(process.hProcess, &code);
  return (int)code;
}
