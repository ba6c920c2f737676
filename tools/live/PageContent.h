// The page, built into the program from page/index.html.
#pragma once

namespace live {

extern const char pageHtml[];

}  // namespace live
