#include "providers/symbol_directory.h"

#include "platform/files.h"
#include "platform/run_time_error.h"
#include "providers/http_requests.h"
#include "providers/text_pieces.h"

namespace quenmark::providers {
namespace {

constexpr std::string_view kCacheFile = "/pb_cad_stock.log";
constexpr std::string_view kSymbolMarker = R"("symbol":")";

struct IndexRow {
  std::string_view description;
  std::string_view code;
};

constexpr IndexRow kIndexes[] = {
    {"S\\u0026P 500", "^GSPC"},     {"Nasdaq 100", "^NDX"},          {"Dow 30", "^DJI"},
    {"Russell 2000", "^RUT"},       {"ESTX 50 PR.EUR", "^STOXX50E"}, {"DAX PERFORMANCE-INDEX", "^GDAXI"},
    {"S\\u0026P/ASX 200", "^AXJO"}, {"FTSE 100", "^FTSE"},
};

std::string IndexEntries() {
  std::string entries = ",";
  for (const IndexRow& row : kIndexes) {
    entries += fmt::format(
        R"({{"count":1,"result":[{{"description":"{}","displaySymbol":"{}","symbol":"{}","type":"Indice"}}]}},)",
        row.description, row.code, row.code);
  }
  return entries;
}

// The vendor's list, "" when neither the cache file nor the service has one.
std::string RawDirectory(Context& context) {
  const std::string cacheFile = context.programFolder + std::string(kCacheFile);
  if (platform::FileExists(cacheFile)) {
    std::string cached = platform::ReadWholeFile(cacheFile);
    if (Contains(cached, kSymbolMarker)) return cached;
  }
  if (context.hosts.symbolList.empty()) return {};
  std::string answer = VendorPost(context, context.hosts.symbolList + "/cad/", context.serviceCredential);
  if (!Contains(answer, kSymbolMarker)) return {};
  platform::IgnoreErrors([&] { platform::SalvarArquivo(cacheFile, answer); });
  return answer;
}

}  // namespace

void LoadSymbolDirectory(Context& context) {
  if (!context.symbolDirectory.empty()) return;
  std::string directory = RawDirectory(context);
  if (directory.empty()) return;
  context.symbolDirectory = ReplaceAll(directory + IndexEntries(), "\\u0026", "&");
}

std::string_view DirectoryEntry(std::string_view directory, std::string_view symbol) {
  const std::size_t found = directory.find(std::string(kSymbolMarker) + std::string(symbol) + '"');
  if (found == std::string_view::npos) return {};
  const std::size_t start = directory.rfind('{', found);
  const std::size_t end = directory.find('}', found);
  if (start == std::string_view::npos || end == std::string_view::npos) return {};
  return directory.substr(start, end + 1 - start);
}

}  // namespace quenmark::providers
