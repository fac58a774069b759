// The bar answer for the sibling tool.
#pragma once

#include "providers/context.h"

namespace quenmark::feeder {

// Answers the request in section "QX" of the configuration application, if there is one: the newest bar of every symbol
// of "QXPapeis" since "HrLM" goes into "QXPapResp" (docs/formats/sibling_bars.md).
void AnswerSiblingTool(providers::Context& context);

}  // namespace quenmark::feeder
