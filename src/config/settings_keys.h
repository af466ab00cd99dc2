#pragma once

#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

namespace nvo {

enum class SettingsFile { rip, job, icc };

/// Every key that the readers of a file take, as dotted paths ("channels.C.limit") in the order in which they
/// take them.
const std::vector<std::string>& settings_keys(SettingsFile file);

// Where `settings_keys` has them from: the readers themselves.
std::vector<std::string> rip_settings_keys();
std::vector<std::string> job_settings_keys();
std::vector<std::string> icc_settings_keys();

/// One WARN for each key of `document` that the readers of `file` don't take, with the known key that comes
/// nearest or the file that it belongs to. Objects are looked into where the readers look into them; of a
/// great many unknown keys only the first ones are named.
void warn_of_unknown_keys(SettingsFile file, const nlohmann::json& document, const std::string& path);

/// To be asked about a settings file that could not be found: WARNs where that is not because nothing is
/// there but because the system refuses to look, once for a folder. Throws where the machine has failed.
void warn_if_out_of_sight(const std::string& path);

}  // namespace nvo
