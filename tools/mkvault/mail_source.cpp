#include "tools/mkvault/mail_source.h"

#include <glib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <memory>
#include <set>
#include <system_error>

#include "tools/mkvault/mailbox.h"

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

std::string_view FirstLine(std::string_view head) {
  while (!head.empty() && (head.front() == '\r' || head.front() == '\n')) head.remove_prefix(1);
  return head.substr(0, head.find_first_of("\r\n"));
}

bool IsMailbox(std::string_view head) {
  return IsEnvelope(FirstLine(head));
}

// Whether the text begins with a header field ("Name: value", a blank line not before it).
bool IsMessage(std::string_view head) {
  constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
  if (head.starts_with(kByteOrderMark)) head.remove_prefix(kByteOrderMark.size());
  const auto end = std::find_if(head.begin(), head.end(), [](char c) {
    return c == ':' || std::isspace(static_cast<unsigned char>(c)) || !std::isprint(static_cast<unsigned char>(c));
  });
  return end != head.begin() && end != head.end() && *end == ':';
}

// Whether it begins with a line that is a number, and goes on as a message.
bool IsAppleMail(std::string_view head) {
  const std::string_view line = FirstLine(head);
  const std::string_view digits = line.substr(0, line.find_last_not_of(' ') + 1);
  if (digits.empty() || digits.find_first_not_of("0123456789") != digits.npos) return false;
  const std::size_t rest = head.find('\n');
  return rest != head.npos && IsMessage(head.substr(rest + 1));
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

MailFile Describe(const fs::path& path, MailFile::Form form) {
  MailFile file;
  file.path = path;
  file.form = form;
  struct stat status = {};
  if (stat(path.c_str(), &status) == 0) {
    file.size = static_cast<std::uint64_t>(status.st_size);
    constexpr std::int64_t kLastSecond = 253'402'300'799;  // of the year 9999
    const std::int64_t seconds = status.st_mtim.tv_sec;
    if (seconds > -kUnixEpoch && seconds <= kLastSecond)
      file.modified = (seconds + kUnixEpoch) * 10'000'000 + status.st_mtim.tv_nsec / 100;
  }
  return file;
}

// "…:2,FLAGS", or ";2,FLAGS" where ":" cannot stand in a name.
MailFlags FlagsOf(const fs::path& path) {
  const std::string name = path.filename().string();
  std::size_t at = name.rfind(":2,");
  if (at == std::string::npos) at = name.rfind(";2,");
  const std::string letters = at == std::string::npos ? std::string() : name.substr(at + 3);
  const auto has = [&](char letter) { return letters.find(letter) != std::string::npos; };
  return {!has('S'), has('R'), has('P'), has('F'), has('D')};
}

MailFolder& Subfolder(MailFolder& parent, const std::string& name) {
  for (MailFolder& folder : parent.folders)
    if (folder.name == name) return folder;
  parent.folders.emplace_back().name = name;
  return parent.folders.back();
}

class SourceReader {
 public:
  explicit SourceReader(MailSource& source) : source_(source) {}

  void ReadFolder(const fs::path& folder, MailFolder& out, int depth) {
    if (depth > kDeepest) return Lose(folder, "It lies too deep.");
    if (!IsNew(folder)) return;
    const bool maildir = IsMaildir(folder);
    if (maildir) ReadMaildir(folder, out);
    for (const auto& entry : Entries(folder)) {
      const fs::path& path = entry.path();
      const std::string name = path.filename().string();
      std::error_code error;
      if (entry.is_directory(error)) {
        if (maildir && (name == "cur" || name == "new" || name == "tmp")) continue;
        if (maildir && name.starts_with(".") && IsMaildir(path)) {
          ReadSubMaildir(path, name, out);
        } else if (!name.starts_with(".")) {
          // "Inbox.sbd" holds the subfolders of the mailbox "Inbox".
          ReadFolder(path, Subfolder(out, Utf8(path.extension() == ".sbd" ? path.stem().string() : name)), depth + 1);
        }
        continue;
      }
      if (maildir || name.starts_with(".")) continue;
      if (!entry.is_regular_file(error)) {
        ++source_.others;
        continue;
      }
      ReadFile(path, out);
    }
  }

 private:
  void ReadFile(const fs::path& path, MailFolder& out) {
    if (access(path.c_str(), R_OK) != 0) {
      Lose(path, std::string("It cannot be read: ") + std::strerror(errno) + ".");
      return;
    }
    const std::string head = Head(path), name = path.filename().string();
    if (IsMailbox(head)) {
      const bool suffixed = path.extension() == ".mbox" || path.extension() == ".mbx";
      Subfolder(out, Utf8(suffixed ? path.stem().string() : name))
          .files.push_back(Describe(path, MailFile::Form::kMailbox));
    } else if (HasMailName(path)) {
      out.files.push_back(Describe(path, IsAppleMail(head) ? MailFile::Form::kAppleMail : MailFile::Form::kMessage));
    } else {
      ++source_.others;
    }
  }

  void ReadMaildir(const fs::path& folder, MailFolder& out) {
    for (const char* part : {"cur", "new"}) {
      for (const auto& entry : Entries(folder / part)) {
        std::error_code error;
        if (entry.path().filename().string().starts_with(".") || !entry.is_regular_file(error)) continue;
        MailFile file = Describe(entry.path(), MailFile::Form::kMessage);
        file.flags = FlagsOf(entry.path());
        out.files.push_back(std::move(file));
      }
    }
  }

  // ".Projects.2024": a subfolder of a subfolder, all in one directory.
  void ReadSubMaildir(const fs::path& path, const std::string& name, MailFolder& out) {
    if (!IsNew(path)) return;
    MailFolder* target = &out;
    for (std::size_t begin = 1; begin <= name.size();) {
      const std::size_t dot = std::min(name.find('.', begin), name.size());
      if (dot > begin) target = &Subfolder(*target, DecodeImapName(name.substr(begin, dot - begin)));
      begin = dot + 1;
    }
    ReadMaildir(path, *target);
  }

  // Entries of a folder by name.
  std::vector<fs::directory_entry> Entries(const fs::path& folder) {
    std::error_code error;
    std::vector<fs::directory_entry> entries;
    fs::directory_iterator it(folder, error);
    for (; !error && it != fs::directory_iterator(); it.increment(error)) entries.push_back(*it);
    if (error) Lose(folder, "It cannot be read: " + error.message() + ".");
    std::sort(entries.begin(), entries.end(), [](const auto& a, const auto& b) { return a.path() < b.path(); });
    return entries;
  }

  // Links may lead to a folder twice, or round in a circle.
  bool IsNew(const fs::path& folder) {
    struct stat status = {};
    return stat(folder.c_str(), &status) != 0 || seen_.insert({status.st_dev, status.st_ino}).second;
  }

  void Lose(const fs::path& path, std::string reason) { source_.losses.push_back({path, std::move(reason)}); }

  MailSource& source_;
  std::set<std::pair<dev_t, ino_t>> seen_;
};

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

MailSource FindMail(const fs::path& source) {
  MailSource mail;
  std::error_code error;
  const fs::file_status status = fs::status(source, error);
  if (status.type() == fs::file_type::not_found) throw SourceError("There is no such file or folder.");
  if (error) throw SourceError("It cannot be reached: " + error.message() + ".");
  if (access(source.c_str(), R_OK) != 0)
    throw SourceError(std::string("It cannot be read: ") + std::strerror(errno) + ".");
  if (fs::is_directory(status)) {
    SourceReader(mail).ReadFolder(source, mail.top, 0);
    Prune(mail.top);
    if (mail.top.FileCount() == 0)
      throw SourceError(mail.losses.empty()
                            ? "There is no mail in it: neither a maildir nor mailboxes (mbox) nor messages (.eml)."
                            : mail.losses[0].file.string() + ": " + mail.losses[0].reason);
    return mail;
  }
  if (!fs::is_regular_file(status)) throw SourceError("It is not a file.");
  const std::string head = Head(source);
  const bool mailbox = IsMailbox(head), apple = IsAppleMail(head);
  if (!mailbox && !apple && !IsMessage(head)) throw SourceError("It is neither a mailbox (mbox) nor a mail message.");
  mail.top.files.push_back(Describe(source, mailbox ? MailFile::Form::kMailbox
                                            : apple ? MailFile::Form::kAppleMail
                                                    : MailFile::Form::kMessage));
  return mail;
}

std::string StampOf(const MailSource& source) {
  Stamp stamp;
  AddTo(stamp, source.top);
  for (const MailLoss& loss : source.losses) stamp.Add(loss.file.string());
  return stamp.Text();
}

bool IsPartOf(const MailSource& source, const fs::path& file) {
  const auto within = [&](const auto& self, const MailFolder& folder) -> bool {
    std::error_code error;
    for (const MailFile& mail : folder.files)
      if (fs::equivalent(mail.path, file, error)) return true;
    return std::any_of(folder.folders.begin(), folder.folders.end(),
                       [&](const MailFolder& inner) { return self(self, inner); });
  };
  return within(within, source.top);
}

}  // namespace mkvault
