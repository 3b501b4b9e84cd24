// Whether a text is a settings text, for the places that take one from the
// host: the store itself reads any text, skipping what it cannot place.
#pragma once

#include <string>

namespace qel {

// Why text is not a settings text, or empty when it is one: it does not load
// ("it does not load (Error 4: ...)"), or it holds text outside every entry (a file in another
// format, a wrong file), which the store would skip without a word. Blank
// text is a settings text with nothing in it.
std::string WhyNotSettingsText(std::string text);

}  // namespace qel
