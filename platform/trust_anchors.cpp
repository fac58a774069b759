#include "platform/trust_anchors.h"

#include "platform/files.h"

namespace quenmark::platform {

bool HasOwnTrustAnchors() {
  const std::string own = Environment("SSL_CERT_FILE");
  return !own.empty() && own != kSystemTrustAnchors;
}

std::string LoadTrustAnchors() {
  std::string anchors = ReadWholeFile(kSystemTrustAnchors);
  if (HasOwnTrustAnchors()) anchors += "\n" + ReadWholeFile(Environment("SSL_CERT_FILE"));
  return anchors;
}

}  // namespace quenmark::platform
