#include "feeder/news_feed.h"

#include "platform/number_text.h"
#include "platform/run_time_error.h"
#include "providers/dates.h"
#include "providers/json.h"
#include "providers/text_compare.h"
#include "providers/text_pieces.h"

#include <algorithm>
#include <cmath>
#include <optional>
#include <set>

namespace quenmark::feeder {
namespace {

using platform::IgnoreErrors;
using providers::JsonValue;

constexpr std::string_view kChartApp = "KLV";
constexpr std::string_view kNewsSection = "News";
constexpr std::string_view kItemsApp = "KLV-News";
constexpr std::string_view kDensityApp = "KLV-News-Density";
constexpr std::string_view kLastId = "ID";
constexpr std::string_view kLastTime = "ID2";
constexpr std::string_view kAll = "All";
constexpr std::ptrdiff_t kThinHistory = 50;        // fewer sections than this are no history
constexpr std::size_t kLongestId = 29;             // digits, as many as a number of an answer has
constexpr double kLargestId = 9007199254740992.0;  // 2^53, of an id that is not just digits
constexpr std::int32_t kOk = 200;

// The digits without leading zeros; nothing for a text that is not just digits.
std::optional<std::string_view> WholeNumber(std::string_view text) {
  if (text.empty() || text.find_first_not_of("0123456789") != std::string_view::npos) return std::nullopt;
  text.remove_prefix(std::min(text.find_first_not_of('0'), text.size() - 1));
  return text.size() <= kLongestId ? std::optional(text) : std::nullopt;
}

// Ids may have more digits than a double holds.
bool IsHigher(const JsonValue& id, const std::string& highest) {
  const std::string text = id.Text();
  const auto left = WholeNumber(text);
  const auto right = WholeNumber(highest.empty() ? std::string_view("0") : highest);
  if (!left || !right) return id.Number() > platform::ReadNumber(highest);
  return left->size() != right->size() ? left->size() > right->size() : *left > *right;
}

// A whole number for the address, 0 for what is none.
std::string IdText(const std::string& stored) {
  if (const auto digits = WholeNumber(stored)) return std::string(*digits);
  const double id = std::trunc(platform::ReadNumber(stored));
  return platform::NumberText(std::abs(id) <= kLargestId ? id : 0);
}

std::string Reversed(std::string_view text) {
  return {text.rbegin(), text.rend()};
}

}  // namespace

NewsFeed::NewsFeed(providers::Context& context, platform::Timer& timerNews,
                   std::shared_ptr<tls::CertificateServices> certificates)
    : m_context(context), m_timerNews(timerNews), m_certificates(std::move(certificates)), m_icons(context) {}

void NewsFeed::Poll() {
  m_timerNews.SetEnabled(false);
  m_tsock.reset();
  if (m_context.hosts.news.empty()) return;
  m_tsock = std::make_unique<providers::PBsock>(
      m_context, m_certificates, [this](std::int32_t& status, std::string& body) { Tsock_CloseEvent(status, body); });
  std::string id = "0";
  IgnoreErrors([&] { id = IdText(m_context.store.GetSetting(kChartApp, kNewsSection, kLastId)); });
  m_tsock->hOpen("GET", m_context.hosts.news + "/news/?id=" + id, true);
  IgnoreErrors([&] { m_tsock->setRequestHeader("Accept", "application/json"); });
  // A line end in the credential must not cost the header.
  const auto credential = providers::WithoutCharacters(m_context.serviceCredential, std::string_view("\r\n\0", 3));
  IgnoreErrors([&] { m_tsock->setRequestHeader("Authorization", "Basic " + credential); });
  m_tsock->hSend();
}

void NewsFeed::Tsock_CloseEvent(std::int32_t statusCode, const std::string& body) {
  m_tsock.reset();
  m_context.log.Debug("news: status {}, {} bytes", statusCode, body.size());
  if (statusCode == kOk) IgnoreErrors([&] { StoreItems(body); });
  IgnoreErrors([&] {
    auto& store = m_context.store;
    const std::string all = store.GetSetting(kChartApp, kNewsSection, kAll);
    if (std::count(all.begin(), all.end(), ',') >= kThinHistory) return;
    IgnoreErrors([&] { store.DeleteApplication(kItemsApp); });
    IgnoreErrors([&] { store.DeleteSection(kChartApp, kNewsSection); });
    IgnoreErrors([&] { store.DeleteApplication(kDensityApp); });
  });
  m_timerNews.SetEnabled(true);
}

void NewsFeed::StoreItems(const std::string& body) {
  const providers::JsonDocument document = providers::ParseJson(body);
  std::vector<std::string> sections;
  for (const JsonValue& item : document.Value().At("data").Items()) {
    m_context.loop.RunQueued();
    IgnoreErrors([&] {
      std::string section = StoreItem(item);
      if (section.empty()) return;
      IgnoreErrors([&] { RunItemStep(section); });
      sections.push_back(std::move(section));
    });
  }
  const std::string all = m_context.store.GetSetting(kChartApp, kNewsSection, kAll);
  m_context.store.SaveSetting(kChartApp, kNewsSection, kAll,
                              WithNewSections(all, providers::SortedCopy(sections, providers::CompareMode::kText)));
}

std::string NewsFeed::StoreItem(const JsonValue& item) {
  const std::string id = item.At("ts_id").Text();
  const std::string time = item.At("datetime").Text();
  std::string section = time + "_" + id;
  // A comma would make two entries of it in the list.
  if (id.empty() || time.empty() || providers::Contains(section, ",")) return {};
  auto& store = m_context.store;
  for (const providers::JsonMember& field : item.Members()) {
    if (field.key == "ts_id" || field.key == "url" || field.key == "image") continue;
    IgnoreErrors([&] { store.SaveSetting(kItemsApp, section, field.key, field.value.Text()); });
  }
  IgnoreErrors([&] {
    const providers::DateRules rules{m_context.gmtOffsetMinutes, m_context.clock.LocalNow().year, m_context.locale};
    store.SaveSetting(kItemsApp, section, "datetime_gmt",
                      providers::FormatDate(providers::UnixToLocal(time, rules), "Month5+Hora", rules));
  });
  IgnoreErrors([&] { NoteHighest(item, time, id); });
  return section;
}

void NewsFeed::NoteHighest(const JsonValue& item, std::string_view time, std::string_view id) {
  auto& store = m_context.store;
  if (!IsHigher(item.At("ts_id"), store.GetSetting(kChartApp, kNewsSection, kLastId))) return;
  store.SaveSetting(kChartApp, kNewsSection, kLastId, id);
  store.SaveSetting(kChartApp, kNewsSection, kLastTime, time);
}

// Nothing but the icons of the symbols that the item names.
void NewsFeed::RunItemStep(std::string_view section) {
  if (!providers::Contains(section, "_")) return;
  for (const std::string_view field : {"symbol", "related"}) {
    m_icons.Want(m_context.store.GetSetting(kItemsApp, section, field));
  }
}

// A section without "," occurs with its comma exactly when an entry of the list ends with it, so the entries are looked
// up by their ends: the cost does not grow with the product of the two lengths.
std::string WithNewSections(std::string_view all, const std::vector<std::string>& sections) {
  std::set<std::string> ends;
  for (std::size_t start = 0, end = 0; (end = all.find(',', start)) != std::string_view::npos; start = end + 1) {
    ends.insert(Reversed(all.substr(start, end - start)));
  }
  std::vector<const std::string*> added;
  std::size_t length = all.size();
  for (const std::string& section : sections) {
    const std::string reversed = Reversed(section);
    const auto found = ends.lower_bound(reversed);
    if (found != ends.end() && found->starts_with(reversed)) continue;
    ends.insert(found, reversed);
    added.push_back(&section);
    length += section.size() + 1;
  }
  std::string result;
  result.reserve(length);
  for (auto each = added.rbegin(); each != added.rend(); ++each) result.append(**each).append(",");
  return result.append(all);
}

}  // namespace quenmark::feeder
