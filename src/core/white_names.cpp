#include "core/white_names.h"

#include <algorithm>
#include <string>

#include "core/text.h"

namespace nvo {

bool names_white_ink(std::string_view name) {
  static constexpr std::string_view kWords[] = {"white", "wht",    "underbase", "weiss", "weiß",
                                                "blanc", "bianco", "branco",    "бел",   "Бел"};
  const std::string folded = ascii_lower(name);
  return folded == "w" || std::ranges::any_of(kWords, [&](std::string_view word) {
           return folded.find(word) != std::string::npos;
         });
}

}  // namespace nvo
