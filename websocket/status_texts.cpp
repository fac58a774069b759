#include "websocket/status_texts.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <string_view>

namespace quenmark::websocket {

namespace {

constexpr std::int32_t kFirstCode = 1000;
constexpr std::array<std::string_view, 17> kCodeTexts = {
    "Normal Closure.",
    "Server is Going Away.",
    "There was a Protocol Error.",
    "Unsupported data format or encoding.",
    "Reserved Error Code (should not be Used)",
    "No Status Received.",
    "Abnormal Closure or connection closed unexpectedly.",
    "Invalid Data was Received.",
    "A Policy Violation has Occurred.",
    "A Message was To Large or Corrupted.",
    "The server has required a Mandatory Extension.",
    "An Internal Error has Occurred.",
    "Service is Restarting.",
    "Try Again Later.",
    "Bad GateWay, DNS Error, or Server Not Responding.",
    "TLS Handshake Error.",
    "Winsock Socket Error.",
};

struct StatusRow {
  std::int32_t status;
  std::string_view text;
  std::int32_t code = kProtocolError;
};

// In ascending order of the status.
// clang-format off
constexpr std::array kStatusTexts = {
    StatusRow{103, ": Checkpoint Error."},
    StatusRow{110, ": Cache Warning - Response is Stale."},
    StatusRow{111, ": Cache Warning - Revalidation Failed."},
    StatusRow{112, ": Cache Warning - Disconnected Operation."},
    StatusRow{113, ": Cache Warning - Cache has Expired."},
    StatusRow{199, ": Cache Warning - Miscellaneous Warning."},
    StatusRow{214, ": Cache Warning - Transformation Applied to Data."},
    StatusRow{218, ": This is Fine."},
    StatusRow{299, ": Cache Warning - Miscellaneous Persistence Warning."},
    StatusRow{400, ": Bad Request."},
    StatusRow{401, ": Request Not Authorized."},
    StatusRow{402, "Payment Required.", kPolicyViolation},
    StatusRow{403, ": Request Forbidden."},
    StatusRow{404, ": Resource Not Found."},
    StatusRow{405, ": Request Forbidden."},
    StatusRow{406, ": Bad Request."},
    StatusRow{407, ": Proxy Authorization Required."},
    StatusRow{408, ": Request Timed Out."},
    StatusRow{410, ": Resource Not Found."},
    StatusRow{411, ": Length required."},
    StatusRow{412, ": Request Failed."},
    StatusRow{413, ": Data To Large."},
    StatusRow{414, ": URI To Large."},
    StatusRow{415, ": Request is Not Supported."},
    StatusRow{416, ": The server cannot complete the request."},
    StatusRow{417, ": The server cannot complete the request."},
    StatusRow{418, ": The server got jokes."},
    StatusRow{420, ": Enhance Your Calm (Rate Limit Exceeded)."},
    StatusRow{421, ": The server cannot complete the request."},
    StatusRow{422, ": The server cannot complete the request."},
    StatusRow{423, ": Request Failed."},
    StatusRow{424, ": Request Failed."},
    StatusRow{425, ": The server cannot complete the request."},
    StatusRow{428, ": The server cannot complete the request."},
    StatusRow{429, ": To Many Requests, Rate Limit Exceeded."},
    StatusRow{431, ": Header Field To Large."},
    StatusRow{440, ": Login has timed out."},
    StatusRow{449, ": Retry Login."},
    StatusRow{450, ": Blocked by Windows Parental Control."},
    StatusRow{451, ": The server cannot complete the request."},
    StatusRow{494, ": Request To Large."},
    StatusRow{495, ": SSL Certificate Error."},
    StatusRow{496, ": SSL Certificate Required."},
    StatusRow{497, ": HTTP sent to HTTPS"},
    StatusRow{499, ": Client Closed Request."},
    StatusRow{500, ": Internal Server Error."},
    StatusRow{501, ": The Server has not implemented the requested function."},
    StatusRow{502, ": Bad Gateway.", kBadGateway},
    StatusRow{503, ": The service is not available."},
    StatusRow{504, ": Gateway Timeout."},
    StatusRow{505, ": The HTTP Version used is not supported."},
    StatusRow{506, ": Variant Also Negotiates."},
    StatusRow{507, ": The server has insufficient storage to complete the request."},
    StatusRow{508, ": The server has detected an Infinite Loop."},
    StatusRow{509, ": Bandwidth Exceeded."},
    StatusRow{510, ": Need more data."},
    StatusRow{511, ": Network Authentication required. Read Wifi TOS?."},
    StatusRow{520, ": Cloud Flare - Unknown Error."},
    StatusRow{521, ": Cloud Flare - Web Server is Down."},
    StatusRow{522, ": Request Timed Out."},
    StatusRow{523, ": Cloud Flare - Origin is Unreachable."},
    StatusRow{524, ": Request Timed Out."},
    StatusRow{525, ": Cloud Flare - SSL Handshake Failed."},
    StatusRow{526, ": SSL Certificate Error."},
    StatusRow{527, ": Cloud Flare - Railgun Server Error."},
    StatusRow{529, ": Site is Overloaded."},
    StatusRow{530, ": Cloud Flare - Error."},
    StatusRow{561, ": Request Not Authorized."},
    StatusRow{598, ": Network Read Timeout Error."},
};
// clang-format on
static_assert(std::is_sorted(kStatusTexts.begin(), kStatusTexts.end(),
                             [](const StatusRow& a, const StatusRow& b) { return a.status < b.status; }));

}  // namespace

std::string GetStatusCodeText(std::int32_t code, const ErrorDescriber& describe) {
  const std::int64_t row = std::int64_t{code} - kFirstCode;
  if (row >= 0 && row < std::int64_t{kCodeTexts.size()}) return std::string(kCodeTexts[static_cast<std::size_t>(row)]);
  std::string description = describe ? describe(code) : std::string();
  if (!description.empty()) return description;
  if (code < 0 || code >= 5000) return "Error code not recognized. Means nothing to WebSocket Protocol.";
  if (code < 2000) return "Unknown Error. Error number is in an Unused range.";
  if (code < 3000) return "Websocket Extension Error.";
  if (code < 4000) return "Library or Framework Error.";
  return "Application Layer Error.";
}

StatusError HttpStatusError(std::int32_t status) {
  const auto row = std::lower_bound(kStatusTexts.begin(), kStatusTexts.end(), status,
                                    [](const StatusRow& left, std::int32_t right) { return left.status < right; });
  if (row == kStatusTexts.end() || row->status != status) {
    return {kUnsupportedData, fmt::format("An HTTP code ({}) was recieived but could not be processed.", status)};
  }
  if (status == 402) return {row->code, std::string(row->text)};
  return {row->code, fmt::format("{}{}", status, row->text)};
}

}  // namespace quenmark::websocket
