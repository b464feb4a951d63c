#include "index/export_folder.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <ctime>
#include <system_error>

#include "index/file_names.h"
#include "index/text.h"

namespace hoardex {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kPartBegin = ".hoardex-", kPartEnd = ".part", kLinkBegin = "export-";
constexpr int kMostOfOneName = 1'000'000;
constexpr const char* kItem = "item";

[[noreturn]] void Throw(int error, const fs::path& file) {
  throw std::system_error(error, std::generic_category(), OneLine(file.filename().string()));
}

// Removes what processes that are no more have left: "BEGINpidEND", a link or a folder with one item in it.
void Sweep(const fs::path& folder, std::string_view begin, std::string_view end) {
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(folder, error)) {
    const std::string name = entry.path().filename().string();
    if (!name.starts_with(begin) || !name.ends_with(end) || name.size() <= begin.size() + end.size()) continue;
    const char *first = name.data() + begin.size(), *last = name.data() + name.size() - end.size();
    pid_t process = 0;
    if (std::from_chars(first, last, process).ptr != last || process <= 0) continue;
    if (process != getpid() && (kill(process, 0) == 0 || errno != ESRCH)) continue;
    if (entry.symlink_status(error).type() == fs::file_type::directory) fs::remove(entry.path() / kItem, error);
    fs::remove(entry.path(), error);
  }
}

// Renames without replacing. False when the new name is taken.
bool Rename(const fs::path& from, const fs::path& to) {
  if (renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return true;
  if (errno == EEXIST) return false;
  if (errno != EINVAL && errno != ENOSYS) Throw(errno, to);
  // A file system that cannot: the name is claimed first.
  const FileDescriptor claim(open(to.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0666));
  if (!claim && errno == EEXIST) return false;
  if (!claim) Throw(errno, to);
  if (rename(from.c_str(), to.c_str()) == 0) return true;
  const int error = errno;
  unlink(to.c_str());
  Throw(error, to);
}

}  // namespace

std::optional<int64_t> SecondsOf(const std::string& iso) {
  std::tm parts{};
  const int count = std::sscanf(iso.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d", &parts.tm_year, &parts.tm_mon, &parts.tm_mday,
                                &parts.tm_hour, &parts.tm_min, &parts.tm_sec);
  if (count != 3 && count != 6) return std::nullopt;
  if (parts.tm_mon < 1 || parts.tm_mon > 12 || parts.tm_mday < 1 || parts.tm_mday > 31) return std::nullopt;
  parts.tm_year -= 1900;
  parts.tm_mon -= 1;
  return timegm(&parts);
}

ExportFolder::ExportFolder(const Environment& environment, const fs::path& folder) {
  std::error_code error;
  fs::create_directories(folder, error);
  if (!fs::is_directory(folder)) {
    const std::string why = fs::exists(folder) ? "it is a file" : error.message();
    throw CommandError(kExitFailed, folder.string() + " is no folder that can be made: " + why + ".");
  }
  folder_ = fs::canonical(folder);
  Sweep(folder_, kPartBegin, kPartEnd);
  Sweep(environment.home, kLinkBegin, "");
  const std::string process = std::to_string(getpid()),
                    part = std::string(kPartBegin) + process + std::string(kPartEnd);
  // A folder of our own: in one that others may write, they could put a link in the part's place.
  if (mkdir((folder_ / part).c_str(), 0700) != 0)
    throw CommandError(kExitFailed, "The folder " + folder.string() +
                                        " cannot be written: " + std::generic_category().message(errno) + ".");
  part_ = folder_ / part / kItem;
  link_ = environment.home / (std::string(kLinkBegin) + process);
  fs::create_directory_symlink(folder_, link_);
  windows_part_ = "Z:" + (link_ / part / kItem).string();
  for (char& c : windows_part_)
    if (c == '/') c = '\\';
}

ExportFolder::~ExportFolder() {
  DropPart();
  std::error_code error;
  fs::remove(part_.parent_path(), error);
  fs::remove(link_, error);
}

void ExportFolder::DropPart() {
  unlink(part_.c_str());
}

std::string ExportFolder::Keep(std::string_view stem, std::string_view extension, const std::string& time) {
  const std::optional<int64_t> seconds = SecondsOf(time);
  const timespec stamp{seconds ? static_cast<time_t>(*seconds) : 0, seconds ? 0 : UTIME_NOW};
  const timespec times[] = {stamp, stamp};
  // A file system that cannot keep the time keeps the mail all the same.
  utimensat(AT_FDCWD, part_.c_str(), times, 0);
  // Many items have one name: the search goes on where it ended.
  int& number = last_[SafeFileName(stem, extension, 1)];
  while (++number <= kMostOfOneName) {
    std::string name = SafeFileName(stem, extension, number);
    if (Rename(part_, folder_ / name)) return name;
  }
  Throw(EEXIST, part_);
}

}  // namespace hoardex
