#include "websocket/status_texts.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace quenmark::websocket {
namespace {

// The socket's text goes first, where it has one, outside the table of codes.
TEST(StatusTexts, CloseCodes) {
  const auto noText = [](std::int32_t) { return std::string(); };
  const auto socketText = [](std::int32_t code) { return "text " + std::to_string(code); };
  const struct {
    std::vector<std::int32_t> codes;
    std::string text;
  } rows[] = {
      {{1000}, "Normal Closure."},
      {{1001}, "Server is Going Away."},
      {{1002}, "There was a Protocol Error."},
      {{1003}, "Unsupported data format or encoding."},
      {{1004}, "Reserved Error Code (should not be Used)"},
      {{1005}, "No Status Received."},
      {{1006}, "Abnormal Closure or connection closed unexpectedly."},
      {{1007}, "Invalid Data was Received."},
      {{1008}, "A Policy Violation has Occurred."},
      {{1009}, "A Message was To Large or Corrupted."},
      {{1010}, "The server has required a Mandatory Extension."},
      {{1011}, "An Internal Error has Occurred."},
      {{1012}, "Service is Restarting."},
      {{1013}, "Try Again Later."},
      {{1014}, "Bad GateWay, DNS Error, or Server Not Responding."},
      {{1015}, "TLS Handshake Error."},
      {{1016}, "Winsock Socket Error."},
      {{0, 999, 1017, 1999}, "Unknown Error. Error number is in an Unused range."},
      {{2000, 2999}, "Websocket Extension Error."},
      {{3000, 3999}, "Library or Framework Error."},
      {{4000, 4999}, "Application Layer Error."},
      {{5000, -5, INT32_MIN, INT32_MAX}, "Error code not recognized. Means nothing to WebSocket Protocol."},
  };
  for (const auto& row : rows) {
    for (const std::int32_t code : row.codes) {
      EXPECT_EQ(GetStatusCodeText(code, noText), row.text) << code;
      const bool inTable = code >= 1000 && code <= 1016;
      EXPECT_EQ(GetStatusCodeText(code, socketText), inTable ? row.text : socketText(code));
    }
  }
}

TEST(StatusTexts, HttpStatuses) {
  const struct {
    std::vector<std::int32_t> statuses;
    std::string text;
    std::int32_t code = 1002;
  } rows[] = {
      {{103}, ": Checkpoint Error."},
      {{110}, ": Cache Warning - Response is Stale."},
      {{111}, ": Cache Warning - Revalidation Failed."},
      {{112}, ": Cache Warning - Disconnected Operation."},
      {{113}, ": Cache Warning - Cache has Expired."},
      {{199}, ": Cache Warning - Miscellaneous Warning."},
      {{214}, ": Cache Warning - Transformation Applied to Data."},
      {{218}, ": This is Fine."},
      {{299}, ": Cache Warning - Miscellaneous Persistence Warning."},
      {{400, 406}, ": Bad Request."},
      {{401, 561}, ": Request Not Authorized."},
      {{403, 405}, ": Request Forbidden."},
      {{404, 410}, ": Resource Not Found."},
      {{407}, ": Proxy Authorization Required."},
      {{408, 522, 524}, ": Request Timed Out."},
      {{411}, ": Length required."},
      {{412, 423, 424}, ": Request Failed."},
      {{413}, ": Data To Large."},
      {{414}, ": URI To Large."},
      {{415}, ": Request is Not Supported."},
      {{416, 417, 421, 422, 425, 428, 451}, ": The server cannot complete the request."},
      {{418}, ": The server got jokes."},
      {{420}, ": Enhance Your Calm (Rate Limit Exceeded)."},
      {{429}, ": To Many Requests, Rate Limit Exceeded."},
      {{431}, ": Header Field To Large."},
      {{440}, ": Login has timed out."},
      {{449}, ": Retry Login."},
      {{450}, ": Blocked by Windows Parental Control."},
      {{494}, ": Request To Large."},
      {{495, 526}, ": SSL Certificate Error."},
      {{496}, ": SSL Certificate Required."},
      {{497}, ": HTTP sent to HTTPS"},
      {{499}, ": Client Closed Request."},
      {{500}, ": Internal Server Error."},
      {{501}, ": The Server has not implemented the requested function."},
      {{502}, ": Bad Gateway.", 1014},
      {{503}, ": The service is not available."},
      {{504}, ": Gateway Timeout."},
      {{505}, ": The HTTP Version used is not supported."},
      {{506}, ": Variant Also Negotiates."},
      {{507}, ": The server has insufficient storage to complete the request."},
      {{508}, ": The server has detected an Infinite Loop."},
      {{509}, ": Bandwidth Exceeded."},
      {{510}, ": Need more data."},
      {{511}, ": Network Authentication required. Read Wifi TOS?."},
      {{520}, ": Cloud Flare - Unknown Error."},
      {{521}, ": Cloud Flare - Web Server is Down."},
      {{523}, ": Cloud Flare - Origin is Unreachable."},
      {{525}, ": Cloud Flare - SSL Handshake Failed."},
      {{527}, ": Cloud Flare - Railgun Server Error."},
      {{529}, ": Site is Overloaded."},
      {{530}, ": Cloud Flare - Error."},
      {{598}, ": Network Read Timeout Error."},
  };
  std::size_t known = 1;  // 402
  for (const auto& row : rows) {
    for (const std::int32_t status : row.statuses) {
      const StatusError error = HttpStatusError(status);
      EXPECT_EQ(error.description, std::to_string(status) + row.text);
      EXPECT_EQ(error.code, row.code) << status;
      ++known;
    }
  }
  EXPECT_EQ(HttpStatusError(402).description, "Payment Required.");
  EXPECT_EQ(HttpStatusError(402).code, 1008);
  for (std::int32_t status = 0; status < 1000; ++status) {
    const StatusError error = HttpStatusError(status);
    if (error.code != 1003) {
      --known;
      continue;
    }
    EXPECT_EQ(error.description,
              "An HTTP code (" + std::to_string(status) + ") was recieived but could not be processed.");
  }
  EXPECT_EQ(known, 0u);
}

}  // namespace
}  // namespace quenmark::websocket
