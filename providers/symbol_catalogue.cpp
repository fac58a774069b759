#include "providers/symbol_catalogue.h"

#include "platform/code_page.h"

namespace quenmark::providers {
namespace {

constexpr std::string_view kSection = "Symbols";

}  // namespace

std::string CatalogueEntry(Context& context, std::string_view application, std::string_view symbol) {
  return context.store.GetSetting(application, kSection, platform::AsciiUpper(symbol));
}

void SaveCatalogueEntry(Context& context, std::string_view application, std::string_view symbol,
                        std::string_view entry) {
  if (!symbol.empty()) context.store.SaveSetting(application, kSection, platform::AsciiUpper(symbol), entry);
}

}  // namespace quenmark::providers
