#include "tls/transcript.h"

#include "platform/byte_cursor.h"
#include "tls/names.h"

namespace quenmark::tls {

void Transcript::Append(BytesView message) {
  m_count += message.size();
  if (m_keepMessages) m_messages.insert(m_messages.end(), message.begin(), message.end());
  if (!m_hash.Empty()) m_hash.Update(message);
}

void Transcript::SetDigest(Digest digest, bool keepMessages) {
  if (m_digest != digest) {
    m_digest = digest;
    m_hash = Hash(digest);
    m_hash.Update(m_messages);
  }
  m_keepMessages = keepMessages;
  if (!keepMessages) m_messages = Bytes();
}

void Transcript::ReplaceByMessageHash() {
  const DigestValue digest = Current();
  Bytes message;
  platform::ByteWriter writer(message);
  writer.U8(message::kMessageHash);
  writer.AppendBlock(3, digest.View());
  m_hash = Hash(m_digest);
  m_messages.clear();
  m_count = 0;
  Append(message);
}

}  // namespace quenmark::tls
