#include "tools/mkvault/mail_import.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

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
  Importer(vault::StoreStream& store, MailImport& result) : store_(store), result_(result) {}

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
    GError* error = nullptr;
    const Owned<GMimeStream> stream(g_mime_stream_file_open(file.path.c_str(), "r", &error));
    if (!stream) {
      Lose(file, std::string("It cannot be read: ") + (error ? error->message : "unknown error") + ".");
      g_clear_error(&error);
      return;
    }
    const Owned<GMimeParser> parser(g_mime_parser_new_with_stream(stream.get()));
    g_mime_parser_set_format(parser.get(), file.mailbox ? GMIME_FORMAT_MBOX : GMIME_FORMAT_MESSAGE);
    std::uint64_t number = 0;
    do {
      ++number;
      const Owned<GMimeMessage> message(g_mime_parser_construct_message(parser.get(), ParserOptions()));
      if (!message || g_mime_header_list_get_count(g_mime_object_get_header_list(GMIME_OBJECT(message.get()))) == 0) {
        // The parser sees the end of a mailbox only when it reads on.
        if (number > 1 && g_mime_parser_eos(parser.get())) return;
        Lose(file,
             file.mailbox ? "Its message " + std::to_string(number) + " has no headers." : "It is no mail message.");
        if (!message) return;
        continue;
      }
      MailFlags flags = file.flags;
      if (file.mailbox && ReadStatus(message.get(), flags)) continue;
      try {
        folder.AddMessage(FromMime(message.get(), flags, file.modified));
        ++result_.messages;
      } catch (const vault::Error& failure) {
        if (failure.code() != vault::ErrorCode::kUnwritable) throw;
        Lose(file, failure.what());
      }
    } while (file.mailbox && !g_mime_parser_eos(parser.get()));
  }

  void Lose(const MailFile& file, std::string reason) { result_.losses.push_back({file.path, std::move(reason)}); }

  vault::StoreStream& store_;
  MailImport& result_;
};

}  // namespace

MailImport ImportMail(const MailFolder& mail, const std::filesystem::path& path, const StoreIdentity& identity) {
  MailImport result;
  vault::StoreStream store(path, identity.name, identity.encoding, identity.uid);
  Importer(store, result).AddTop(mail);
  store.Finish();
  return result;
}

}  // namespace mkvault
