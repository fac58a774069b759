#include "simulator/answer_tree.h"

#include <fmt/format.h>

#include <cstdlib>

namespace quenmark::simulator {
namespace {

// Length of the UTF-8 sequence (RFC 3629 §4) at the start of `text`; 0 when there is none.
std::size_t SequenceLength(std::string_view text) {
  const auto byte = [text](std::size_t index) { return static_cast<unsigned char>(text[index]); };
  const unsigned first = byte(0);
  const std::size_t length = first < 0x80   ? 1
                             : first < 0xC2 ? 0
                             : first < 0xE0 ? 2
                             : first < 0xF0 ? 3
                             : first < 0xF5 ? 4
                                            : 0;
  if (length == 0 || length > text.size()) return 0;
  for (std::size_t index = 1; index < length; ++index) {
    if ((byte(index) & 0xC0U) != 0x80) return 0;
  }
  if (length == 1) return 1;
  const unsigned second = byte(1);
  const bool bad = (first == 0xE0 && second < 0xA0) || (first == 0xED && second > 0x9F) ||
                   (first == 0xF0 && second < 0x90) || (first == 0xF4 && second > 0x8F);
  return bad ? 0 : length;
}

void AppendJson(const Node& node, std::string& out) {
  switch (node.kind) {
    case Node::Kind::kNull:
      out += "null";
      return;
    case Node::Kind::kNumber:
      out += node.text;
      return;
    case Node::Kind::kText:
      out += QuotedJson(node.text);
      return;
    case Node::Kind::kObject:
    case Node::Kind::kList:
      break;
  }
  const bool object = node.kind == Node::Kind::kObject;
  out += object ? '{' : '[';
  for (std::size_t index = 0; index < node.values.size(); ++index) {
    if (index != 0) out += ',';
    if (object) out += QuotedJson(node.names[index]) + ':';
    AppendJson(node.values[index], out);
  }
  out += object ? '}' : ']';
}

std::string XmlText(std::string_view text) {
  std::string out;
  for (const char character : text) {
    switch (character) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      default:
        out += character;
    }
  }
  return out;
}

void AppendXml(const std::string& name, const Node& node, std::string& out) {
  if (node.kind == Node::Kind::kList) {
    for (const Node& element : node.values) AppendXml(name, element, out);
    return;
  }
  if (node.kind == Node::Kind::kNull) {
    out += '<' + name + "/>";
    return;
  }
  out += '<' + name + '>' + XmlText(node.text);
  for (std::size_t index = 0; index < node.values.size(); ++index)
    AppendXml(node.names[index], node.values[index], out);
  out += "</" + name + '>';
}

}  // namespace

Node& Node::Add(std::string name, Node value) {
  names.push_back(std::move(name));
  values.push_back(std::move(value));
  return *this;
}

Node ProviderList(std::vector<Node> elements) {
  if (elements.empty()) return Node::Null();
  if (elements.size() == 1) return std::move(elements.front());
  return Node::List(std::move(elements));
}

Node AsSentTexts(const Node& node) {
  Node copy{node.kind == Node::Kind::kNumber ? Node::Kind::kText : node.kind, node.text, node.names, {}};
  for (const Node& value : node.values) copy.values.push_back(AsSentTexts(value));
  return copy;
}

std::string ToJson(const Node& node) {
  std::string out;
  AppendJson(node, out);
  return out;
}

std::string ToXml(const Node& node) {
  std::string out = R"(<?xml version="1.0" encoding="UTF-8" standalone="yes"?>)";
  for (std::size_t index = 0; index < node.values.size(); ++index)
    AppendXml(node.names[index], node.values[index], out);
  return out;
}

std::string QuotedJson(std::string_view text) {
  std::string out = "\"";
  while (!text.empty()) {
    const std::size_t length = SequenceLength(text);
    const char character = text.front();
    if (length == 0) {
      out += "\\ufffd";
    } else if (character == '"' || character == '\\') {
      out += '\\';
      out += character;
    } else if (length == 1 && static_cast<unsigned char>(character) < 0x20) {
      out += fmt::format("\\u{:04x}", static_cast<unsigned>(character));
    } else {
      out += text.substr(0, length);
    }
    text.remove_prefix(length == 0 ? 1 : length);
  }
  return out + '"';
}

std::string DecimalText(std::int64_t value, int decimals) {
  std::int64_t scale = 1;
  for (int digit = 0; digit < decimals; ++digit) scale *= 10;
  std::string fraction = fmt::format("{:0{}}", std::abs(value % scale), decimals);
  while (fraction.size() > 1 && fraction.back() == '0') fraction.pop_back();
  return fmt::format("{}{}.{}", value < 0 ? "-" : "", std::abs(value / scale), fraction);
}

}  // namespace quenmark::simulator
