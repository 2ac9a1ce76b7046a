// The entry point on Windows. The module wants no notice of the threads of its process.
extern "C" {

// As <windows.h> declares it.
__declspec(dllimport) int __stdcall DisableThreadLibraryCalls(void* library);

int __stdcall DllMain(void* library, unsigned long reason, void*) {
  constexpr unsigned long processAttach = 1;
  // Fails, without harm, if the runtime library in this one has thread-local storage: then it needs the
  // notices.
  if (reason == processAttach) DisableThreadLibraryCalls(library);
  return 1;
}

}  // extern "C"
