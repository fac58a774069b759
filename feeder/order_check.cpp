#include "feeder/order_check.h"

#include "platform/code_page.h"
#include "platform/date_text.h"
#include "platform/number_text.h"
#include "platform/run_time_error.h"
#include "providers/numbers.h"

#include <cmath>
#include <optional>
#include <string>

namespace quenmark::feeder {
namespace {

using platform::IgnoreErrors;

constexpr std::string_view kOrdersApp = "KLV-PT";
constexpr std::string_view kDetailsApp = "GetDetalhes";
constexpr double kOpenStatus = 1;
constexpr std::string_view kFilled = "4";
constexpr std::string_view kRejected = "9";

enum class Outcome { kLeft, kHandled };

// One quote's walk over the open orders of its symbol. Every statement stands alone: a fault in one is ignored.
class Walk {
 public:
  Walk(providers::Context& context, std::string_view symbol, double last, std::string_view stamp)
      : m_context(context),
        m_symbol(symbol),
        m_last(last),
        m_stamp(stamp),
        m_now(platform::FormatPattern(context.clock.LocalNow(), "yyyymmddhhnnss")) {}

  void Run() {
    // Read anew after every handled entry. One that could not be deleted would be met for ever: it ends the walk.
    auto entries = Entries();
    while (const auto handled = HandleFirst(entries)) {
      entries = Entries();
      for (const auto& [key, value] : entries) {
        if (key == *handled) return;
      }
    }
  }

 private:
  struct Order {
    std::string_view key;
    std::string_view value;
    std::string_view id;
    double price = 0;
  };

  platform::SettingsStore::Pairs Entries() { return m_context.store.GetAllSettings(kOrdersApp, Section("Open-")); }

  // The key of the first entry that could be handled.
  std::optional<std::string> HandleFirst(const platform::SettingsStore::Pairs& entries) {
    for (const auto& [key, value] : entries) {
      if (Handle(key, value) == Outcome::kHandled) return key;
    }
    return std::nullopt;
  }

  Outcome Handle(const std::string& key, const std::string& value) {
    const std::size_t bar = key.find('|');
    if (bar == std::string::npos || platform::Utf16Length(std::string_view(key).substr(0, bar)) != 1) {
      Delete(key);
      return Outcome::kHandled;
    }
    const Order order{key, value, std::string_view(key).substr(bar + 1), platform::ReadNumber(value)};
    const char side = platform::AsciiUpper(key.substr(0, 1)).front();
    const bool knownSide = side == 'B' || side == 'S';
    const double status = std::nearbyint(platform::ReadNumber(Read("Ord-Status", order.id)));
    if (status != kOpenStatus) return ReportConflict(order, status);
    if (!knownSide || !(order.price > 0)) {
      Decide(order, kRejected, "0");
      Leave(order, "Today-");
      return Outcome::kHandled;
    }
    const bool crossed = side == 'B' ? m_last < order.price : m_last > order.price;
    if (!crossed) return Outcome::kLeft;
    Decide(order, kFilled, platform::NumberText(order.price));
    Book(order, side == 'B' ? 1 : -1);
    Leave(order, "Today-");
    return Outcome::kHandled;
  }

  // Still listed as open, but its status says that it is not.
  Outcome ReportConflict(const Order& order, double status) {
    const std::string value = m_context.store.GetSetting(kOrdersApp, Section("Open-"), order.key);
    if (!(platform::ReadNumber(value) > 0)) return Outcome::kLeft;
    Save("Ord-Status", order.id, kRejected);
    IgnoreErrors([&] {
      const platform::CivilTime now = m_context.clock.LocalNow();
      const std::string history = m_context.store.GetSetting(kDetailsApp, order.id, "Detalhes");
      m_context.store.SaveSetting(
          kDetailsApp, order.id, "Detalhes",
          fmt::format("* Order Error {} Error: Order status does not match conditions (Open with Status {}) ({} {} - "
                      "local computer time)<br><br>{}",
                      order.id, platform::NumberText(status), platform::FormatPattern(now, "yyyy-mm-dd"),
                      platform::FormatPattern(now, "hh:nn:ss"), history));
    });
    Leave(order, "Error-");
    return Outcome::kHandled;
  }

  void Decide(const Order& order, std::string_view status, std::string_view fillPrice) {
    Save("Ord-Status", order.id, status);
    Save("Ord-PrcFill", order.id, fillPrice);
    Save("Ord-QDate", order.id, m_stamp);
    Save("Ord-EndDate", order.id, m_now);
  }

  void Book(const Order& order, double sign) {
    const std::string averageKey = std::string(m_symbol) + "-Prc";
    const double position = platform::ReadNumber(Read("Pos", m_symbol));
    const double average = platform::ReadNumber(Read("Pos", averageKey));
    const double quantity = platform::ReadNumber(Read("Ord-Qty", order.id));
    const double newPosition = position + sign * quantity;
    // A position that closes has no average: the stored one stays.
    IgnoreErrors([&] {
      const double cost = position * average + sign * quantity * order.price;
      Save("Pos", averageKey, platform::NumberText(providers::Divide(cost, newPosition)));
    });
    IgnoreErrors([&] { Save("Pos", m_symbol, platform::NumberText(newPosition)); });
  }

  // Moves the entry from the open list to another one.
  void Leave(const Order& order, std::string_view list) {
    IgnoreErrors([&] { m_context.store.SaveSetting(kOrdersApp, Section(list), order.key, order.value); });
    Save("SeqOrd", order.id, m_now);
    Delete(order.key);
  }

  std::string Section(std::string_view beginning) const { return std::string(beginning).append(m_symbol); }
  std::string Read(std::string_view section, std::string_view key) {
    return m_context.store.GetSetting(kOrdersApp, section, key);
  }
  void Save(std::string_view section, std::string_view key, std::string_view value) {
    IgnoreErrors([&] { m_context.store.SaveSetting(kOrdersApp, section, key, value); });
  }
  void Delete(std::string_view key) {
    IgnoreErrors([&] { m_context.store.DeleteSetting(kOrdersApp, Section("Open-"), key); });
  }

  providers::Context& m_context;
  std::string_view m_symbol;
  double m_last;
  std::string_view m_stamp;
  std::string m_now;
};

}  // namespace

void CheckOrders(providers::Context& context, std::string_view symbol, double last, std::string_view stamp) {
  Walk(context, symbol, last, stamp).Run();
}

}  // namespace quenmark::feeder
