// Icons of the symbols that news items name, fetched one by one from the vendor into "Files/Img" of the program folder.
#pragma once

#include "platform/http_client.h"
#include "platform/message_loop.h"
#include "providers/context.h"

#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>

namespace quenmark::feeder {

class NewsIcons {
 public:
  static constexpr std::size_t kLargestIcon = std::size_t{256} * 1024;  // bytes

  // The context must outlive the icons.
  explicit NewsIcons(providers::Context& context);

  // Sees to it that the symbols of a comma list have icons. Missing ones are fetched later, from the loop. A symbol
  // that would lead out of the folder is passed over; one without an icon is asked for again after an hour, and so is a
  // source that does not answer. Redirects are followed.
  void Want(std::string_view symbols);
  bool Busy() const { return m_fetching || !m_queue.empty(); }

 private:
  enum class Outcome { kDone, kNoAnswer };

  void FetchNext();
  Outcome Fetch(const std::string& symbol);
  void SaveIcon(std::string_view symbol, const std::string& icon);
  std::string FileOf(std::string_view symbol) const;

  providers::Context& m_context;
  platform::Timer m_next;
  std::unique_ptr<platform::HttpClient> m_client;
  std::deque<std::string> m_queue;
  std::unordered_map<std::string, platform::MonotonicTime> m_notBefore;
  platform::MonotonicTime m_sourceNotBefore = platform::MonotonicTime::min();
  bool m_fetching = false;
};

}  // namespace quenmark::feeder
