#include "tools/mkvault/mail_source.h"

#include <glib.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <memory>
#include <system_error>

namespace mkvault {
namespace {

namespace fs = std::filesystem;

constexpr int kDeepest = 64;
constexpr std::int64_t kUnixEpoch = 11'644'473'600;  // seconds from 1601

std::string Utf8(const std::string& text) {
  const std::unique_ptr<char, decltype(&g_free)> valid(g_utf8_make_valid(text.c_str(), -1), g_free);
  return valid.get();
}

// Names of maildir subfolders are in the modified UTF-7 of IMAP.
std::string DecodeImapName(const std::string& name) {
  const std::unique_ptr<char, decltype(&g_free)> decoded(
      g_convert(name.c_str(), -1, "UTF-8", "UTF-7-IMAP", nullptr, nullptr, nullptr), g_free);
  return decoded ? decoded.get() : Utf8(name);
}

std::string Head(const fs::path& file) {
  char head[256] = {};
  std::ifstream in(file, std::ios::binary);
  in.read(head, sizeof(head));
  return std::string(head, static_cast<std::size_t>(in.gcount()));
}

bool IsMailbox(const fs::path& file) {
  return Head(file).starts_with("From ");
}

// Whether the text begins with a header field ("Name: value", a blank line not before it).
bool IsMessage(const fs::path& file) {
  const std::string head = Head(file);
  const auto end = std::find_if(head.begin(), head.end(), [](char c) {
    return c == ':' || std::isspace(static_cast<unsigned char>(c)) || !std::isprint(static_cast<unsigned char>(c));
  });
  return end != head.begin() && end != head.end() && *end == ':';
}

bool HasMailName(const fs::path& file) {
  std::string extension = file.extension().string();
  std::transform(extension.begin(), extension.end(), extension.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  if (extension == ".eml" || extension == ".emlx") return true;
  const std::string name = file.filename().string();
  return std::all_of(name.begin(), name.end(), [](unsigned char c) { return std::isdigit(c); });
}

bool IsMaildir(const fs::path& folder) {
  std::error_code error;
  return fs::is_directory(folder / "cur", error) && fs::is_directory(folder / "new", error);
}

MailFile Describe(const fs::path& path, bool mailbox) {
  MailFile file;
  file.path = path;
  file.mailbox = mailbox;
  struct stat status = {};
  if (stat(path.c_str(), &status) == 0) {
    file.size = static_cast<std::uint64_t>(status.st_size);
    file.modified = (status.st_mtim.tv_sec + kUnixEpoch) * 10'000'000 + status.st_mtim.tv_nsec / 100;
  }
  return file;
}

// "…:2,FLAGS", or ";2,FLAGS" where ":" cannot stand in a name.
MailFlags FlagsOf(const fs::path& path, bool seen_before) {
  const std::string name = path.filename().string();
  std::size_t at = name.rfind(":2,");
  if (at == std::string::npos) at = name.rfind(";2,");
  const std::string letters = at == std::string::npos ? std::string() : name.substr(at + 3);
  const auto has = [&](char letter) { return letters.find(letter) != std::string::npos; };
  return {!has('S') && !(at == std::string::npos && seen_before), has('R'), has('P'), has('F'), has('D')};
}

// Entries of a folder by name. Throws SourceError.
std::vector<fs::directory_entry> Entries(const fs::path& folder) {
  std::error_code error;
  std::vector<fs::directory_entry> entries;
  fs::directory_iterator it(folder, error);
  for (; !error && it != fs::directory_iterator(); it.increment(error)) entries.push_back(*it);
  if (error) throw SourceError("The folder " + folder.string() + " cannot be read: " + error.message() + ".");
  std::sort(entries.begin(), entries.end(), [](const auto& a, const auto& b) { return a.path() < b.path(); });
  return entries;
}

bool IsPlainFolder(const fs::directory_entry& entry) {
  std::error_code error;
  return !entry.is_symlink(error) && entry.is_directory(error);
}

MailFolder& Subfolder(MailFolder& parent, const std::string& name) {
  for (MailFolder& folder : parent.folders)
    if (folder.name == name) return folder;
  parent.folders.emplace_back().name = name;
  return parent.folders.back();
}

void ReadMaildir(const fs::path& folder, MailFolder& out) {
  for (const char* part : {"cur", "new"}) {
    for (const auto& entry : Entries(folder / part)) {
      std::error_code error;
      if (entry.path().filename().string().starts_with(".") || !entry.is_regular_file(error)) continue;
      MailFile file = Describe(entry.path(), false);
      file.flags = FlagsOf(entry.path(), false);
      out.files.push_back(std::move(file));
    }
  }
}

void ReadFolder(const fs::path& folder, MailFolder& out, int depth) {
  if (depth > kDeepest) throw SourceError("The folder " + folder.string() + " lies too deep.");
  const bool maildir = IsMaildir(folder);
  if (maildir) ReadMaildir(folder, out);
  for (const auto& entry : Entries(folder)) {
    const fs::path& path = entry.path();
    const std::string name = path.filename().string();
    if (IsPlainFolder(entry)) {
      if (maildir && (name == "cur" || name == "new" || name == "tmp")) continue;
      if (maildir && name.starts_with(".") && IsMaildir(path)) {
        // ".Projects.2024": a subfolder of a subfolder, all in one directory.
        MailFolder* target = &out;
        std::size_t begin = 1;
        while (begin <= name.size()) {
          const std::size_t dot = std::min(name.find('.', begin), name.size());
          if (dot > begin) target = &Subfolder(*target, DecodeImapName(name.substr(begin, dot - begin)));
          begin = dot + 1;
        }
        ReadMaildir(path, *target);
        continue;
      }
      if (name.starts_with(".")) continue;
      // "Inbox.sbd" holds the subfolders of the mailbox "Inbox".
      ReadFolder(path, Subfolder(out, Utf8(path.extension() == ".sbd" ? path.stem().string() : name)), depth + 1);
      continue;
    }
    std::error_code error;
    if (maildir || name.starts_with(".") || !entry.is_regular_file(error)) continue;
    if (IsMailbox(path)) {
      const bool suffixed = path.extension() == ".mbox" || path.extension() == ".mbx";
      Subfolder(out, Utf8(suffixed ? path.stem().string() : name)).files.push_back(Describe(path, true));
    } else if (HasMailName(path)) {
      out.files.push_back(Describe(path, false));
    }
  }
}

// Takes out folders without any mail.
void Prune(MailFolder& folder) {
  for (MailFolder& inner : folder.folders) Prune(inner);
  std::erase_if(folder.folders, [](const MailFolder& inner) { return inner.files.empty() && inner.folders.empty(); });
}

// Two independent FNV-1a sums.
class Stamp {
 public:
  void Add(const void* data, std::size_t size) {
    for (std::size_t i = 0; i < size; ++i) {
      const std::uint64_t byte = static_cast<const unsigned char*>(data)[i];
      a_ = (a_ ^ byte) * 0x100000001B3;
      b_ = (b_ ^ (byte + 0x5A)) * 0x100000001B3;
    }
  }
  void Add(const std::string& text) { Add(text.c_str(), text.size() + 1); }
  std::string Text() const {
    char text[33];
    std::snprintf(text, sizeof(text), "%016llx%016llx", static_cast<unsigned long long>(a_),
                  static_cast<unsigned long long>(b_));
    return text;
  }

 private:
  std::uint64_t a_ = 0xCBF29CE484222325, b_ = 0x84222325CBF29CE4;
};

void AddTo(Stamp& stamp, const MailFolder& folder) {
  stamp.Add(folder.name);
  for (const MailFile& file : folder.files) {
    stamp.Add(file.path.string());
    stamp.Add(&file.size, sizeof(file.size));
    stamp.Add(&file.modified, sizeof(file.modified));
  }
  for (const MailFolder& inner : folder.folders) AddTo(stamp, inner);
  stamp.Add("/");
}

}  // namespace

std::size_t MailFolder::FileCount() const {
  std::size_t count = files.size();
  for (const MailFolder& folder : folders) count += folder.FileCount();
  return count;
}

MailFolder FindMail(const fs::path& source) {
  MailFolder mail;
  std::error_code error;
  const fs::file_status status = fs::status(source, error);
  if (status.type() == fs::file_type::not_found) throw SourceError("There is no such file or folder.");
  if (error) throw SourceError("It cannot be reached: " + error.message() + ".");
  if (fs::is_directory(status)) {
    ReadFolder(source, mail, 0);
    Prune(mail);
    if (mail.FileCount() == 0)
      throw SourceError("There is no mail in it: neither a maildir nor mailboxes (mbox) nor messages (.eml).");
    return mail;
  }
  if (!fs::is_regular_file(status)) throw SourceError("It is not a file.");
  if (!std::ifstream(source, std::ios::binary))
    throw SourceError(std::string("It cannot be read: ") + std::strerror(errno) + ".");
  const bool mailbox = IsMailbox(source);
  if (!mailbox && !IsMessage(source)) throw SourceError("It is neither a mailbox (mbox) nor a mail message.");
  mail.files.push_back(Describe(source, mailbox));
  return mail;
}

std::string StampOf(const MailFolder& mail) {
  Stamp stamp;
  AddTo(stamp, mail);
  return stamp.Text();
}

}  // namespace mkvault
