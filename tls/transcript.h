// All handshake messages so far, header included.
#pragma once

#include "tls/primitives.h"

namespace quenmark::tls {

class Transcript {
 public:
  bool Empty() const { return m_count == 0; }
  std::size_t Count() const { return m_count; }  // bytes
  void Append(BytesView message);
  // Chooses the digest as soon as the suite is known. The messages themselves stay available when `keepMessages`.
  void SetDigest(Digest digest, bool keepMessages);
  // Puts a message_hash message in place of everything so far (RFC 8446 section 4.4.1). Needs the digest.
  void ReplaceByMessageHash();
  // The digest of everything so far. Needs the digest.
  DigestValue Current() const { return m_hash.Current(); }
  const Bytes& Messages() const { return m_messages; }
  // The running digest, for a handshake that goes on from here later.
  const Hash& Running() const { return m_hash; }
  void Clear() { *this = Transcript(); }

 private:
  Bytes m_messages;
  Hash m_hash;
  Digest m_digest = Digest::kNone;
  std::size_t m_count = 0;
  bool m_keepMessages = true;
};

}  // namespace quenmark::tls
