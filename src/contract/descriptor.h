// Descriptors, which describe a record to a serialiser, and AnyPtr, which carries a record with its
// descriptor.
//
// The module and producers both describe their records with constant tables of these types; the host's
// serialiser walks them. The module itself never walks one: it only reads a serId for a trace line.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>

#include "types/allocator.h"
#include "types/object.h"
#include "types/ref.h"

namespace zel {

struct SerObjDescriptor;

// The operations of one structure. It has no base class and no destructor slot; its objects are static.
class SerObjDescriptorHelper {
 public:
  // Builds a copy of `source` at `place`, or a default instance if `source` is null. Does nothing if `place`
  // is null.
  virtual void CreateAt(void* place, const void* source) = 0;
  // The same in memory from `allocator`, which isn't null. Returns null if the allocator does.
  virtual void* CreateNew(const void* source, IAllocator* allocator) = 0;
  // Runs the destructor. Doesn't free the memory.
  virtual void DestroyAt(void* object) = 0;
  virtual void Assign(const void* source, void* target) = 0;
  virtual bool ReservedHelperOperation() = 0;

 protected:
  ~SerObjDescriptorHelper() = default;
};

// The operations of a vector field. Same rules.
class SerVectorHelper {
 public:
  virtual ResultCode Resize(void* vector, std::uint32_t count) = 0;
  virtual ResultCode GetSize(const void* vector, std::uint32_t* out) = 0;
  // `*out` receives the address of element `index`, which is valid until the vector changes.
  virtual ResultCode GetElement(void* vector, std::uint32_t index, void** out) = 0;
  virtual ResultCode GetElementDescriptor(const SerObjDescriptor** out) = 0;
  // In bytes.
  virtual ResultCode GetElementSize(std::uint32_t* out) = 0;

 protected:
  ~SerVectorHelper() = default;
};

// One field. A structure's table ends with the first row whose `flags` is 0xffffffff.
struct SerFieldDescriptor {
  static constexpr std::uint32_t narrowString = 0x21;
  static constexpr std::uint32_t plainField = 0;
  static constexpr std::uint32_t vectorOfRecords = 0x00012000;
  static constexpr std::uint32_t endOfTable = 0xffffffff;

  std::uint32_t typeId = 0;    // kind of the value; for a vector of records the element's serId
  const char* name = nullptr;  // NUL-terminated: the JSON member name
  std::uint32_t flags = 0;
  std::uint32_t offset = 0;  // of the field inside the structure, in bytes
  std::uint64_t size = 0;    // of the field, in bytes
  std::uint64_t unused[2] = {};
  SerVectorHelper* vectorHelper = nullptr;  // set on vector fields
  std::uint64_t unused2 = 0;
};
static_assert(sizeof(SerFieldDescriptor) == 64 && offsetof(SerFieldDescriptor, name) == 8);
static_assert(offsetof(SerFieldDescriptor, flags) == 16 && offsetof(SerFieldDescriptor, offset) == 20);
static_assert(offsetof(SerFieldDescriptor, size) == 24 && offsetof(SerFieldDescriptor, unused) == 32);
static_assert(offsetof(SerFieldDescriptor, vectorHelper) == 48 &&
              offsetof(SerFieldDescriptor, unused2) == 56);

struct SerObjDescriptor {
  std::uint32_t serId = 0;
  const char* name = nullptr;  // NUL-terminated
  std::uint64_t size = 0;      // of one instance, in bytes
  const SerFieldDescriptor* fields = nullptr;
  SerObjDescriptorHelper* helper = nullptr;
};
static_assert(sizeof(SerObjDescriptor) == 40 && offsetof(SerObjDescriptor, name) == 8);
static_assert(offsetof(SerObjDescriptor, size) == 16 && offsetof(SerObjDescriptor, fields) == 24);
static_assert(offsetof(SerObjDescriptor, helper) == 32);

// A described object: an instance and a descriptor, neither of them owned, and the keeper, an owned reference
// that keeps the instance alive and may be null. Passing it by value takes a keeper reference and releases it
// when the call returns.
class AnyPtr {
 public:
  void* object = nullptr;
  const SerObjDescriptor* descriptor = nullptr;
  IObject* keeper = nullptr;

  AnyPtr() = default;
  // Takes a reference of its own to the keeper.
  AnyPtr(void* instance, const SerObjDescriptor* description, IObject* keepAlive = nullptr)
      : object(instance), descriptor(description), keeper(keepAlive) {
    if (keeper) keeper->AddRef();
  }
  AnyPtr(const AnyPtr& other) : AnyPtr(other.object, other.descriptor, other.keeper) {}
  AnyPtr& operator=(const AnyPtr& other) {
    AnyPtr copy(other);
    std::swap(object, copy.object);
    std::swap(descriptor, copy.descriptor);
    std::swap(keeper, copy.keeper);
    return *this;
  }
  ~AnyPtr() { Ref<IObject>::Attach(keeper).Reset(); }
};
static_assert(sizeof(AnyPtr) == 24 && offsetof(AnyPtr, object) == 0);
static_assert(offsetof(AnyPtr, descriptor) == 8 && offsetof(AnyPtr, keeper) == 16);

// Hosts that register structures offer their descriptors by serId. Not used in normal operation.
class MetaInfoProvider : public IObject {
 public:
  static constexpr InterfaceId iid = 0xfe7da4e6;
  virtual ResultCode GetDescriptor(std::uint32_t serId, const SerObjDescriptor** out) = 0;

 protected:
  ~MetaInfoProvider() = default;
};

class MetaInfoRegistry : public IObject {
 public:
  static constexpr InterfaceId iid = 0xa53230cb;
  virtual ResultCode ReservedRegistryOperation() = 0;
  virtual ResultCode GetDescriptor(std::uint32_t serId, const SerObjDescriptor** out) = 0;

 protected:
  ~MetaInfoRegistry() = default;
};

}  // namespace zel
