#include "tools/mkvault/mail_import.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "tools/mkvault/mailbox.h"
#include "tools/mkvault/mime_message.h"
#include "vault/error.h"
#include "vault/store_stream.h"

namespace mkvault {
namespace {

// X-Mozilla-Status of a mailbox of Thunderbird.
constexpr unsigned kMozillaRead = 1, kMozillaReplied = 2, kMozillaMarked = 4, kMozillaExpunged = 8,
                   kMozillaForwarded = 0x1000;

const char* Header(GMimeMessage* message, const char* name) {
  const char* value = g_mime_object_get_header(GMIME_OBJECT(message), name);
  return value ? value : "";
}

// What a mailbox notes in the message itself. True where the message is deleted and only the room not yet reclaimed.
bool ReadStatus(GMimeMessage* message, MailFlags& flags) {
  const char* mozilla = Header(message, "X-Mozilla-Status");
  if (*mozilla) {
    const unsigned long bits = std::strtoul(mozilla, nullptr, 16);
    flags.unread = !(bits & kMozillaRead);
    flags.replied = bits & kMozillaReplied;
    flags.flagged = bits & kMozillaMarked;
    flags.forwarded = bits & kMozillaForwarded;
    return bits & kMozillaExpunged;
  }
  const std::string status = std::string(Header(message, "Status")) + Header(message, "X-Status");
  const auto has = [&](char letter) { return status.find(letter) != std::string::npos; };
  if (!status.empty()) flags.unread = !has('R');
  flags.replied = has('A');
  flags.flagged = has('F');
  flags.draft = has('T');
  return has('D');
}

class Importer {
 public:
  Importer(vault::StoreStream& store, MailImport& result, const ImportOptions& options)
      : store_(store), result_(result), options_(options) {}

  void AddFolder(const MailFolder& mail, vault::FolderStream& folder) {
    for (const MailFile& file : mail.files) AddFile(file, folder);
    for (const MailFolder& inner : mail.folders) {
      vault::FolderStream& made = folder.OpenFolder(inner.name);
      ++result_.folders;
      AddFolder(inner, made);
      made.Close();
    }
  }

  void AddTop(const MailFolder& mail) {
    if (!mail.files.empty()) {
      MailFolder direct;
      direct.name = "Mail";
      direct.files = mail.files;
      MailFolder top;
      top.folders.push_back(std::move(direct));
      AddFolder(top, store_.top());
    }
    MailFolder rest;
    rest.folders = mail.folders;
    AddFolder(rest, store_.top());
  }

 private:
  void AddFile(const MailFile& file, vault::FolderStream& folder) {
    place_.message = 0;
    AddMessages(file, folder);
    ++place_.file;
  }

  void AddMessages(const MailFile& file, vault::FolderStream& folder) {
    GError* error = nullptr;
    const Owned<GMimeStream> stream(g_mime_stream_file_open(file.path.c_str(), "r", &error));
    if (!stream) {
      Lose(file, std::string("It cannot be read: ") + (error ? error->message : "unknown error") + ".");
      g_clear_error(&error);
      return;
    }
    std::vector<MessageSpan> spans = {{0, -1}};
    if (file.form == MailFile::Form::kMailbox) spans = SplitMailbox(file.path);
    if (file.form == MailFile::Form::kAppleMail) spans = {AppleMessage(file.path)};
    for (const MessageSpan& span : spans) {
      AddMessage(file, Owned<GMimeStream>(g_mime_stream_substream(stream.get(), span.begin, span.end)), folder);
      ++place_.message;
    }
  }

  // The length stands in the first line.
  static MessageSpan AppleMessage(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::int64_t length = 0;
    in >> length;
    in.ignore(256, '\n');
    const std::int64_t begin = in ? static_cast<std::int64_t>(in.tellg()) : 0;
    return {begin, length > 0 ? begin + length : -1};
  }

  void AddMessage(const MailFile& file, Owned<GMimeStream> stream, vault::FolderStream& folder) {
    const std::string which =
        file.form == MailFile::Form::kMailbox ? "Its message " + std::to_string(place_.message + 1) : "It";
    if (options_.skipped.contains(place_)) return Lose(file, which + " ended the program that reads it.");
    options_.at(place_);
    const Owned<GMimeParser> parser(g_mime_parser_new_with_stream(stream.get()));
    const Owned<GMimeMessage> message(g_mime_parser_construct_message(parser.get(), ParserOptions()));
    if (!message || g_mime_header_list_get_count(g_mime_object_get_header_list(GMIME_OBJECT(message.get()))) == 0)
      return Lose(file, which + (file.form == MailFile::Form::kMailbox ? " has no headers." : " is no mail message."));
    MailFlags flags = file.flags;
    if (file.form == MailFile::Form::kMailbox && ReadStatus(message.get(), flags)) return;
    try {
      folder.AddMessage(FromMime(message.get(), flags, file.modified));
      ++result_.messages;
    } catch (const vault::Error& failure) {
      if (failure.code() != vault::ErrorCode::kUnwritable) throw;
      Lose(file, failure.what());
    }
  }

  void Lose(const MailFile& file, std::string reason) { result_.losses.push_back({file.path, std::move(reason)}); }

  vault::StoreStream& store_;
  MailImport& result_;
  const ImportOptions& options_;
  MailPlace place_;
};

}  // namespace

MailImport ImportMail(const MailSource& mail, const std::filesystem::path& path, const StoreIdentity& identity,
                      const ImportOptions& options) {
  MailImport result;
  result.losses = mail.losses;
  vault::StoreStream store(path, identity.name, identity.encoding, identity.uid);
  Importer(store, result, options).AddTop(mail.top);
  store.Finish();
  return result;
}

}  // namespace mkvault
