/* A host in plain C, as a compiler with another C++ ABI sees the module: objects are pointers to tables of
 * functions. It loads the module from a folder with an umlaut, delivers one record through services of its
 * own, and unloads it. c_host MODULE */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <windows.h>

#define CHECK(condition)                                            \
  do {                                                              \
    if (condition) break;                                           \
    fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #condition); \
    exit(1);                                                        \
  } while (0)

typedef void (*slot)(void);
typedef struct object {
  const slot* table;
} object;
typedef struct {
  const uint8_t *begin, *end;
} range;
typedef struct {
  char* data;
  uint64_t size, capacity;
  object* allocator;
  char room[16];
} string;
typedef struct {
  char *first, *last, *end;
  object* allocator;
} vector;
typedef struct {
  uint32_t type;
  const char* name;
  uint32_t flags, offset;
  uint64_t size, unused[2];
  object* vector_helper;
  uint64_t last;
} field;
typedef struct {
  uint64_t id;
  const char* name;
  uint64_t size;
  const field* fields;
  void* helper;
} descriptor;
typedef struct {
  void* object;
  const descriptor* about;
  object* keeper;
} any;
typedef struct {
  string url;
  vector certificates;
} url_entry;
typedef struct {
  vector urls;
  uint32_t packet_limit, queue_limit, send_timeout;
  vector consumers;
} settings;

static const int32_t no_interface = (int32_t)0x80000001, not_found = (int32_t)0x8000004c;
#define CALL(object, number, type) ((type)(object)->table[number])
typedef uint32_t (*counting)(object*);
typedef int32_t (*query_call)(object*, uint32_t, void*);
typedef int32_t (*create_call)(object*, object*, uint32_t, void*);
typedef int32_t (*create_module_factory)(object*, uint32_t, object**);
static uint32_t release(object* of_module) { return CALL(of_module, 1, counting)(of_module); }

/* All of this host's objects live for ever; what is counted are the references that the module has. */
static LONG references;
static object *sink, *stream;
static char item[64], body[512];
static uint32_t item_size, body_size, reads, acknowledged;
static uint32_t add(object* self) { return (void)self, (uint32_t)InterlockedIncrement(&references); }
static uint32_t drop(object* self) { return (void)self, (uint32_t)InterlockedDecrement(&references); }
static int32_t lend(object* given, object** out) { return add(*out = given), 0; }
static int32_t reserved(void) { return (int32_t)0x80000043; }
static int32_t fine(void) { return 0; }
static int32_t unwanted(void) { return 1; }

static object certificates;
static int32_t query(object* self, uint32_t id, object** out) {
  return lend(id == 0xecae8144 ? &certificates : self, out);
}
#define OBJECT(name, ...)                                                               \
  static const slot name##_table[] = {(slot)add, (slot)drop, (slot)query, __VA_ARGS__}; \
  static object name = {name##_table}
#define R (slot) reserved

static void* allocate(object* self, uint64_t size) { return (void)self, malloc(size); }
static void free_block(object* self, void* block) { (void)self, free(block); }
OBJECT(allocator, (slot)allocate, R, (slot)free_block);
OBJECT(tracer, (slot)unwanted, (slot)fine);

static int32_t finish(object* self, uint8_t* digest) { return (void)self, memset(digest, 0xab, 16), 0; }
OBJECT(calculator, R, (slot)fine, R, R, R, (slot)finish);
static int32_t calculator_of_kind(object* self, uint32_t kind, object** out) {
  return (void)self, kind == 100 ? lend(&calculator, out) : no_interface;
}
OBJECT(hashes, (slot)calculator_of_kind);

/* One queue with room for one item. What the module gets to keep lies on the process heap. */
static void* heap(const void* bytes, uint64_t size) {
  return memcpy(HeapAlloc(GetProcessHeap(), 0, size + 1), bytes, size);
}
static int32_t push(object* self, const range* data) {
  (void)self, item_size = (uint32_t)(data->end - data->begin);
  return memcpy(item, data->begin, item_size), 0;
}
OBJECT(producer, (slot)push);
static int32_t read_item(object* self, vector* data, uint64_t* token) {
  (void)self;
  if (reads++ || !item_size) return not_found;
  HeapFree(GetProcessHeap(), 0, data->first);
  data->first = heap(item, item_size);
  data->last = data->end = data->first + item_size;
  return *token = 0x1122334455667788, 0;
}
static int32_t acknowledge(object* self, const uint64_t* token) {
  return (void)self, acknowledged += *token == 0x1122334455667788, 0;
}
OBJECT(consumer, (slot)read_item, (slot)acknowledge, R);
static int32_t enumerate(object* self, vector* names) {
  static const char name[] = "abababababababababababababababab";
  const string value = {heap(name, sizeof name), 32, 32, NULL, ""};
  string* const only = heap(&value, sizeof value);
  (void)self;
  names->first = (char*)only;
  names->last = names->end = (char*)(only + 1);
  return 0;
}
OBJECT(manager, R, (slot)enumerate);
static int32_t make_consumer(object* self, const string* domain, const string* name, object** out) {
  (void)self;
  return strcmp(domain->data, "veld_rep") == 0 && name->size == 32 ? lend(&consumer, out) : no_interface;
}
static int32_t make_producer(object* self, const string* domain, const string* name, uint32_t limit,
                             object** out) {
  (void)self, (void)domain, (void)name;
  return limit == 100 << 10 ? lend(&producer, out) : no_interface;
}
static int32_t make_manager(object* self, const string* domain, object** out) {
  return (void)self, (void)domain, lend(&manager, out);
}
OBJECT(queues, (slot)make_consumer, (slot)make_producer, (slot)make_manager);

/* An HTTP client that answers every request with 200, inside the call. */
OBJECT(request, R, (slot)fine, (slot)fine);
static int32_t make_request(object* self, const string* url, const void* options, const uint32_t* kind,
                            object* content, void* none, object* callback, object** out) {
  union {
    uint16_t status[48];
    uint64_t aligned;
  } response = {{0}};
  (void)self, (void)options, (void)none, response.status[40] = 200;
  if (*kind != 1) return no_interface;
  CALL(content, 3, int32_t(*)(object*, void*, uint32_t, uint32_t*))
  (content, body, sizeof body - 1, &body_size);
  CALL(callback, 3, int32_t(*)(object*, const string*, const void*))(callback, url, &response);
  return lend(&request, out);
}
OBJECT(client, R, R, R, R, R, (slot)make_request);
static const slot certificates_table[] = {(slot)add, (slot)drop, (slot)query, (slot)fine};
static object certificates = {certificates_table};
static int32_t make_client(object* self, object** out) { return (void)self, lend(&client, out); }
OBJECT(clients, (slot)make_client);

static int32_t arm(object* self, object* runnable, uint32_t delay) {
  return (void)self, (void)delay, sink = runnable, 0;
}
static int32_t disarm(object* self, object* runnable) { return (void)self, (void)runnable, sink = NULL, 0; }
OBJECT(timer, R, R, (slot)arm, (slot)disarm, (slot)disarm);

/* JSON straight into the module's stream. */
static int32_t flush(object* self) { return (void)self, release(stream), 0; }
OBJECT(storage, R, R, R, R, R, R, R, R, R, R, R, R, (slot)flush);
static int32_t make_storage(object* self, object* into, const int32_t* options, object** out) {
  (void)self, stream = into, CALL(into, 0, counting)(into);
  return options[0] == -1 && options[1] == -1 ? lend(&storage, out) : no_interface;
}
OBJECT(storages, (slot)make_storage);
static void put(const char* text, uint64_t size) {
  uint32_t written = 0;
  CALL(stream, 4, int32_t(*)(object*, const void*, uint32_t, uint32_t*))
  (stream, text, (uint32_t)size, &written);
}
static void put_record(const char* object_bytes, const descriptor* about) {
  char before = '{';
  for (const field* at = about->fields; at->flags != 0xffffffff; ++at, before = ',') {
    const char* value = object_bytes + at->offset;
    put(&before, 1), put("\"", 1), put(at->name, strlen(at->name)), put("\":", 2);
    if (at->flags == 0x00012000) { /* a vector of records, with one element */
      object* const helper = at->vector_helper;
      void* element = NULL;
      const descriptor* kind = NULL;
      CALL(helper, 2, int32_t(*)(object*, const void*, uint32_t, void**))(helper, value, 0, &element);
      CALL(helper, 3, int32_t(*)(object*, const descriptor**))(helper, &kind);
      put("[", 1), put_record(element, kind), put("]", 1);
    } else {
      put("\"", 1), put(((const string*)value)->data, ((const string*)value)->size), put("\"", 1);
    }
  }
  put("}", 1);
}
static int32_t serialize(object* self, const any* record, object* into, uint32_t flag, object** context) {
  (void)self, (void)into, (void)context;
  return flag == 1 ? put_record(record->object, record->about), 0 : no_interface;
}
OBJECT(serializer, (slot)serialize);

static const struct {
  uint32_t id;
  object* service;
} services[] = {{0x9cca5603, &allocator}, {0x6ef3329b, &tracer},    {0x898b9c28, &hashes},
                {0x03ed713c, &queues},    {0xf623e84a, &clients},   {0xccd50778, &timer},
                {0x2d52630a, &storages},  {0x7cc64bff, &serializer}};
static int32_t find(object* self, uint32_t id, uint32_t unused, object** out) {
  (void)self, (void)unused;
  for (size_t i = 0; i < sizeof services / sizeof *services; ++i)
    if (services[i].id == id) return lend(services[i].service, out);
  return *out = NULL, no_interface;
}
static int32_t find_allocator(object* self, uint32_t id, uint32_t unused, object** out) {
  return id == services[0].id ? find(self, id, unused, out) : no_interface;
}
OBJECT(locator, (slot)find);
OBJECT(bare, (slot)find_allocator);

/* Inside the module this throws and catches an exception. */
static object* factory;
static DWORD WINAPI fail_to_create(void* unused) {
  void* nothing = NULL;
  (void)unused;
  return CALL(factory, 3, create_call)(factory, &bare, 0, &nothing) < 0 && !nothing ? 0 : 1;
}

static uint32_t blocks_on_heap(void) {
  PROCESS_HEAP_ENTRY entry = {NULL};
  uint32_t count = 0;
  while (HeapWalk(GetProcessHeap(), &entry)) count += (entry.wFlags & PROCESS_HEAP_ENTRY_BUSY) != 0;
  return count;
}

static void run_threads(int count) {
  while (count--) {
    DWORD code = 1;
    HANDLE const thread = CreateThread(NULL, 0, fail_to_create, NULL, 0, NULL);
    WaitForSingleObject(thread, INFINITE);
    CHECK(GetExitCodeThread(thread, &code) && code == 0);
    CloseHandle(thread);
  }
}

int wmain(int count, wchar_t** arguments) {
  wchar_t path[MAX_PATH];
  CHECK(count == 2 && GetTempPathW(MAX_PATH - 40, path));
  swprintf(path + wcslen(path), 40, L"mödul ж %lu.dll", GetCurrentProcessId());
  CHECK(CopyFileW(arguments[1], path, FALSE));
  HMODULE const module = LoadLibraryW(path);
  CHECK(module);
  create_module_factory const make =
      (create_module_factory)(slot)GetProcAddress(module, "zelGetObjectFactory");
  int32_t (*const can_unload)(void) = (int32_t(*)(void))(slot)GetProcAddress(module, "zelCanUnloadModule");

  /* The loader's own flag of a library that hears nothing of threads. */
  LONG(WINAPI* const find_entry)
  (const void*, char**) = (LONG(WINAPI*)(const void*, char**))(slot)GetProcAddress(GetModuleHandleW(L"ntdll"),
                                                                                   "LdrFindEntryForAddress");
  char* entry = NULL;
  CHECK(find_entry(module, &entry) == 0 && (*(uint32_t*)(entry + 0x68) & 0x40000));

  object* root = NULL;
  CHECK(make(NULL, 1, &root) == (int32_t)0x80000043 && !root);
  CHECK(make(NULL, 0x36c3b519, &root) == 0 && CALL(root, 2, query_call)(root, 0x80077a33, &factory) == 0);
  release(root);
  run_threads(10);
  const uint32_t before = blocks_on_heap();
  run_threads(100);
  CHECK(before > 0 && blocks_on_heap() < before + 50);

  object *sender = NULL, *construct = NULL;
  CHECK(CALL(factory, 3, create_call)(factory, &locator, 0xcbf5f269, &sender) == 0);
  CHECK(CALL(sender, 2, query_call)(sender, 0xd8e3078f, &construct) == 0);
  release(factory);
  static char url[] = "h\0t\0t\0p\0:\0/\0/\0a\0b\0";
  url_entry endpoint = {{url, 9, 9, NULL, ""}, {NULL, NULL, NULL, NULL}};
  string everyone = {NULL, 0, 15, NULL, ""};
  everyone.data = everyone.room;
  const settings plan = {{(char*)&endpoint, (char*)(&endpoint + 1), (char*)(&endpoint + 1), NULL},
                         10,
                         100,
                         60,
                         {(char*)&everyone, (char*)(&everyone + 1), (char*)(&everyone + 1), NULL}};
  CHECK(CALL(construct, 3, int32_t(*)(object*, const settings*))(construct, &plan) == 0);
  release(construct);

  string text = {NULL, 1, 15, NULL, "C"};
  text.data = text.room;
  const field fields[] = {{0x21, "text", 0, 0, sizeof text, {0}, NULL, 0},
                          {0, NULL, 0xffffffff, 0, 0, {0}, NULL, 0}};
  const descriptor about = {1, "Record", sizeof text, fields, NULL};
  any record = {&text, &about, NULL};
  CHECK(CALL(sender, 4, int32_t(*)(object*, any*))(sender, &record) == 0);
  for (int cycles = 0; sink && cycles < 3; ++cycles) CALL(sink, 3, int32_t(*)(object*, void*))(sink, NULL);
  CHECK(acknowledged == 1 && !sink);
  CHECK(strcmp(body,
               "{\"payload\":\"eyJhcnJheSI6W3sidGV4dCI6IkMifV19\",\"signatures\":[{\"protected\":"
               "\"eyJhbGciOiJub25lIn0A\"}]}") == 0);

  CHECK(can_unload() == 1 && release(sender) == 0 && can_unload() == 0 && references == 0);
  CHECK(FreeLibrary(module) && !GetModuleHandleW(path) && DeleteFileW(path));
  return 0;
}
