#include "simulator/http_message.h"

#include <algorithm>
#include <charconv>
#include <functional>
#include <set>

namespace quenmark::simulator {
namespace {

char Upper(char character) {
  return character >= 'a' && character <= 'z' ? static_cast<char>(character - 'a' + 'A') : character;
}

std::string QueryText(std::string_view text) {
  std::string blanks{text};
  std::replace(blanks.begin(), blanks.end(), '+', ' ');
  return PercentDecoded(blanks);
}

}  // namespace

std::string_view HttpRequest::Path() const {
  std::string_view path = std::string_view{target}.substr(0, target.find('?'));
  if (const std::size_t mark = path.find("://"); mark != std::string_view::npos && !path.starts_with('/')) {
    path = path.substr(std::min(path.find('/', mark + 3), path.size()));
  }
  return path;
}

std::string_view HttpRequest::Header(std::string_view name) const {
  const std::string wanted = UpperCase(name);
  for (const auto& [key, value] : headers) {
    if (UpperCase(key) == wanted) return value;
  }
  return {};
}

NamedTexts QueryOf(std::string_view target) {
  NamedTexts query;
  const std::size_t begin = target.find('?');
  if (begin == std::string_view::npos) return query;
  std::string_view rest = target.substr(begin + 1);
  while (!rest.empty()) {
    const std::string_view entry = rest.substr(0, rest.find('&'));
    rest.remove_prefix(std::min(rest.size(), entry.size() + 1));
    const std::size_t equals = std::min(entry.find('='), entry.size());
    query.emplace_back(QueryText(entry.substr(0, equals)), QueryText(entry.substr(std::min(equals + 1, entry.size()))));
  }
  return query;
}

std::string_view ValueOf(const NamedTexts& texts, std::string_view name) {
  for (const auto& [key, value] : texts) {
    if (key == name) return value;
  }
  return {};
}

std::string PercentDecoded(std::string_view text) {
  std::string out;
  for (std::size_t index = 0; index < text.size(); ++index) {
    unsigned value = 0;
    const std::string_view digits = text.substr(index).substr(1, 2);
    const char* end = digits.data() + digits.size();
    if (text[index] == '%' && digits.size() == 2 && std::from_chars(digits.data(), end, value, 16).ptr == end) {
      out += static_cast<char>(value);
      index += 2;
    } else {
      out += text[index];
    }
  }
  return out;
}

std::vector<std::string> SymbolNames(std::string_view list) {
  std::vector<std::string> names;
  std::set<std::string, std::less<>> seen;
  while (!list.empty()) {
    const std::string_view name = list.substr(0, list.find(','));
    list.remove_prefix(std::min(list.size(), name.size() + 1));
    std::string symbol = UpperCase(name);
    if (!symbol.empty() && seen.insert(symbol).second) names.push_back(std::move(symbol));
  }
  return names;
}

bool HasBearer(const HttpRequest& request, std::string_view token) {
  constexpr std::string_view kScheme = "Bearer ";
  const std::string_view value = request.Header("Authorization");
  if (!value.starts_with(kScheme) || value.size() == kScheme.size()) return false;
  return token.empty() || value.substr(kScheme.size()) == token;
}

std::string UpperCase(std::string_view text) {
  std::string upper{text};
  std::transform(upper.begin(), upper.end(), upper.begin(), Upper);
  return upper;
}

}  // namespace quenmark::simulator
