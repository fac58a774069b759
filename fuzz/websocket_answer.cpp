// Answers to the opening handshake: what is taken of the buffer lies within it, and every verdict is complete.
#include "websocket/handshake.h"

#include <cstdint>
#include <cstdlib>
#include <string_view>

using namespace quenmark::websocket;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view received(reinterpret_cast<const char*>(data), size);
  const CollectedAnswer answer = CollectAnswer(received);
  if (answer.state != CollectedAnswer::State::kComplete) return 0;
  if (answer.length == 0 || answer.length > size) std::abort();
  const AnswerVerdict verdict = ValidateAnswer(received.substr(0, answer.length), "s3pPLMBiTxaQ9kYGzzhZRbK+xOo=");
  using Kind = AnswerVerdict::Kind;
  const bool isFailure =
      verdict.kind != Kind::kIgnored && verdict.kind != Kind::kAccepted && verdict.kind != Kind::kRedirect;
  if (isFailure != (verdict.code != 0) || isFailure == verdict.description.empty()) std::abort();
  if (verdict.kind == Kind::kRedirect && verdict.location.empty()) std::abort();
  const DeflateTerms terms = ReadDeflateTerms(verdict.extensions);
  if (terms.clientWindowBits < 8 || terms.clientWindowBits > 15) std::abort();
  return 0;
}
