// HttpStream on libcurl.
#pragma once

#include "platform/curl_driver.h"
#include "platform/http_client.h"
#include "platform/http_stream.h"

#include <memory>

namespace quenmark::platform {

// `driver` and what `owner` keeps alive must outlive the stream; `owner` is held for that. The limits' total time
// bounds the wait for the head only.
std::unique_ptr<HttpStream> MakeCurlStream(std::shared_ptr<void> owner, CurlDriver& driver, const HttpLimits& limits);

}  // namespace quenmark::platform
