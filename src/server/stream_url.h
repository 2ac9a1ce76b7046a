// The URL of a JetStream stream: nats://[USER:PASSWORD@]HOST:PORT[,HOST:PORT...]/STREAM[?OPTION[&OPTION]]
//
//   replicas=1..5          of a stream that is made; one that exists must have as many
//   duplicates=1..86400    seconds for which the stream recognises a packet that it has; likewise
//   partitions=1..256      spread over the streams STREAM-1, STREAM-2... by the url of a packet
//   tls=system, tls=FILE   brokers must speak TLS; their certificates are for HOST, and from an authority of
//                          the system or, with FILE, of that PEM file
#pragma once

#include <chrono>
#include <string>
#include <string_view>
#include <vector>

namespace veld_report::server {

struct StreamUrl {
  std::vector<std::string> brokers;  // "127.0.0.1:4222"; one suffices to find the others
  std::string user;                  // empty: none
  std::string password;
  std::string stream;
  unsigned replicas = 0;               // 0: not given
  std::chrono::seconds duplicates{0};  // 0: not given
  unsigned partitions = 1;
  std::string authorities;  // empty: without TLS; "system", or a PEM file with further ones

  // The names of the streams, one for each partition.
  std::vector<std::string> Streams() const;
  // "nats://127.0.0.1:4222/STREAM": without user, password and options.
  std::string Name() const;
};

// Throws std::invalid_argument with a sentence that names what is wrong, without the password.
StreamUrl ReadStreamUrl(std::string_view text);

}  // namespace veld_report::server
