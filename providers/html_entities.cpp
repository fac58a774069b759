#include "providers/html_entities.h"

#include "platform/code_page.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <functional>
#include <queue>
#include <utility>
#include <vector>

namespace quenmark::providers {

namespace {

constexpr std::size_t kLongestEntity = 8;  // "&Agrave;"

// Names of the characters 160 to 255, in code order; "" where no named entity is replaced.
constexpr std::array<std::string_view, 96> kLatinNames = {
    "nbsp",   "iexcl",  "cent",   "pound",  "curren", "yen",    "brvbar", "sect",   "uml",    "copy",   "ordf",
    "laquo",  "not",    "shy",    "reg",    "macr",   "deg",    "plusmn", "sup2",   "sup3",   "acute",  "micro",
    "para",   "",       "cedil",  "sup1",   "ordm",   "raquo",  "frac14", "frac12", "frac34", "iquest", "Agrave",
    "Aacute", "Acirc",  "Atilde", "Auml",   "Aring",  "AElig",  "Ccedil", "Egrave", "Eacute", "Ecirc",  "Euml",
    "Igrave", "Iacute", "Icirc",  "Iuml",   "ETH",    "Ntilde", "Ograve", "Oacute", "Ocirc",  "Otilde", "Ouml",
    "times",  "Oslash", "Ugrave", "Uacute", "Ucirc",  "Uuml",   "Yacute", "THORN",  "szlig",  "agrave", "aacute",
    "acirc",  "atilde", "auml",   "aring",  "aelig",  "ccedil", "egrave", "eacute", "ecirc",  "euml",   "igrave",
    "iacute", "icirc",  "iuml",   "eth",    "ntilde", "ograve", "oacute", "ocirc",  "otilde", "ouml",   "divide",
    "oslash", "ugrave", "uacute", "ucirc",  "uuml",   "yacute", "thorn",  "yuml",
};
constexpr char32_t kFirstLatin = 160;
constexpr char32_t kTimes = 215;
constexpr char32_t kDivide = 247;
constexpr char32_t kMiddleDot = 183;

// Characters beyond Latin-1, in the order of both their named and their numbered entities.
constexpr std::array<std::pair<std::string_view, char32_t>, 25> kOtherNames = {{
    {"OElig", 338},   {"oelig", 339},   {"Scaron", 352},  {"scaron", 353}, {"Yuml", 376},
    {"fnof", 402},    {"circ", 710},    {"tilde", 732},   {"ndash", 8211}, {"mdash", 8212},
    {"lsquo", 8216},  {"rsquo", 8217},  {"sbquo", 8218},  {"ldquo", 8220}, {"rdquo", 8221},
    {"bdquo", 8222},  {"dagger", 8224}, {"Dagger", 8225}, {"bull", 8226},  {"hellip", 8230},
    {"permil", 8240}, {"lsaquo", 8249}, {"rsaquo", 8250}, {"euro", 8364},  {"trade", 8482},
}};

// One replacement: an entity and the character it becomes.
struct Row {
  std::string entity;
  char32_t character;  // 0: the entity is taken out
};

void AddNamed(std::vector<Row>& rows, std::string_view name, char32_t character) {
  rows.push_back({"&" + std::string(name) + ";", character});
}

void AddNamedLatin(std::vector<Row>& rows, char32_t first, char32_t last) {
  for (char32_t code = first; code <= last; ++code) {
    const std::string_view name = kLatinNames[code - kFirstLatin];
    if (!name.empty() && code != kTimes && code != kDivide) AddNamed(rows, name, code);
  }
}

void AddNumbered(std::vector<Row>& rows, char32_t first, char32_t last, std::size_t digits = 0) {
  for (char32_t code = first; code <= last; ++code) {
    if (code == U'?' || code == kMiddleDot || code == kTimes || code == kDivide) continue;
    std::string number = std::to_string(static_cast<std::uint32_t>(code));
    if (number.size() < digits) number.insert(0, digits - number.size(), '0');
    const bool isBlank = code == U' ' || code == kFirstLatin;
    rows.push_back({"&#" + number + ";", isBlank ? 0 : code});
  }
}

// The list, in its order.
std::vector<Row> MakeRows() {
  std::vector<Row> rows;
  for (int round = 0; round < 2; ++round) {
    AddNamed(rows, "amp", U'&');
    AddNamed(rows, "lt", U'<');
    AddNamed(rows, "gt", U'>');
  }
  AddNamedLatin(rows, 192, 255);
  AddNamed(rows, "nbsp", 0);
  AddNamedLatin(rows, 161, 191);
  AddNamed(rows, "times", kTimes);
  AddNamed(rows, "divide", kDivide);
  for (const auto& [name, character] : kOtherNames) AddNamed(rows, name, character);
  AddNumbered(rows, 32, 99);
  AddNumbered(rows, 32, 99, 3);
  AddNumbered(rows, 100, 126);
  AddNumbered(rows, 192, 255);
  AddNumbered(rows, 160, 191);
  rows.push_back({"&#215;", kTimes});
  rows.push_back({"&#247;", kDivide});
  for (const auto& [name, character] : kOtherNames) AddNumbered(rows, character, character);
  return rows;
}

// The list and an index into it.
class EntityTable {
 public:
  static constexpr std::size_t kNone = SIZE_MAX;

  EntityTable() : m_rows(MakeRows()) {
    for (std::size_t row = 0; row < m_rows.size(); ++row) m_index.emplace_back(m_rows[row].entity, row);
    std::sort(m_index.begin(), m_index.end());
  }

  // The first row from `from` on that replaces this entity.
  std::size_t Find(std::string_view entity, std::size_t from) const {
    const auto found = std::lower_bound(m_index.begin(), m_index.end(), std::pair(entity, from));
    return found != m_index.end() && found->first == entity ? found->second : kNone;
  }
  char32_t Character(std::size_t row) const { return m_rows[row].character; }

 private:
  std::vector<Row> m_rows;
  std::vector<std::pair<std::string_view, std::size_t>> m_index;  // entity, row
};

const EntityTable& Table() {
  static const EntityTable table;
  return table;
}

bool IsEntityCharacter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '&' || c == '#' || c == ';';
}

// Decodes one run of characters that entities are made of; nothing outside it can become part of an entity in it.
//
// Instead of walking the list, each "&" that begins an entity is queued under the row that will replace it. Entities do
// not overlap, so the order within one row does not matter. A replacement can complete an entity that begins up to
// seven characters before it; that one is queued under a later row.
class RunDecoder {
 public:
  void Decode(std::string_view run, std::string& result) {
    Load(run);
    for (std::uint32_t at = 1; at <= run.size(); ++at) {
      if (m_characters[at].code == U'&') Enqueue(at, 0);
    }
    while (!m_queue.empty()) {
      const auto [row, at] = m_queue.top();
      m_queue.pop();
      Replace(at, row);
    }
    for (std::uint32_t at = m_characters[0].next; at != 0; at = m_characters[at].next) {
      platform::AppendUtf8(result, m_characters[at].code);
    }
  }

 private:
  // Characters form a ring in order of the text; number 0 stands before the first and behind the last.
  struct Character {
    std::uint32_t previous;
    std::uint32_t next;
    char32_t code;
  };

  void Load(std::string_view run) {
    m_characters.resize(run.size() + 1);
    const auto last = static_cast<std::uint32_t>(run.size());
    m_characters[0] = {last, last == 0 ? 0u : 1u, 0};
    for (std::uint32_t at = 1; at <= last; ++at) {
      m_characters[at] = {at - 1, at == last ? 0 : at + 1, static_cast<unsigned char>(run[at - 1])};
    }
  }

  // Queues the entity that begins here, if one does that a row from `from` on replaces.
  void Enqueue(std::uint32_t at, std::size_t from) {
    std::array<char, kLongestEntity> entity;
    std::size_t size = 0;
    for (std::uint32_t next = at; next != 0 && size < entity.size(); next = m_characters[next].next) {
      const char32_t code = m_characters[next].code;
      if (code >= 0x80 || (size > 0 && code == U'&')) return;
      entity[size++] = static_cast<char>(code);
      if (code != U';') continue;
      const std::size_t row = Table().Find({entity.data(), size}, from);
      if (row != EntityTable::kNone) m_queue.emplace(row, at);
      return;
    }
  }

  void Replace(std::uint32_t at, std::size_t row) {
    std::uint32_t last = at;
    while (m_characters[last].code != U';') last = m_characters[last].next;
    const char32_t replacement = Table().Character(row);
    m_characters[at].code = replacement;
    const std::uint32_t before = m_characters[at].previous;
    const std::uint32_t kept = replacement == 0 ? before : at;
    const std::uint32_t behind = m_characters[last].next;
    m_characters[kept].next = behind;
    m_characters[behind].previous = kept;
    // The "&" whose entity this may have completed. One with a ";" in between has been queued before.
    std::uint32_t start = replacement == U'&' ? at : before;
    for (std::size_t steps = 1; steps < kLongestEntity && start != 0 && m_characters[start].code != U'&'; ++steps) {
      if (m_characters[start].code == U';') return;
      start = m_characters[start].previous;
    }
    if (m_characters[start].code == U'&') Enqueue(start, row + 1);
  }

  std::vector<Character> m_characters;
  std::priority_queue<std::pair<std::size_t, std::uint32_t>, std::vector<std::pair<std::size_t, std::uint32_t>>,
                      std::greater<>>
      m_queue;
};

}  // namespace

std::string HtmlEntityDecode(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  RunDecoder decoder;
  std::size_t copied = 0;
  for (std::size_t at = text.find('&'); at != std::string_view::npos; at = text.find('&', copied)) {
    std::size_t end = at;
    while (end < text.size() && IsEntityCharacter(text[end])) ++end;
    result.append(text, copied, at - copied);
    decoder.Decode(text.substr(at, end - at), result);
    copied = end;
  }
  return result.append(text, copied);
}

}  // namespace quenmark::providers
