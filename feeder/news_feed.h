// The vendor's market news: the poll, and what becomes of its answer in the charting application's news areas
// (docs/formats/news.md).
#pragma once

#include "feeder/news_icons.h"
#include "platform/message_loop.h"
#include "providers/context.h"
#include "providers/json_value.h"
#include "providers/pbsock.h"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace quenmark::feeder {

class NewsFeed {
 public:
  // The poll timer (`TimerNews`) belongs to the main form; context and timer must outlive the feed. `certificates`
  // judges the news server.
  NewsFeed(providers::Context& context, platform::Timer& timerNews,
           std::shared_ptr<tls::CertificateServices> certificates);

  // Asks for the news after the last known one; the answer arms the timer again. Without a configured host nothing is
  // sent, and the timer stays off.
  void Poll();

  // What becomes of an answer: with status 200 its items are stored; a history of fewer than 50 items is dropped
  // whatever the status; the timer is armed.
  void Tsock_CloseEvent(std::int32_t statusCode, const std::string& body);

  bool Fetching() const { return m_tsock != nullptr || m_icons.Busy(); }

 private:
  void StoreItems(const std::string& body);
  // The item's section, "" when it has none and is left out.
  std::string StoreItem(const providers::JsonValue& item);
  void NoteHighest(const providers::JsonValue& item, std::string_view time, std::string_view id);
  void RunItemStep(std::string_view section);

  providers::Context& m_context;
  platform::Timer& m_timerNews;
  std::shared_ptr<tls::CertificateServices> m_certificates;
  std::unique_ptr<providers::PBsock> m_tsock;  // `Tsock`, while a request runs
  NewsIcons m_icons;
};

// The list "All" (sections, each followed by ",", newest first) with those of `sections` that it does not contain yet
// put in front, one after the other. A section counts as contained when section + "," occurs anywhere in the list.
std::string WithNewSections(std::string_view all, const std::vector<std::string>& sections);

}  // namespace quenmark::feeder
