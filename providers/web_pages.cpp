#include "providers/web_pages.h"

#include "platform/code_page.h"
#include "platform/run_time_error.h"
#include "providers/html_entities.h"
#include "providers/text_pieces.h"
#include "providers/text_utilities.h"

namespace quenmark::providers {

std::string GetPageText(Context& context, std::string_view address) {
  std::string text;
  platform::IgnoreErrors([&] {
    auto request = context.http.CreateRequest();
    request->Open("GET", address);
    request->Send();
    text = request->responseText();
  });
  return text;
}

std::string GetTagText(std::string_view html, std::string_view tag) {
  const std::string opening = "<" + std::string(tag) + ">";
  const std::size_t open = html.find(opening);
  const std::size_t close = html.find("</" + std::string(tag) + ">");
  if (open == std::string_view::npos || close == std::string_view::npos) return {};
  const std::size_t start = open + opening.size();
  return close < start ? std::string{} : std::string(html.substr(start, close - start));
}

std::string GetBarchartName(Context& context, std::string_view symbol) {
  const std::string page =
      GetPageText(context, context.hosts.barchart + "/quotes/" + InPath(platform::AsciiUpper(symbol)));
  std::string title = HtmlEntityDecode(UrlDecode(GetTagText(page, "title")));
  title = std::string(Trimmed(ReplaceAll(ReplaceAll(title, context.hosts.barchartSuffix, ""), " Price", "")));
  if (title == "Advanced Search") return "Not Found";
  const std::size_t dash = title.find('-');
  return dash == std::string::npos ? title : std::string(Trimmed(std::string_view(title).substr(dash + 1)));
}

}  // namespace quenmark::providers
