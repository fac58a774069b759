// Bounds on what a server can make the component hold or do.
#pragma once

#include <cstddef>
#include <cstdint>

namespace quenmark::websocket {

// Bytes of one message after inflation. Beyond it decompression fails.
inline constexpr std::size_t kMaxInflatedMessage = std::size_t{64} << 20;
// Bytes a frame, or the fragments of one message together, may declare. Beyond it the connection ends with 1009.
inline constexpr std::size_t kMaxMessage = std::size_t{64} << 20;
// Bytes read from the transport before they are looked at: what a second-level cache still holds by then.
inline constexpr std::size_t kMaxReadPerPass = std::size_t{128} << 10;
// Bytes asked for in one read at least.
inline constexpr std::size_t kMinRead = std::size_t{64} << 10;
// Bytes at which the receive buffer stops growing.
inline constexpr std::size_t kMaxReceiveBuffer = 0x7FFFC000;
// Bytes that may wait to be sent when a ping is answered. Beyond it only the latest ping keeps its claim to an answer
// (RFC 6455 §5.5.3).
inline constexpr std::size_t kMaxUnsentAtPong = std::size_t{1} << 20;
// Redirects followed in a row.
inline constexpr int kMaxRedirects = 10;
// Payload bytes of a frame that can be written; a longer payload makes no frame.
inline constexpr std::size_t kMaxFramePayload = 0x7FFFFFF1;
// Buffers kept for the next message are given back above this many bytes.
inline constexpr std::size_t kKeptBuffer = std::size_t{1} << 20;

}  // namespace quenmark::websocket
