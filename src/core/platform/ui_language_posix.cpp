#include "core/platform/environment.h"
#include "core/platform/ui_language.h"
#include "core/text.h"

namespace nvo::platform {

std::string ui_language() {
  for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
    const auto locale = environment(name);
    if (locale && !locale->empty()) return ascii_lower(locale->substr(0, locale->find_first_of("_-.@")));
  }
  return {};
}

}  // namespace nvo::platform
