#include "tests/server/raw_client.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <thread>

namespace veld_report::server_test {

int Connect(std::uint16_t port, const char* from) {
  const int handle = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const timeval patience{60, 0};
  setsockopt(handle, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
  setsockopt(handle, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof(patience));
  sockaddr_in own{};
  own.sin_family = AF_INET;
  inet_pton(AF_INET, from, &own.sin_addr);
  if (bind(handle, reinterpret_cast<sockaddr*>(&own), sizeof(own)) == 0 &&
      connect(handle, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0)
    return handle;
  close(handle);
  return -1;
}

void SendAll(int handle, std::string_view text) {
  while (!text.empty()) {
    const ssize_t sent = send(handle, text.data(), text.size(), MSG_NOSIGNAL);
    if (sent <= 0) return;  // the server has closed; what it answered is still to be read
    text.remove_prefix(static_cast<std::size_t>(sent));
  }
}

RawAnswer Receive(int handle) {
  RawAnswer answer;
  char block[4096];
  ssize_t length = 0;
  while ((length = recv(handle, block, sizeof(block), 0)) > 0) {
    answer.text.append(block, static_cast<std::size_t>(length));
  }
  answer.hasEnded = length == 0 || (errno != EAGAIN && errno != EWOULDBLOCK);
  if (answer.text.starts_with("HTTP/1.1 ")) answer.status = std::atoi(answer.text.c_str() + 9);
  return answer;
}

RawAnswer Exchange(std::uint16_t port, std::string_view request, std::string_view drip) {
  RawAnswer answer;
  const int handle = Connect(port);
  if (handle < 0) return answer;
  // Sending on a thread of its own: the server may answer and close while much is still to be sent.
  std::thread sender([&] {
    SendAll(handle, request);
    while (!drip.empty() && send(handle, drip.data(), drip.size(), MSG_NOSIGNAL) > 0)
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
  });
  answer = Receive(handle);
  shutdown(handle, SHUT_RDWR);
  sender.join();
  close(handle);
  return answer;
}

std::string Post(std::string_view body, std::string_view contentType) {
  return "POST /v1/reports HTTP/1.1\r\nHost: x\r\nConnection: close\r\nContent-Type: " +
         std::string(contentType) + "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" +
         std::string(body);
}

}  // namespace veld_report::server_test
