#include "feeder/bar_builder.h"

#include "feeder/quote_record.h"
#include "platform/files.h"
#include "platform/number_text.h"
#include "platform/run_time_error.h"

#include <fmt/format.h>

#include <cmath>
#include <utility>

namespace quenmark::feeder {
namespace {

constexpr std::size_t kDateLength = 8;
constexpr std::string_view kFinishedTag = "(0)-";
constexpr std::string_view kCurrentTag = "(LM)-";

// Nearest whole number, halves to the even neighbour.
double Whole(double value) {
  const double below = std::floor(value);
  const double fraction = value - below;
  if (fraction != 0.5) return fraction < 0.5 ? below : below + 1;
  return std::fmod(below, 2) == 0 ? below : below + 1;
}

}  // namespace

BarBuilder::BarBuilder(std::string programFolder) : m_programFolder(std::move(programFolder)) {}

void BarBuilder::Update(std::string_view symbol, double last, std::string_view stamp) {
  if (!IsStamp(stamp) || !std::isfinite(last)) return;
  const std::string_view date = stamp.substr(0, kDateLength);
  const std::string_view minute = stamp.substr(kDateLength, 4);
  if (date != m_date) {
    m_date = date;
    m_bars.clear();
    m_places.clear();
  }
  const auto [place, isNew] = m_places.try_emplace(std::string(symbol), m_bars.size());
  if (isNew) {
    const std::string price = platform::NumberText(last);
    m_bars.push_back({std::string(symbol), std::string(minute), price, price, price, price});
    return;
  }
  Bar& bar = m_bars[place->second];
  FoldIn(bar, last, minute);
  if (!platform::IsSafeInFileName(symbol)) return;
  platform::IgnoreErrors([&] { platform::SalvarArquivo(FileName(symbol, kCurrentTag), BarText(bar)); });
}

void BarBuilder::FoldIn(Bar& bar, double last, std::string_view minute) {
  if (bar.minute == minute) {
    const double high = Whole(platform::ReadNumber(bar.high));
    const double low = Whole(platform::ReadNumber(bar.low));
    bar.high = platform::NumberText(last > high ? Whole(last) : high);
    bar.low = platform::NumberText(last < low ? Whole(last) : low);
  } else {
    if (platform::IsSafeInFileName(bar.symbol)) {
      platform::IgnoreErrors(
          [&] { platform::AppendToFile(FileName(bar.symbol, kFinishedTag), BarText(bar) + "\r\n"); });
    }
    bar.open = platform::NumberText(last);
    bar.high = bar.low = platform::NumberText(Whole(last));
    bar.updates = bar.quotes = 0;
  }
  bar.minute = minute;
  bar.close = platform::NumberText(last);
  ++bar.updates;
  ++bar.quotes;
}

std::string BarBuilder::Buffer() const {
  std::string text = m_date;
  for (const Bar& bar : m_bars) text.append("(").append(bar.symbol).append(")").append(BarText(bar));
  return text;
}

std::string BarBuilder::BarText(const Bar& bar) {
  return fmt::format("{}-{}-{}-{}-{}-{}-{}-1", bar.minute, bar.open, bar.high, bar.low, bar.close, bar.updates,
                     bar.quotes);
}

std::string BarBuilder::FileName(std::string_view symbol, std::string_view tag) const {
  return fmt::format("{}/data/mdi_{}{}{}", m_programFolder, symbol, tag, m_date);
}

}  // namespace quenmark::feeder
