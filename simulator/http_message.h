// A request as it came and an answer as it goes, free of any HTTP library.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace quenmark::simulator {

class EventStream;
class QuoteStream;

using NamedTexts = std::vector<std::pair<std::string, std::string>>;

struct HttpRequest {
  std::string scheme;  // "https" or "http"
  std::string method;
  std::string target;  // as received, query included
  NamedTexts headers;  // in the order received
  std::string body;

  // The part of the target before "?", without scheme and host where it has them (RFC 9112 §3.2.2).
  std::string_view Path() const;
  // The value of the first header of that name, compared without regard to case; empty when there is none.
  std::string_view Header(std::string_view name) const;
};

struct HttpAnswer {
  int status = 200;
  std::string contentType = "application/json";
  std::string contentEncoding;  // none when empty
  std::string body;
  std::size_t padding = 0;  // blanks sent behind the body, counted in Content-Length
  std::string_view version = "HTTP/1.1";
  bool close = false;                   // the connection ends behind it
  bool chunked = false;                 // the body goes in chunks
  bool reset = false;                   // the connection is reset in place of the answer
  bool cut = false;                     // the connection is dropped in the middle of the body
  std::shared_ptr<QuoteStream> stream;  // sends the body in chunks, in place of `body`; none when empty
  std::shared_ptr<EventStream> events;  // the connection becomes a WebSocket connection with it; none when empty
};

// The query of a target, names and values percent-decoded ("+" is a blank), in order.
NamedTexts QueryOf(std::string_view target);
// The value of the first entry of that name; empty when there is none.
std::string_view ValueOf(const NamedTexts& texts, std::string_view name);

// "%XX" as the byte it stands for.
std::string PercentDecoded(std::string_view text);

// The names of a list separated by commas, upper case, each once.
std::vector<std::string> SymbolNames(std::string_view list);

// The request carries `token` as its bearer token, or any when `token` is empty.
bool HasBearer(const HttpRequest& request, std::string_view token);

std::string UpperCase(std::string_view text);

}  // namespace quenmark::simulator
