// In place of the module's objects: the built library, as a host loads it.
#include <gtest/gtest.h>

#include <utility>

#include "contract/exports.h"
#include "tests/common/files.h"
#include "tests/common/loaded_library.h"
#include "tests/world/heap.h"
#include "tests/world/world.h"

#if defined(_WIN32)
#include <windows.h>
#else
#include <dlfcn.h>
#endif

namespace veld_report::world {
namespace {

#if defined(_WIN32)
void* Load() { return LoadLibraryA(VELD_MODULE_FILE); }
void* Find(void* library, const char* name) {
  return reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(library), name));
}
void Unload(void* library) { FreeLibrary(static_cast<HMODULE>(library)); }
#else
void* Load() { return dlopen(VELD_MODULE_FILE, RTLD_NOW | RTLD_LOCAL); }
void* Find(void* library, const char* name) { return dlsym(library, name); }
void Unload(void* library) { dlclose(library); }
#endif

void* library = nullptr;

template <class Function>
Function* Export(const char* name) {
  if (!library) library = Load();
  return reinterpret_cast<Function*>(Find(library, name));
}

}  // namespace

bool ModuleIsLinked() { return false; }
Inside::Inside(bool) : before_(false) {}
Inside::~Inside() = default;
bool Heap::Counts() { return false; }
std::int64_t Heap::LiveBlocks() { return 0; }
void Heap::FailNth(int, std::function<void()>) {}
int Locks::Held() { return 0; }
bool Locks::TakeTwoAtOnce() { return false; }

}  // namespace veld_report::world

using namespace orvel::veld_report;
using namespace veld_report::world;

extern "C" {
GetObjectFactoryFunction zelGetObjectFactory;
CanUnloadModuleFunction zelCanUnloadModule;

zel::ResultCode zelGetObjectFactory(zel::IServiceLocator* locator, std::uint32_t classId,
                                    zel::IObject** out) {
  return Export<GetObjectFactoryFunction>(getObjectFactoryName)(locator, classId, out);
}
zel::ResultCode zelCanUnloadModule() { return Export<CanUnloadModuleFunction>(canUnloadModuleName)(); }
}

// After a life with everything in it the library leaves the process, and another life can begin.
TEST(LoadedModuleTest, CanBeUnloadedAndLoadedAgain) {
  const Script life = FromText(veld_report::tests::ReadFile(VELD_LONG_LIFE));
  for (int i = 0; i < 2; ++i) {
    EXPECT_FALSE(RunScript(life).Failed());
    EXPECT_EQ(zelCanUnloadModule(), zel::sOk);
    Unload(std::exchange(library, nullptr));
    EXPECT_FALSE(veld_report::tests::IsLoaded(VELD_MODULE_FILE));
  }
}
