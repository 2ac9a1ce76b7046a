// What a packet is in a stream: one message, whose body is the records, one JSON text a line, and whose
// headers are
//
//   Nats-Msg-Id     tells the stream which packets are the same (PacketId)
//   Report-Format   1
//   Report-Url      SinkPacket's members of these names; a byte of the key's name that isn't visible ASCII,
//   and Report-Path     each %, is written %XX Report-Key Report-Time     "2026-03-31T09:41:07.123Z"
//
// Any client of a broker can read these; StreamDrain does.
#pragma once

#include <nats/nats.h>

#include <memory>
#include <string>

#include "server/record_sink.h"

namespace veld_report::server {

struct NatsMessageDeleter {
  void operator()(natsMsg* message) const { natsMsg_Destroy(message); }
};
using NatsMessage = std::unique_ptr<natsMsg, NatsMessageDeleter>;

// Bytes that a message takes beyond the records: headers with a url and a key's name of the maximum length.
inline constexpr std::size_t maxHeaderBytes = 4096;

// What a packet has in common with a repetition of it, and with no other: the SHA-256 of its url, key and
// records, in hexadecimal. Packets of records without ids can be equal and yet not repeated, so they get a
// different one each time. Sets `count` to the number of records.
std::string PacketId(const SinkPacket& packet, std::size_t* count);

// Throws std::bad_alloc.
NatsMessage MakeMessage(const std::string& subject, const std::string& id, const SinkPacket& packet);

// A packet that has been read back. Its views point into the message and into itself.
struct ReceivedPacket {
  std::string keyName;
  SinkPacket packet;
  std::string problem;  // empty, or why the message isn't a packet; then nothing else is set
};
// `received` must stay where it is while its packet is used.
void ReadMessage(natsMsg* message, ReceivedPacket* received);

}  // namespace veld_report::server
