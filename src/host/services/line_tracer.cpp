#include "host/services/line_tracer.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <utility>

#include "host/base/redact.h"
#include "host/base/utc.h"
#include "host/services/trace_file.h"

namespace veld_report::host {
namespace {

constexpr std::uint64_t pooledBytes = 1024;  // buffers of exactly this size are reused
constexpr std::size_t poolLimit = 16;

// Precedes each buffer.
struct BufferHeader {
  std::uint64_t capacity;
  std::uint64_t level;
};

BufferHeader* HeaderOf(char* buffer) { return reinterpret_cast<BufferHeader*>(buffer) - 1; }

char* NewBuffer(std::uint64_t capacity) {
  if (capacity > std::numeric_limits<std::uint64_t>::max() / 2) return nullptr;
  void* const memory = std::malloc(sizeof(BufferHeader) + capacity);
  if (!memory) return nullptr;
  return reinterpret_cast<char*>(new (memory) BufferHeader{capacity, 0} + 1);
}

void FreeBuffer(char* buffer) { std::free(HeaderOf(buffer)); }

void AppendTime(std::string& line) {
  using std::chrono::microseconds;
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  const std::int64_t sinceEpoch = std::chrono::duration_cast<microseconds>(now).count();
  const UtcTime time = UtcOf(sinceEpoch / 1000000);
  std::array<char, 48> text{};
  const int length = std::snprintf(text.data(), text.size(), "%04d-%02d-%02dT%02d:%02d:%02d.", time.year,
                                   time.month, time.day, time.hour, time.minute, time.second);
  line.append(text.data(), static_cast<std::size_t>(std::max(length, 0)));
  const std::string fraction = std::to_string(sinceEpoch % 1000000);
  line.append(6 - fraction.size(), '0').append(fraction).push_back('Z');
}

void AppendPrintable(std::string& line, std::string_view text) {
  constexpr std::string_view digits = "0123456789abcdef";
  for (const char character : text) {
    const auto byte = static_cast<unsigned char>(character);
    if (byte >= 0x20 || character == '\t') {
      line.push_back(character);
    } else {
      line.append("\\x");
      line.push_back(digits[byte >> 4]);
      line.push_back(digits[byte & 15]);
    }
  }
}

}  // namespace

LineTracer::LineTracer(LineTracerOptions options)
    : level_(options.level), sink_(std::move(options.sink)), log_(std::move(options.log)) {
  pool_.reserve(poolLimit);
  if (!sink_ && !log_) file_ = std::make_unique<TraceFile>(std::move(options.path), options.limitBytes);
}

LineTracer::~LineTracer() { std::for_each(pool_.begin(), pool_.end(), FreeBuffer); }

zel::ResultCode LineTracer::AcquireBuffer(std::uint32_t level, char** buffer, std::uint64_t size) {
  if (level == growLevel) return Grow(buffer, size);
  if (level > level_.load(std::memory_order_relaxed)) return zel::sFalse;
  return Guarded([&] { return Acquire(level, buffer, size); });
}

zel::ResultCode LineTracer::Acquire(std::uint32_t level, char** buffer, std::uint64_t size) {
  char* found = nullptr;
  if (size <= pooledBytes) {
    const std::lock_guard lock(poolMutex_);
    if (!pool_.empty()) {
      found = pool_.back();
      pool_.pop_back();
    }
  }
  if (!found) found = NewBuffer(std::max(size, pooledBytes));
  if (!found) return zel::eOutOfMemory;
  HeaderOf(found)->level = level;
  *buffer = found;
  return zel::sOk;
}

zel::ResultCode LineTracer::Grow(char** buffer, std::uint64_t size) {
  BufferHeader* const old = HeaderOf(*buffer);
  if (size <= old->capacity) return zel::sOk;
  char* const bigger = NewBuffer(size);
  if (!bigger) return zel::eOutOfMemory;
  std::memcpy(bigger, *buffer, old->capacity);
  HeaderOf(bigger)->level = old->level;
  Recycle(std::exchange(*buffer, bigger));
  return zel::sOk;
}

zel::ResultCode LineTracer::CommitBuffer(char* buffer, std::uint64_t length) {
  if (!buffer) return zel::eInvalidArgument;
  const BufferHeader header = *HeaderOf(buffer);
  const zel::ResultCode result = Guarded([&] {
    // A length above the capacity is a mistake of the writer; the bytes after the buffer aren't ours.
    WriteLine(static_cast<std::uint32_t>(header.level), {buffer, std::min(length, header.capacity)});
    return zel::sOk;
  });
  if (zel::Failed(result)) dropped_.fetch_add(1, std::memory_order_relaxed);
  Recycle(buffer);
  return result;
}

void LineTracer::Recycle(char* buffer) {
  if (HeaderOf(buffer)->capacity == pooledBytes) {
    const std::lock_guard lock(poolMutex_);
    if (pool_.size() < poolLimit) {
      pool_.push_back(buffer);
      return;
    }
  }
  FreeBuffer(buffer);
}

void LineTracer::WriteLine(std::uint32_t level, std::string_view text) {
  const std::lock_guard lock(outputMutex_);
  line_.clear();
  if (!log_) {
    AppendTime(line_);
    line_.append(" ").append(std::to_string(level)).append(" ");
  }
  // The module traces urls as they are in the settings, with user and password.
  if (text.find('@') == std::string_view::npos) {
    AppendPrintable(line_, text);
  } else {
    AppendPrintable(line_, WithoutCredentials(text));
  }
  if (log_) return log_(level, line_);
  if (sink_) return sink_(line_);
  line_.push_back('\n');
  if (!file_->Write(line_)) dropped_.fetch_add(1, std::memory_order_relaxed);
}

}  // namespace veld_report::host
