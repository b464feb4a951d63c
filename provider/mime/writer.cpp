// The structure of a message in MIME (RFC 2045, 2046): alternatives of the body, what it shows, what is attached.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <set>

#include "provider/mime/converter.h"
#include "provider/mime/encoding.h"
#include "provider/mime/message_reader.h"
#include "provider/strings.h"

namespace provider::mime {
namespace {

constexpr int kDeepest = 32;  // messages within messages
// Attachments may name one message several times, level after level: what is little in a store can be endless written.
constexpr int kMostEmbedded = 10'000;
constexpr std::size_t kLongestType = 127;  // characters of either half (RFC 6838 4.2)
constexpr std::size_t kPiece = 48 * 1024;

#ifndef PR_INTERNET_REFERENCES_W
constexpr ULONG PR_INTERNET_REFERENCES_W = PROP_TAG(PT_UNICODE, 0x1039);
#endif
#ifndef PR_IN_REPLY_TO_ID_W
constexpr ULONG PR_IN_REPLY_TO_ID_W = PROP_TAG(PT_UNICODE, 0x1042);
#endif

// Gathers text and hands it to the stream in large pieces.
class Output {
 public:
  explicit Output(IStream* stream) : stream_(stream) {}
  Output& operator<<(std::string_view text) {
    buffer_ += text;
    if (buffer_.size() >= kPiece) Flush();
    return *this;
  }
  // The whole text is there now.
  void Finish() {
    Flush();
    if (reserved_) Reserve(written_);
  }

 private:
  void Flush() {
    // A stream in memory that grows piece by piece is copied with every piece.
    if (written_ + buffer_.size() > reserved_) Reserve(2 * (written_ + buffer_.size()));
    ULONG written = 0;
    const HRESULT result =
        buffer_.empty() ? S_OK : stream_->Write(buffer_.data(), static_cast<ULONG>(buffer_.size()), &written);
    if (FAILED(result)) Fail(result);
    if (written != buffer_.size()) Fail(STG_E_MEDIUMFULL);
    written_ += written;
    buffer_.clear();
  }
  // Only a hint: a stream that will not have it grows all the same.
  void Reserve(std::uint64_t size) {
    ULARGE_INTEGER whole;
    whole.QuadPart = begin_ + size;
    reserved_ = SUCCEEDED(stream_->SetSize(whole)) ? size : 0;
  }
  static std::uint64_t Position(IStream* stream) {
    ULARGE_INTEGER position = {};
    return SUCCEEDED(stream->Seek({}, STREAM_SEEK_CUR, &position)) ? position.QuadPart : 0;
  }

  IStream* stream_;
  const std::uint64_t begin_ = Position(stream_);
  std::uint64_t written_ = 0, reserved_ = 0;
  std::string buffer_;
};

// Types of files that say none.
constexpr struct {
  const wchar_t* extension;
  const char* type;
} kTypes[] = {{L".txt", "text/plain"},         {L".htm", "text/html"},       {L".html", "text/html"},
              {L".pdf", "application/pdf"},    {L".png", "image/png"},       {L".jpg", "image/jpeg"},
              {L".jpeg", "image/jpeg"},        {L".gif", "image/gif"},       {L".zip", "application/zip"},
              {L".doc", "application/msword"}, {L".rtf", "application/rtf"}, {L".xml", "text/xml"},
              {L".csv", "text/csv"},           {L".ics", "text/calendar"},   {L".vcf", "text/vcard"}};

bool IsToken(std::string_view text) {
  return !text.empty() && text.size() <= kLongestType && std::all_of(text.begin(), text.end(), [](char c) {
    return c > ' ' && c < 0x7F && std::string_view("()<>@,;:\\\"/[]?=").find(c) == std::string_view::npos;
  });
}

// A type that base64 may carry: parts and messages are never encoded.
std::string ContentType(const std::u16string& given, const std::u16string& name) {
  const std::string type = Utf8(given);
  const std::size_t slash = type.find('/');
  if (slash != std::string::npos && IsToken(std::string_view(type).substr(0, slash)) &&
      IsToken(std::string_view(type).substr(slash + 1))) {
    const std::string major = type.substr(0, slash);
    if (_stricmp(major.c_str(), "multipart") && _stricmp(major.c_str(), "message")) return type;
    return "application/octet-stream";
  }
  const std::wstring wide = AsWide(name);
  const std::size_t dot = wide.rfind(L'.');
  for (const auto& known : kTypes)
    if (dot != std::wstring::npos && !_wcsicmp(wide.c_str() + dot, known.extension)) return known.type;
  return "application/octet-stream";
}

// An identifier in angle brackets, of the form left@right; empty for what is none and could be misread.
std::string Identifier(const std::u16string& text) {
  std::string id = Utf8(text);
  std::erase_if(id, [](char c) { return c <= ' ' || c == '<' || c == '>'; });
  const auto allowed = [](char c) {
    return c > ' ' && c < 0x7F && std::string_view("()<>[]:;@\\,\"").find(c) == std::string_view::npos;
  };
  const auto side = [&](std::string_view part) {
    return !part.empty() && part.front() != '.' && part.back() != '.' && part.find("..") == std::string_view::npos &&
           std::all_of(part.begin(), part.end(), allowed);
  };
  const std::size_t at = id.find('@');
  if (at == std::string::npos || id.size() > 900) return {};
  const std::string_view view = id;
  return side(view.substr(0, at)) && side(view.substr(at + 1)) ? "<" + id + ">" : std::string();
}

// What the HTML may call an attachment by, which need not be an identifier of mail.
std::string ContentId(const std::u16string& text) {
  std::string id = Utf8(text);
  std::erase_if(id, [](char c) { return c <= ' ' || c >= 0x7F || c == '<' || c == '>'; });
  return id.size() > 900 ? std::string() : id;
}

// Every identifier of a list.
std::string Identifiers(const std::u16string& text) {
  std::string out;
  for (std::size_t begin = 0; (begin = text.find(u'<', begin)) != std::u16string::npos;) {
    const std::size_t end = text.find(u'>', begin);
    if (end == std::u16string::npos) break;
    const std::string id = Identifier(text.substr(begin, end - begin));
    if (!id.empty()) out += (out.empty() ? "" : "\r\n ") + id;
    begin = end;
  }
  return out;
}

// What a message answers: one identifier, which some programs store without its brackets.
std::string Answered(const std::u16string& text) {
  std::string ids = Identifiers(text);
  const bool one = text.find_first_of(u" \t\r\n<>,;") == std::u16string::npos;
  return ids.empty() && one ? Identifier(text) : ids;
}

// Every content id that the HTML shows something by.
std::set<std::string> ShownIds(std::string_view html) {
  constexpr std::string_view kScheme = "cid:";
  std::set<std::string> ids;
  for (std::size_t at = 0; (at = html.find(kScheme, at)) != std::string_view::npos;) {
    at += kScheme.size();
    const std::size_t end = html.find_first_of("\"'<>() \t\r\n", at);
    ids.emplace(html.substr(at, end == std::string_view::npos ? end : end - at));
  }
  return ids;
}

struct Attached {
  ULONG number = 0;
  std::u16string name, content_id;
  std::string type;
  bool embedded = false;
};

// Of a whole conversion.
struct Counts {
  int boundaries = 0, embedded = 0;
};

class Writer {
 public:
  Writer(IMessage* message, Output& out, const Options& options, int depth, Counts& counts)
      : message_(message), out_(out), options_(options), depth_(depth), counts_(counts) {}

  void Run() {
    Collect();
    Headers();
    out_ << "MIME-Version: 1.0\r\n";
    Mixed();
  }

 private:
  Ref<IAttach> OpenAttachment(ULONG number) {
    Ref<IAttach> object;
    const HRESULT opened = message_->OpenAttach(number, nullptr, MAPI_BEST_ACCESS, object.Receive());
    if (FAILED(opened)) Fail(opened);
    return object;
  }

  void Collect() {
    plain_ = Utf8(PlainBody(message_));
    if (!(options_.flags & CCSF_PLAIN_TEXT_ONLY)) html_ = Utf8(HtmlBody(message_));
    const std::set<std::string> shown_ids = ShownIds(html_);
    for (const ULONG number : Attachments(message_)) {
      Attached attached;
      attached.number = number;
      const Ref<IAttach> object = OpenAttachment(number);
      const Properties properties(object.get(), {PR_ATTACH_LONG_FILENAME_W, PR_ATTACH_FILENAME_W, PR_DISPLAY_NAME_W,
                                                 PR_ATTACH_MIME_TAG_W, PR_ATTACH_CONTENT_ID_W, PR_ATTACH_METHOD});
      for (const ULONG tag : {PR_ATTACH_LONG_FILENAME_W, PR_ATTACH_FILENAME_W, PR_DISPLAY_NAME_W})
        if (attached.name.empty()) attached.name = properties.Text(tag);
      attached.embedded = properties.Long(PR_ATTACH_METHOD, ATTACH_BY_VALUE) == ATTACH_EMBEDDED_MSG;
      attached.content_id = properties.Text(PR_ATTACH_CONTENT_ID_W);
      attached.type = ContentType(properties.Text(PR_ATTACH_MIME_TAG_W), attached.name);
      // What the HTML shows belongs to it.
      const std::string id = ContentId(attached.content_id);
      const bool shown = !attached.embedded && !id.empty() && shown_ids.contains(id);
      (shown ? shown_ : attached_).push_back(std::move(attached));
    }
  }

  void Headers() {
    const Properties properties(
        message_,
        {PR_SENT_REPRESENTING_NAME_W, PR_SENT_REPRESENTING_EMAIL_ADDRESS_W, PR_SENT_REPRESENTING_SMTP_ADDRESS_W,
         PR_SENDER_NAME_W, PR_SENDER_EMAIL_ADDRESS_W, PR_SENDER_SMTP_ADDRESS_W, PR_SUBJECT_W, PR_CLIENT_SUBMIT_TIME,
         PR_MESSAGE_DELIVERY_TIME, PR_CREATION_TIME, PR_INTERNET_MESSAGE_ID_W, PR_SEARCH_KEY, PR_IN_REPLY_TO_ID_W,
         PR_INTERNET_REFERENCES_W, PR_IMPORTANCE});
    const Person author = Author(properties), sender = Sender(properties);
    if (!author.name.empty() || !author.address.empty()) out_ << Header("From", Mailbox(author.name, author.address));
    if ((!sender.name.empty() || !sender.address.empty()) && sender.address != author.address)
      out_ << Header("Sender", Mailbox(sender.name, sender.address));
    const std::vector<Person> people = Recipients(message_);
    People("To", people, MAPI_TO);
    People("Cc", people, MAPI_CC);
    if (options_.flags & CCSF_INCLUDE_BCC) People("Bcc", people, MAPI_BCC);
    out_ << Header("Subject", EncodeText(properties.Text(PR_SUBJECT_W)));
    for (const ULONG tag : {PR_CLIENT_SUBMIT_TIME, PR_MESSAGE_DELIVERY_TIME, PR_CREATION_TIME}) {
      const SPropValue* time = properties.Find(tag);
      if (!time) continue;
      out_ << Header("Date", Date(std::uint64_t{time->Value.ft.dwHighDateTime} << 32 | time->Value.ft.dwLowDateTime));
      break;
    }
    if (!(options_.flags & CCSF_NO_MSGID)) MessageId(properties);
    if (const std::string id = Answered(properties.Text(PR_IN_REPLY_TO_ID_W)); !id.empty())
      out_ << Header("In-Reply-To", id);
    if (const std::string ids = Identifiers(properties.Text(PR_INTERNET_REFERENCES_W)); !ids.empty())
      out_ << Header("References", ids);
    const LONG importance = properties.Long(PR_IMPORTANCE, IMPORTANCE_NORMAL);
    if (importance != IMPORTANCE_NORMAL) out_ << Header("Importance", importance == IMPORTANCE_HIGH ? "high" : "low");
  }

  void People(std::string_view header, const std::vector<Person>& people, LONG type) {
    std::string list;
    for (const Person& person : people)
      if (person.type == type) list += (list.empty() ? "" : ",\r\n ") + Mailbox(person.name, person.address);
    if (!list.empty()) out_ << Header(header, list);
  }

  // The message's own identifier; without one, the same for the same message every time.
  void MessageId(const Properties& properties) {
    const std::u16string own = properties.Text(PR_INTERNET_MESSAGE_ID_W);
    std::string id = Identifier(own);
    if (id.empty() && !own.empty()) out_ << Header("X-Original-Message-ID", EncodeText(own));
    if (const SPropValue* key = id.empty() ? properties.Find(PR_SEARCH_KEY) : nullptr) {
      id = "<";
      for (ULONG i = 0; i < std::min<ULONG>(key->Value.bin.cb, 64); ++i) {
        char digits[3];
        std::snprintf(digits, sizeof(digits), "%02x", key->Value.bin.lpb[i]);
        id += digits;
      }
      id += "@archive.invalid>";
    }
    if (!id.empty()) out_ << Header("Message-ID", id);
  }

  // Cannot occur in base64 or quoted-printable; numbers keep those of nested messages apart.
  std::string Boundary() { return "=_hoardex_" + std::to_string(++counts_.boundaries); }
  void BeginParts(std::string_view kind, const std::string& boundary) {
    out_ << "Content-Type: multipart/" << kind << ";\r\n boundary=\"" << boundary << "\"\r\n\r\n";
  }
  void Part(const std::string& boundary) { out_ << "--" << boundary << "\r\n"; }
  void EndParts(const std::string& boundary) { out_ << "--" << boundary << "--\r\n"; }

  void Mixed() {
    if (attached_.empty()) return Related();
    const std::string boundary = Boundary();
    BeginParts("mixed", boundary);
    Part(boundary);
    Related();
    for (Attached& attached : attached_) {
      Part(boundary);
      Attachment(attached, "attachment");
    }
    EndParts(boundary);
  }

  void Related() {
    if (shown_.empty()) return Alternatives();
    const std::string boundary = Boundary();
    BeginParts("related", boundary);
    Part(boundary);
    Alternatives();
    for (Attached& attached : shown_) {
      Part(boundary);
      Attachment(attached, "inline");
    }
    EndParts(boundary);
  }

  void Alternatives() {
    if (html_.empty()) return Text("plain", plain_);
    if (plain_.empty()) return Text("html", html_);
    const std::string boundary = Boundary();
    BeginParts("alternative", boundary);
    Part(boundary);
    Text("plain", plain_);
    Part(boundary);
    Text("html", html_);
    EndParts(boundary);
  }

  void Text(std::string_view kind, std::string_view text) {
    const bool base64 = options_.encoding == IET_BASE64;
    out_ << "Content-Type: text/" << kind
         << "; charset=utf-8\r\nContent-Transfer-Encoding: " << (base64 ? "base64" : "quoted-printable") << "\r\n\r\n";
    // Lines of mail end with CR LF, also within an encoding.
    std::string lines;
    lines.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
      if (text[i] == '\r' && i + 1 < text.size() && text[i + 1] == '\n') ++i;
      if (text[i] == '\n' || text[i] == '\r') {
        lines += "\r\n";
      } else {
        lines += text[i];
      }
    }
    if (!base64) {
      out_ << QuotedPrintable(lines) << "\r\n";
      return;
    }
    std::string encoded;
    Base64Lines encoder;
    encoder.Add({reinterpret_cast<const std::uint8_t*>(lines.data()), lines.size()}, encoded);
    encoder.Finish(encoded);
    out_ << encoded;
  }

  void Attachment(Attached& attached, std::string_view disposition) {
    const Ref<IAttach> object = OpenAttachment(attached.number);
    if (attached.embedded && depth_ < kDeepest) {
      Ref<IMessage> inner;
      if (SUCCEEDED(object->OpenProperty(PR_ATTACH_DATA_OBJ, &IID_IMessage, 0, 0,
                                         reinterpret_cast<LPUNKNOWN*>(inner.Receive())))) {
        out_ << "Content-Type: message/rfc822\r\nContent-Disposition: attachment"
             << (attached.name.empty() ? std::string() : Parameter("filename", attached.name)) << "\r\n\r\n";
        Require(++counts_.embedded <= kMostEmbedded, MAPI_E_TOO_BIG);
        Writer(inner.get(), out_, options_, depth_ + 1, counts_).Run();
        out_ << "\r\n";
        return;
      }
    }
    out_ << "Content-Type: " << attached.type
         << (attached.name.empty() ? std::string() : Parameter("name", attached.name))
         << "\r\nContent-Transfer-Encoding: base64\r\nContent-Disposition: " << disposition
         << (attached.name.empty() ? std::string() : Parameter("filename", attached.name)) << "\r\n";
    if (const std::string id = ContentId(attached.content_id); !id.empty())
      out_ << Header("Content-ID", "<" + id + ">");
    out_ << "\r\n";
    Content(object.get());
  }

  void Content(IAttach* attachment) {
    Ref<IStream> stream;
    for (const ULONG tag : {PR_ATTACH_DATA_BIN, PR_ATTACH_DATA_OBJ})
      if (!stream) attachment->OpenProperty(tag, &IID_IStream, 0, 0, reinterpret_cast<LPUNKNOWN*>(stream.Receive()));
    if (!stream) return;  // by reference: the file is not in the store
    std::vector<std::uint8_t> piece(kPiece);
    Base64Lines encoder;
    std::string encoded;
    for (ULONG read = 0;;) {
      const HRESULT result = stream->Read(piece.data(), static_cast<ULONG>(piece.size()), &read);
      if (FAILED(result)) Fail(result);
      if (!read) break;
      encoder.Add({piece.data(), read}, encoded);
      out_ << encoded;
      encoded.clear();
    }
    encoder.Finish(encoded);
    out_ << encoded;
  }

  IMessage* message_;
  Output& out_;
  const Options& options_;
  const int depth_;
  Counts& counts_;
  std::string plain_, html_;
  std::vector<Attached> attached_, shown_;
};

}  // namespace

void Write(IMessage* message, IStream* stream, const Options& options) {
  Output out(stream);
  Counts counts;
  Writer(message, out, options, 0, counts).Run();
  out.Finish();
}

}  // namespace provider::mime
