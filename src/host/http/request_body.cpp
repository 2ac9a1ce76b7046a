#include "host/http/request_body.h"

#include <algorithm>

#include "host/base/host_object.h"
#include "host/http/http_outcome.h"

namespace veld_report::host {

std::uint64_t BodySize(zel::IIO& body) {
  std::uint64_t size = 0;
  const zel::ResultCode code = body.GetSize(&size);
  if (!zel::Failed(code)) return size;
  throw HttpTransferRefused{code, "the size of the request's body can't be determined"};
}

std::string ReadBody(zel::IIO& body, std::uint64_t size) {
  std::string text(size, '\0');
  for (std::size_t position = 0; position < text.size();) {
    std::uint32_t bytesRead = 0;
    const std::size_t room = std::min<std::size_t>(text.size() - position, UINT32_MAX);
    zel::ResultCode code = Guarded(
        [&] { return body.Read(text.data() + position, static_cast<std::uint32_t>(room), &bytesRead); });
    if (!zel::Failed(code) && bytesRead == 0) code = zel::eUnexpected;
    if (zel::Failed(code)) throw HttpTransferRefused{code, unreadableBody};
    position += bytesRead;
  }
  return text;
}

void Rewind(zel::IIO& body) {
  std::uint64_t position = 0;
  const zel::ResultCode code = Guarded([&] { return body.Seek(0, 0, &position); });
  if (zel::Failed(code)) throw HttpTransferRefused{code, unreadableBody};
}

}  // namespace veld_report::host
