// The rules of minute bars taken literally: one text that is searched and cut, as the format's page tells them.
#pragma once

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <string>

namespace quenmark::test {

class TextBars {
 public:
  std::map<std::string, std::string> files;  // by name

  // The price in whole cents.
  void Update(const std::string& symbol, double price, const std::string& stamp) {
    const std::string date = stamp.substr(0, 8);
    const std::string minute = stamp.substr(8, 4);
    const std::string text = Text(price);
    if (!m_buffer.starts_with(date)) m_buffer = date;
    const std::size_t start = m_buffer.find("(" + symbol + ")");
    if (start == std::string::npos) {
      m_buffer += fmt::format("({0}){1}-{2}-{2}-{2}-{2}-1-1-1", symbol, minute, text);
      return;
    }
    const std::size_t bar = start + symbol.size() + 2;
    const std::size_t end = std::min(m_buffer.find('(', bar), m_buffer.size());
    const std::string old = m_buffer.substr(bar, end - bar);
    std::string open = Field(old, 2);
    double high = std::nearbyint(std::stod(Field(old, 3)));
    double low = std::nearbyint(std::stod(Field(old, 4)));
    int count = std::stoi(Field(old, 6));
    if (Field(old, 1) == minute) {
      if (price > high) high = std::nearbyint(price);
      if (price < low) low = std::nearbyint(price);
    } else {
      files["mdi_" + symbol + "(0)-" + date] += old + "\r\n";
      open = text;
      high = low = std::nearbyint(price);
      count = 0;
    }
    ++count;
    const std::string now = fmt::format("{}-{}-{:.0f}-{:.0f}-{}-{}-{}-1", minute, open, high, low, text, count, count);
    m_buffer.replace(bar, end - bar, now);
    files["mdi_" + symbol + "(LM)-" + date] = now;
  }
  const std::string& Buffer() const { return m_buffer; }

 private:
  static std::string Text(double price) {
    std::string text = fmt::format("{:.2f}", price);
    text.erase(text.find_last_not_of('0') + 1);
    if (text.back() == '.') text.pop_back();
    return text;
  }
  static std::string Field(const std::string& bar, int number) {
    std::size_t start = 0;
    while (--number > 0) start = bar.find('-', start) + 1;
    return bar.substr(start, bar.find('-', start) - start);
  }

  std::string m_buffer;
};

}  // namespace quenmark::test
