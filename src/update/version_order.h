#pragma once

#include <string_view>

namespace nvo {

/// Orders two version texts like "1.2.0-rc.1+build" (semantic versioning, with cores of any length):
/// negative, 0 or positive. White space around and letter case play no part; a text that is no version is the
/// lower.
int compare_versions(std::string_view a, std::string_view b);

/// True when both versions are versions, equal, and of different builds.
bool is_other_build_of_same_version(std::string_view version_a, std::string_view build_a,
                                    std::string_view version_b, std::string_view build_b);

}  // namespace nvo
