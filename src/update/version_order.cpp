#include "update/version_order.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "core/text.h"

namespace nvo {
namespace {

struct Version {
  std::vector<std::uint64_t> core;
  std::vector<std::string_view> pre_release;  ///< views of the parsed text
};

std::string folded(std::string_view text) {
  return ascii_lower(trim(text));
}

std::vector<std::string_view> split_at_dots(std::string_view text) {
  std::vector<std::string_view> parts;
  for (;;) {
    const auto dot = text.find('.');
    parts.push_back(text.substr(0, dot));
    if (dot == std::string_view::npos) return parts;
    text.remove_prefix(dot + 1);
  }
}

std::optional<Version> parse(std::string_view text) {
  text = text.substr(0, text.find('+'));
  const auto minus = text.find('-');
  Version version;
  for (const std::string_view part : split_at_dots(text.substr(0, minus))) {
    std::uint64_t number = 0;
    const char* const end = part.data() + part.size();
    const auto [stop, error] = std::from_chars(part.data(), end, number);
    if (error != std::errc() || stop != end) return std::nullopt;
    version.core.push_back(number);
  }
  if (minus != std::string_view::npos && minus + 1 < text.size())
    version.pre_release = split_at_dots(text.substr(minus + 1));
  return version;
}

int sign_of(std::strong_ordering order) {
  return order < 0 ? -1 : order > 0 ? 1 : 0;
}

bool is_numeric(std::string_view identifier) {
  return !identifier.empty() && identifier.find_first_not_of("0123456789") == std::string_view::npos;
}

std::string_view without_leading_zeros(std::string_view digits) {
  return digits.substr(std::min(digits.find_first_not_of('0'), digits.size()));
}

std::strong_ordering compare_identifiers(std::string_view a, std::string_view b) {
  const bool numeric = is_numeric(a);
  if (numeric != is_numeric(b)) return numeric ? std::strong_ordering::less : std::strong_ordering::greater;
  if (numeric) {
    a = without_leading_zeros(a), b = without_leading_zeros(b);
    if (a.size() != b.size()) return a.size() <=> b.size();
  }
  return a <=> b;
}

std::strong_ordering compare_cores(std::vector<std::uint64_t> a, std::vector<std::uint64_t> b) {
  a.resize(std::max(a.size(), b.size()));
  b.resize(a.size());
  return a <=> b;
}

std::strong_ordering compare_pre_releases(const std::vector<std::string_view>& a,
                                          const std::vector<std::string_view>& b) {
  if (a.empty() || b.empty()) return b.size() <=> a.size();  // the release itself ranks above all of them
  return std::lexicographical_compare_three_way(a.begin(), a.end(), b.begin(), b.end(), compare_identifiers);
}

}  // namespace

int compare_versions(std::string_view a, std::string_view b) {
  const std::string text_a = folded(a), text_b = folded(b);
  const auto version_a = parse(text_a), version_b = parse(text_b);
  if (version_a.has_value() != version_b.has_value()) return version_a ? 1 : -1;
  if (!version_a) return sign_of(text_a <=> text_b);
  const auto order = compare_cores(version_a->core, version_b->core);
  return sign_of(order != 0 ? order : compare_pre_releases(version_a->pre_release, version_b->pre_release));
}

bool is_other_build_of_same_version(std::string_view version_a, std::string_view build_a,
                                    std::string_view version_b, std::string_view build_b) {
  return parse(folded(version_a)) && parse(folded(version_b)) &&
         compare_versions(version_a, version_b) == 0 && folded(build_a) != folded(build_b);
}

}  // namespace nvo
