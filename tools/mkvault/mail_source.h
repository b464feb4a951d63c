// Mail that lies in files, as a tree of folders: a maildir (with its subfolders, of either layout), a mailbox in mbox
// format, a folder of such things and of message files (.eml, or numbered as MH does), or one message file.
#pragma once

#include <cstdint>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

namespace mkvault {

// Why a source cannot be taken, as a sentence.
class SourceError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// What the name of a maildir's file says of its message.
struct MailFlags {
  bool unread = false, replied = false, forwarded = false, flagged = false, draft = false;
};

struct MailFile {
  std::filesystem::path path;
  bool mailbox = false;  // any number of messages, in mbox format
  MailFlags flags;
  std::int64_t modified = 0;  // file time
  std::uint64_t size = 0;     // bytes
};

struct MailFolder {
  std::string name;  // UTF-8; empty for the source itself
  std::vector<MailFile> files;
  std::vector<MailFolder> folders;

  // Files here and below.
  std::size_t FileCount() const;
};

// Looks through the source; in a fixed order, and without following links to folders. Throws SourceError when it is not
// there, cannot be read, or holds no mail.
MailFolder FindMail(const std::filesystem::path& source);

// 32 hexadecimal digits that change when a file of the source is added, removed or changed.
std::string StampOf(const MailFolder& mail);

}  // namespace mkvault
