// One-minute bars of the day, built from quotes and left in text files (docs/formats/bar_files.md).
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace quenmark::feeder {

class BarBuilder {
 public:
  // The files go into the folder "data" below the program folder; a missing folder means no files.
  explicit BarBuilder(std::string programFolder);

  // Folds one quote in. `stamp` is yyyymmddHHMMss. The first quote of another date drops all bars. File errors are
  // ignored; a symbol that would leave the folder gets no file.
  void Update(std::string_view symbol, double last, std::string_view stamp);

  // The bar buffer: the date, then "(" symbol ")" and the bar text of each symbol in order of first appearance.
  std::string Buffer() const;

 private:
  struct Bar {
    std::string symbol;
    std::string minute;  // HHMM
    std::string open;    // number text
    std::string high;    // number text of the first quote, whole numbers afterwards
    std::string low;
    std::string close;
    std::int64_t updates = 1;
    std::int64_t quotes = 1;
  };

  static std::string BarText(const Bar& bar);
  void FoldIn(Bar& bar, double last, std::string_view minute);
  std::string FileName(std::string_view symbol, std::string_view tag) const;

  std::string m_programFolder;
  std::string m_date;  // yyyymmdd
  std::vector<Bar> m_bars;
  std::unordered_map<std::string, std::size_t> m_places;  // symbol to index in m_bars
};

}  // namespace quenmark::feeder
