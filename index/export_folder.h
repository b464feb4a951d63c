// A folder that files are exported to: whole files only, and none in the place of another.
#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "index/environment.h"

namespace hoardex {

class ExportFolder {
 public:
  // Makes the folder if it is not there, and takes away what a killed export has left in it. Throws CommandError.
  ExportFolder(const Environment& environment, const std::filesystem::path& folder);
  ~ExportFolder();
  ExportFolder(const ExportFolder&) = delete;
  ExportFolder& operator=(const ExportFolder&) = delete;

  // The file that the protocol host is to write now, as Windows sees it. It is reached through a link, because not
  // every name of a Linux folder is one that Windows can say.
  const std::string& windows_part() const { return windows_part_; }
  // The same file.
  const std::filesystem::path& part() const { return part_; }

  // Gives the part a name that no other file has, made of these two, and the time (ISO 8601, empty for the present
  // one). Returns the name. Throws std::system_error.
  std::string Keep(std::string_view stem, std::string_view extension, const std::string& time);
  void DropPart();

  const std::filesystem::path& folder() const { return folder_; }

 private:
  std::filesystem::path folder_, part_, link_;
  std::string windows_part_;
  std::map<std::string, int> last_;  // of the numbers of each name
};

// Seconds since 1970 of "2019-03-02T09:26:53…" or "2019-03-02", UTC.
std::optional<int64_t> SecondsOf(const std::string& iso);

}  // namespace hoardex
