// A stock as TradeStation writes it.
#pragma once

#include "simulator/answer_tree.h"
#include "simulator/market.h"

#include <string>

namespace quenmark::simulator {

// Every field of a quote; values are texts, or null while there is none.
Node StationQuote(const Market& market, const Stock& stock);
// The symbol's details. Every fourth symbol has its decimals and point value as numbers, the others as texts.
Node StationSymbol(const Stock& stock);
// {"Symbol":...,"Error":...}
Node StationSymbolError(const std::string& symbol, const std::string& error);

}  // namespace quenmark::simulator
