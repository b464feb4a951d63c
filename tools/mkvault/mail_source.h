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
  enum class Form {
    kMessage,
    kMailbox,    // any number of messages, in mbox format
    kAppleMail,  // .emlx: a line with the message's length, the message, a property list
  };
  std::filesystem::path path;
  Form form = Form::kMessage;
  MailFlags flags;
  std::int64_t modified = 0;  // file time; 0 when it is none that can be told
  std::uint64_t size = 0;     // bytes
};

struct MailFolder {
  std::string name;  // UTF-8; empty for the source itself
  std::vector<MailFile> files;
  std::vector<MailFolder> folders;

  // Files here and below.
  std::size_t FileCount() const;
};

struct MailLoss {
  std::filesystem::path file;
  std::string reason;  // a sentence
};

struct MailSource {
  MailFolder top;
  std::vector<MailLoss> losses;  // what could not be looked at
  std::uint64_t others = 0;      // files that are no mail
};

// Looks through the source, in a fixed order; links to folders are followed, once to each. What cannot be read is
// named. Throws SourceError when the source itself is not there or cannot be read, or holds no mail.
MailSource FindMail(const std::filesystem::path& source);

// 32 hexadecimal digits that change when a file of the source is added, removed or changed.
std::string StampOf(const MailSource& source);

// Whether a file is one of the source's, or the source itself.
bool IsPartOf(const MailSource& source, const std::filesystem::path& file);

}  // namespace mkvault
