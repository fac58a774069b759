// A certificate for test servers.
#pragma once

#include <string>

namespace quenmark::test {

// Writes a new certificate for localhost that signs itself, valid for a day: with its key to `both`, alone to `alone`.
// PEM. Throws std::runtime_error.
void MakeCertificate(const std::string& both, const std::string& alone);

}  // namespace quenmark::test
