// The production certificate services with a clock of their own.
#pragma once

#include "platform/clock.h"
#include "tls/peer_validation.h"

namespace quenmark::tls {

// As MakeCertificateServices(loop), except that certificates are checked and made at the clock's time. Loop and clock
// must outlive the services.
std::shared_ptr<CertificateServices> MakeCertificateServices(platform::MessageLoop& loop, const platform::Clock* clock);

}  // namespace quenmark::tls
