// libcurl's list of texts as a value.
#pragma once

#include <curl/curl.h>

#include <string>

namespace quenmark::platform {

struct CurlList {
  CurlList() = default;
  CurlList(const CurlList&) = delete;
  CurlList& operator=(const CurlList&) = delete;
  ~CurlList() { Clear(); }

  void Add(const std::string& line) {
    // curl_slist_append gives nullptr when memory is short and leaves the list as it was.
    if (curl_slist* longer = curl_slist_append(first, line.c_str()); longer != nullptr) first = longer;
  }
  void Clear() {
    curl_slist_free_all(first);
    first = nullptr;
  }

  curl_slist* first = nullptr;
};

}  // namespace quenmark::platform
