#include "app/app_version.h"

#include <string_view>

#include "core/text.h"

namespace nvo {
namespace {

std::string or_default(std::string_view built_in, const char* fallback) {
  const std::string_view text = trim(built_in);
  return std::string(text.empty() ? fallback : text);
}

std::string escape(std::string_view text) {
  return escape_json(text, "tnr");
}

}  // namespace

AppVersion app_version() {
  return {or_default(NVO_APP_VERSION, "0.1.0"), or_default(NVO_APP_BUILD_ID, "dev"),
          ascii_lower(or_default(NVO_APP_CHANNEL, "stable")), "windows", "x64"};
}

std::string version_json(const AppVersion& version) {
  return "{\"version\":\"" + escape(version.version) + "\",\"build_id\":\"" + escape(version.build_id) +
         "\",\"channel\":\"" + escape(version.channel) + "\",\"platform\":\"" + escape(version.platform) +
         "\",\"arch\":\"" + escape(version.arch) + "\"}";
}

}  // namespace nvo
